// The exports' shared pieces: the table of volume handles, and what they make of their arguments.
#pragma once

#include "bitmap/manager.h"
#include "log/guarded.h"
#include "win/windows.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace vtflt {

// 0 and all ones are no handles.
inline bool IsValidVolumeHandle(HANDLE volume)
{
    return volume != nullptr && volume != INVALID_HANDLE_VALUE;
}

// An export's string argument as the library keeps it; null counts as empty.
inline std::wstring OwnedText(const wchar_t* text)
{
    return text != nullptr ? std::wstring(text) : std::wstring();
}

// Which bitmap manager serves which of the caller's volume handles. One per process, no lock: callers do not
// initialise or release on one thread while another uses the table. Entries live until they are erased; the handles
// belong to the caller.
class VolumeTable {
public:
    // The manager filed under the handle, or null.
    IMultiBitmapManager* Find(HANDLE volume) const;
    // Files the manager. False when the handle already has one: that one stays, and the new one is de-initialised and
    // released.
    bool Insert(HANDLE volume, std::unique_ptr<IMultiBitmapManager> manager);
    // Releases the handle's manager and its entry.
    void Erase(HANDLE volume);

private:
    std::map<std::uint64_t, std::unique_ptr<IMultiBitmapManager>> m_managers;
};

// The process's table. It is never destroyed: when the process ends, other threads were stopped wherever they were, perhaps
// inside of it.
VolumeTable& Volumes();

} // namespace vtflt
