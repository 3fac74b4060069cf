#include "fuzz/fuzz.h"

#include <cstdio>
#include <cstdlib>

namespace fuzz {

void BitmapFile(const std::uint8_t* bytes, std::size_t count);
void Breakpoints(const std::uint8_t* bytes, std::size_t count);
void CommandLine(const std::uint8_t* bytes, std::size_t count);
void ConfigBlock(const std::uint8_t* bytes, std::size_t count);
void DeviceReply(const std::uint8_t* bytes, std::size_t count);
void DriverReply(const std::uint8_t* bytes, std::size_t count);
void IndexFile(const std::uint8_t* bytes, std::size_t count);
void LogFile(const std::uint8_t* bytes, std::size_t count);
void LogRecord(const std::uint8_t* bytes, std::size_t count);
void LossEvidence(const std::uint8_t* bytes, std::size_t count);
void ManifestFile(const std::uint8_t* bytes, std::size_t count);
void MultiString(const std::uint8_t* bytes, std::size_t count);
void RepositoryFile(const std::uint8_t* bytes, std::size_t count);
void ResyncList(const std::uint8_t* bytes, std::size_t count);
void Ring(const std::uint8_t* bytes, std::size_t count);
void SuccessNote(const std::uint8_t* bytes, std::size_t count);
void TimeText(const std::uint8_t* bytes, std::size_t count);
void VtfltctlBitmap(const std::uint8_t* bytes, std::size_t count);
void VtfltctlCommandLine(const std::uint8_t* bytes, std::size_t count);
void VtfltctlLists(const std::uint8_t* bytes, std::size_t count);
void VtlogCommandLine(const std::uint8_t* bytes, std::size_t count);

const std::vector<Target>& Targets()
{
    static const std::vector<Target> targets = {
        {"bitmap_file", BitmapFile},
        {"breakpoints", Breakpoints},
        {"command_line", CommandLine},
        {"config_block", ConfigBlock},
        {"device_reply", DeviceReply},
        {"driver_reply", DriverReply},
        {"index_file", IndexFile},
        {"log_file", LogFile},
        {"log_record", LogRecord},
        {"loss_evidence", LossEvidence},
        {"manifest", ManifestFile},
        {"multi_string", MultiString},
        {"repository_file", RepositoryFile},
        {"resync_list", ResyncList},
        {"ring", Ring},
        {"success_note", SuccessNote},
        {"time_text", TimeText},
        {"vtfltctl_bitmap", VtfltctlBitmap},
        {"vtfltctl_command_line", VtfltctlCommandLine},
        {"vtfltctl_lists", VtfltctlLists},
        {"vtlog_command_line", VtlogCommandLine},
    };
    return targets;
}

void Broken(const char* condition, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
    std::abort();
}

} // namespace fuzz
