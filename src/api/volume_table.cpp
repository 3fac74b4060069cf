#include "api/library.h"

#include <cstddef>
#include <new>
#include <utility>

namespace vtflt {

namespace {

std::uint64_t KeyOf(HANDLE volume)
{
    return reinterpret_cast<std::uintptr_t>(volume);
}

} // namespace

IMultiBitmapManager* VolumeTable::Find(HANDLE volume) const
{
    const auto entry = m_managers.find(KeyOf(volume));
    return entry != m_managers.end() ? entry->second.get() : nullptr;
}

bool VolumeTable::Insert(HANDLE volume, std::unique_ptr<IMultiBitmapManager> manager)
{
    std::unique_ptr<IMultiBitmapManager>& entry = m_managers[KeyOf(volume)];
    if (entry != nullptr) {
        manager->DeinitBitMapManager();
        return false;
    }
    entry = std::move(manager);
    return true;
}

void VolumeTable::Erase(HANDLE volume)
{
    m_managers.erase(KeyOf(volume));
}

VolumeTable& Volumes()
{
    // Made at its first use, in place, and never destroyed: loading cannot fail for want of memory.
    alignas(VolumeTable) static std::byte place[sizeof(VolumeTable)];
    static VolumeTable* const volumes = new (place) VolumeTable;
    return *volumes;
}

} // namespace vtflt
