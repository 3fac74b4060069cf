#include "log/log_folder.h"

#include "log/bounded_text.h"
#include "log/own_module.h"
#include "log/probes.h"
#include "log/text_compare.h"
#include "log/trace.h"
#include "win/owners.h"

#include <aclapi.h>
#include <sddl.h>

#include <cstdio>

namespace vtflt {

namespace {

// Read, write, execute and delete.
constexpr DWORD MODIFY_RIGHTS = 0x1301BF;

bool IsFolder(const wchar_t* path) noexcept
{
    const DWORD attributes = GetFileAttributesW(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool CreateFolderWithParents(wchar_t (&path)[LOG_PATH_CAPACITY]) noexcept
{
    // Level by level. The first levels of a path (a drive, a share) cannot be made and need not be: only what the last
    // one says counts.
    for (wchar_t* end = path; *end != L'\0'; ++end) {
        if (*end != L'\\' || end == path)
            continue;
        *end = L'\0';
        CreateDirectoryW(path, nullptr);
        *end = L'\\';
    }
    return CreateDirectoryW(path, nullptr) || IsFolder(path);
}

} // namespace

bool GrantsModifyRights(ACL* list, void* account) noexcept
{
    for (DWORD index = 0; index < list->AceCount; ++index) {
        void* entry = nullptr;
        if (!GetAce(list, index, &entry))
            continue;
        const auto& header = *static_cast<const ACE_HEADER*>(entry);
        if (header.AceType != ACCESS_ALLOWED_ACE_TYPE || (header.AceFlags & INHERITED_ACE) != 0)
            continue;
        auto& allowed = *static_cast<ACCESS_ALLOWED_ACE*>(entry);
        if (EqualSid(&allowed.SidStart, account) && (allowed.Mask & MODIFY_RIGHTS) == MODIFY_RIGHTS)
            return true;
    }
    return false;
}

namespace {

bool GrantTo(wchar_t* folder, PSID account) noexcept
{
    PACL present = nullptr;
    UniqueLocalMemory descriptor;
    DWORD error = GetNamedSecurityInfoW(folder, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &present,
                                        nullptr, descriptor.put());
    if (error != ERROR_SUCCESS) {
        std::printf("GetNamedSecurityInfo Error %u\n", static_cast<unsigned>(error));
        return false;
    }
    // A folder without a list is open to everyone; a list with this one entry would shut everyone else out.
    if (present == nullptr || GrantsModifyRights(present, account))
        return true;

    EXPLICIT_ACCESSW access = {};
    access.grfAccessPermissions = MODIFY_RIGHTS;
    access.grfAccessMode = GRANT_ACCESS;
    access.grfInheritance = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
    access.Trustee.TrusteeForm = TRUSTEE_IS_SID;
    access.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
    access.Trustee.ptstrName = static_cast<wchar_t*>(account);
    PACL merged = nullptr;
    error = SetEntriesInAclW(1, &access, present, &merged);
    if (error != ERROR_SUCCESS) {
        std::printf("SetEntriesInAcl Error %u\n", static_cast<unsigned>(error));
        return false;
    }
    const UniqueLocalMemory mergedOwner(merged);
    error = SetNamedSecurityInfoW(folder, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, merged, nullptr);
    if (error != ERROR_SUCCESS)
        std::printf("SetNamedSecurityInfo Error %u\n", static_cast<unsigned>(error));
    return error == ERROR_SUCCESS;
}

bool GrantToLocalService(wchar_t* folder) noexcept
{
    constexpr wchar_t LOCAL_SERVICE[] = L"S-1-5-19";
    UniqueLocalMemory account;
    PSID sid = nullptr;
    if (!ConvertStringSidToSidW(LOCAL_SERVICE, &sid))
        return false;
    account.reset(sid);
    return GrantTo(folder, sid);
}

void Compress(const wchar_t* folder) noexcept
{
    const DWORD attributes = GetFileAttributesW(folder);
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_COMPRESSED) != 0)
        return;
    const UniqueHandle handle(CreateFileW(folder, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                          nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!handle)
        return;
    USHORT format = COMPRESSION_FORMAT_DEFAULT;
    DWORD returned = 0;
    DeviceIoControl(handle.get(), FSCTL_SET_COMPRESSION, &format, sizeof(format), nullptr, 0, &returned, nullptr);
}

} // namespace

void ResolveLogFolder(DWORD components, wchar_t (&folder)[LOG_PATH_CAPACITY]) noexcept
{
    if (components == COMPONENT_WINPE) {
        CopyText(folder, ExecutableModule().Folder());
        AppendText(folder, L"\\Log\\");
        return;
    }
    if (components != COMPONENT_NONE && FindOwnComponent(OwnModule().Path(), folder) != COMPONENT_NONE) {
        AppendText(folder, FieldText(folder).back() == L'\\' ? L"Logs\\" : L"\\Logs\\");
        return;
    }
    CopyText(folder, ExecutableModule().Folder());
    AppendText(folder, L"\\Logs\\");
}

bool PrepareLogFolder(std::wstring_view filePath, std::wstring_view defaultFolder) noexcept
{
    const std::size_t backslash = filePath.rfind(L'\\');
    if (backslash == std::wstring_view::npos)
        return false;
    wchar_t folder[LOG_PATH_CAPACITY];
    CopyText(folder, filePath.substr(0, backslash));
    // The root of a drive keeps its backslash: without it the name means that drive's current folder.
    if (FieldText(folder).ends_with(L':'))
        AppendText(folder, L"\\");
    if (!CreateFolderWithParents(folder))
        return false;
    if (!GrantToLocalService(folder))
        Trace(L"[%d:%d] Failed to add local service access right for folder %s\r\n", GetCurrentThreadId(),
              GetCurrentProcessId(), folder);
    if (StartsWithIgnoringCase(defaultFolder, FieldText(folder)))
        Compress(folder);
    return true;
}

} // namespace vtflt
