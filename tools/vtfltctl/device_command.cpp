// device: does the driver track it?
#include "commands.h"
#include "common/volume_name.h"
#include "library.h"
#include "machine.h"
#include "output.h"

#include "apps/volume_name.h"

#include <fmt/format.h>
#include <vtfltmgr/VTFltMgr.h>

#include <memory>

namespace vtfltctl {

Exit AskAboutDevice(const Context& context, const std::wstring& asked)
{
    if (asked.empty())
        throw Failure(Exit::Usage, "the device name is empty");
    // The driver knows volumes without the backslash that belongs to their root.
    const std::wstring name = toolkit::ParseVolumeGuid(asked) ? vtflt::StripTrailingBackslash(asked) : asked;
    // The export's answer for a driver that cannot be asked is the one for a device that is not tracked.
    const DriverFacts driver = LookAtDriver();
    if (driver.generation == Generation::None)
        throw Failure(Exit::DriverDown, fmt::format("the driver cannot be asked: {}", WhyDriverFails(driver)));
    const bool monitored = VTIsDeviceMonitored(name.c_str()) == 0;
    return Answer(
        context, monitored ? Exit::Ok : Exit::NotMonitored, {{"device", ToUtf8(name)}, {"monitored", monitored}},
        fmt::format("The driver {} {}.\n", monitored ? "tracks" : "does not track, or does not know,", Quoted(name)));
}

} // namespace vtfltctl
