#include "log/shared_objects.h"

namespace vtflt {

OpenToEveryone::OpenToEveryone() noexcept
{
    InitializeSecurityDescriptor(&m_descriptor, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&m_descriptor, TRUE, nullptr, FALSE);
    m_attributes.nLength = sizeof(m_attributes);
    m_attributes.lpSecurityDescriptor = &m_descriptor;
    m_attributes.bInheritHandle = FALSE;
}

MutexHold::MutexHold(HANDLE mutex, DWORD milliseconds) noexcept
{
    const DWORD result = WaitForSingleObject(mutex, milliseconds);
    if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED)
        m_owned = mutex;
}

void MutexHold::Release() noexcept
{
    if (m_owned != nullptr)
        ReleaseMutex(m_owned);
    m_owned = nullptr;
}

UniqueHandle CreateSharedMapping(const MappingNames& names, std::size_t bytes, bool& existed) noexcept
{
    OpenToEveryone everyone;
    UniqueHandle mapping;
    for (const wchar_t* name : {names.global, names.local}) {
        SetLastError(ERROR_SUCCESS);
        mapping.reset(CreateFileMappingW(INVALID_HANDLE_VALUE, everyone.get(), PAGE_READWRITE, 0,
                                         static_cast<DWORD>(bytes), name));
        const DWORD error = GetLastError();
        existed = error == ERROR_ALREADY_EXISTS;
        if (mapping || error != ERROR_ACCESS_DENIED)
            return mapping;
    }
    return mapping;
}

UniqueHandle OpenSharedMapping(const MappingNames& names) noexcept
{
    UniqueHandle mapping(OpenFileMappingW(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, names.global));
    if (!mapping)
        mapping.reset(OpenFileMappingW(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, names.local));
    return mapping;
}

UniqueView MapShared(HANDLE mapping, std::size_t bytes) noexcept
{
    UniqueView view(MapViewOfFile(mapping, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, bytes));
    if (!view)
        return view;
    MEMORY_BASIC_INFORMATION region = {};
    if (VirtualQuery(view.get(), &region, sizeof(region)) != sizeof(region) || region.State != MEM_COMMIT ||
        region.RegionSize < bytes)
        view.reset();
    return view;
}

} // namespace vtflt
