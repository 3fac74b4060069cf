#include "common/backup_locks.h"

#include "common/simulation.h"
#include "common/text.h"
#include "win/windows.h"

#include <fmt/format.h>
#include <xxhash.h>

namespace toolkit {
namespace {

// One text for a folder, whatever case, prefix, slashes or current folder it was written with.
std::wstring FoldedPath(const std::wstring& path)
{
    std::wstring full = path;
    if (const DWORD needed = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr); needed != 0) {
        full.assign(needed, L'\0');
        full.resize(GetFullPathNameW(path.c_str(), needed, full.data(), nullptr));
    }
    if (full.starts_with(L"\\\\?\\"))
        full.erase(0, 4);
    while (full.ends_with(L'\\'))
        full.pop_back();
    CharLowerBuffW(full.data(), static_cast<DWORD>(full.size()));
    return full;
}

} // namespace

LockNames::LockNames(const std::wstring& simulation) : m_prefix(L"Global\\VTBackup.")
{
    const std::wstring folder = SimulatedFolder(simulation);
    if (folder.empty())
        return;
    const std::string bytes = ToUtf8(FoldedPath(folder));
    m_prefix += L"Simulated." + ToWide(fmt::format("{:016x}", XXH3_64bits(bytes.data(), bytes.size()))) + L".";
}

std::wstring LockNames::Application(std::wstring_view id) const
{
    return m_prefix + L"Application." + std::wstring(id) + L".Lock";
}

std::wstring LockNames::Volume(std::wstring_view guid) const
{
    // Names of mutexes are case-sensitive, GUIDs are not.
    std::wstring folded(guid);
    CharLowerBuffW(folded.data(), static_cast<DWORD>(folded.size()));
    return m_prefix + L"Volume" + folded + L".Lock";
}

} // namespace toolkit
