// Version resources: the fixed part, of the files that have one.
#include "double/api.h"
#include "double/file_system.h"

#include <winver.h>

#include <algorithm>
#include <cstring>

using namespace vtdouble;

namespace {

// The head of a version resource, as it lies in memory.
struct Resource {
    WORD length;
    WORD valueLength;
    WORD type;
    wchar_t key[16];
    WORD padding;
    VS_FIXEDFILEINFO value;
};
static_assert(offsetof(Resource, value) % 4 == 0);

std::shared_ptr<Node> VersionedFile(const wchar_t* path)
{
    const Place place = Resolve(path);
    if (place.error != 0 || place.node == nullptr)
        return Failed<std::shared_ptr<Node>>(place.error != 0 ? place.error : static_cast<DWORD>(ERROR_FILE_NOT_FOUND),
                                             nullptr);
    if (!place.node->version)
        return Failed<std::shared_ptr<Node>>(ERROR_RESOURCE_TYPE_NOT_FOUND, nullptr);
    return place.node;
}

} // namespace

DOUBLE_API DWORD WINAPI GetFileVersionInfoSizeW(LPCWSTR path, LPDWORD unused)
{
    const Entry entry;
    if (unused != nullptr)
        *unused = 0;
    return VersionedFile(path) != nullptr ? static_cast<DWORD>(sizeof(Resource)) : 0;
}

DOUBLE_API BOOL WINAPI GetFileVersionInfoW(LPCWSTR path, DWORD, DWORD length, LPVOID data)
{
    const Entry entry;
    const auto file = VersionedFile(path);
    if (file == nullptr)
        return FALSE;
    Resource resource = {};
    resource.length = sizeof(Resource);
    resource.valueLength = sizeof(VS_FIXEDFILEINFO);
    const TextView key = L"VS_VERSION_INFO";
    std::copy(key.begin(), key.end(), resource.key);
    resource.value.dwSignature = VS_FFI_SIGNATURE;
    resource.value.dwStrucVersion = VS_FFI_STRUCVERSION;
    resource.value.dwFileVersionMS = file->version->first;
    resource.value.dwFileVersionLS = file->version->second;
    std::memcpy(data, &resource, std::min<std::size_t>(length, sizeof(resource)));
    return TRUE;
}

DOUBLE_API BOOL WINAPI VerQueryValueW(LPCVOID block, LPCWSTR name, LPVOID* value, PUINT length)
{
    const Entry entry;
    if (TextView(name) != L"\\")
        return Failed(ERROR_RESOURCE_TYPE_NOT_FOUND, FALSE);
    *value = &static_cast<Resource*>(const_cast<void*>(block))->value;
    *length = sizeof(VS_FIXEDFILEINFO);
    return TRUE;
}
