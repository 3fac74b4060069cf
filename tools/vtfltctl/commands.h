// What the commands are asked for, as it was typed, and what each of them does. A new command is declared here, has its
// work in a file of its own, and gets its options in commands.cpp.
#pragma once

#include "bitmap_file.h"
#include "command_line.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vtfltctl {

namespace bitmap {

// Which bitmap a command works on.
struct SelectionOptions {
    std::string file;
    std::string volume;
    std::string application;
    std::string which = "both"; // base, child, both
    bool dump = false;
    std::string blockSize;
    std::string volumeSize;
    std::uint32_t leadBytes = LEAD_BYTES;
};

} // namespace bitmap

struct CleanOptions {
    std::string application;
    std::string volume;
};

struct VerifyOptions {
    std::string application;
    std::vector<std::string> volumes;
    bool all = false;
    bool exact = false;
    bool pending = false;
};

struct StopOptions {
    std::string volume;
    bool all = false;
};

struct ExtentOptions {
    bitmap::SelectionOptions selection;
    std::string start = "0";
    std::uint64_t limit = UINT64_MAX;
};

struct DiffOptions {
    bitmap::SelectionOptions reading;
    std::string first;
    std::string second;
    bool list = false;
    std::string start = "0";
    std::uint64_t limit = UINT64_MAX;
};

struct MapOptions {
    bitmap::SelectionOptions selection;
    std::string png;
    bool ansi = false;
    std::uint64_t columns = 64;
};

// All may throw Failure. Names and IDs are what was typed; an empty one where it may be left out was not given.

Exit ShowStatus(const Context& context);                // status_command.cpp
Exit RunDoctor(const Context& context, bool reinstall); // doctor_command.cpp

// apps_commands.cpp
Exit ListApplications(const Context& context);
Exit RegisterApplication(const Context& context, const std::wstring& application);
Exit UnregisterApplication(const Context& context, const std::wstring& application);
// Deletes an application's bitmap files. apps_clean.cpp
Exit CleanApplication(const Context& context, const CleanOptions& options);

// verify_commands.cpp
Exit ListVerify(const Context& context, const VerifyOptions& options);
Exit AddVerify(const Context& context, const VerifyOptions& options);
Exit RemoveVerify(const Context& context, const VerifyOptions& options);
Exit ReplicateVerify(const Context& context, const VerifyOptions& options);
// Safe lists in the place of damaged ones. Throws Failure before anything is changed, when a list cannot be read for
// another reason than its form. verify_rebuild.cpp
Exit RebuildLists(const Context& context);

// monitor_commands.cpp
Exit CountRequests(const Context& context, const std::wstring& classKey);
Exit SwitchOn(const Context& context, const std::wstring& classKey);
Exit SwitchOff(const Context& context, const std::wstring& classKey);

Exit StopTracking(const Context& context, const StopOptions& options); // stop_command.cpp
Exit AskAboutDevice(const Context& context, const std::wstring& name); // device_command.cpp

// bitmap_info.cpp, bitmap_extents.cpp, bitmap_diff.cpp, bitmap_map.cpp
Exit ShowBitmap(const Context& context, const bitmap::SelectionOptions& options);
Exit ListExtents(const Context& context, const ExtentOptions& options);
Exit ShowDifference(const Context& context, const DiffOptions& options);
Exit DrawMap(const Context& context, const MapOptions& options);

// What is made from the definitions of all commands. generated_commands.cpp
Exit PrintCompletion(const Context& context, const std::string& shell);
Exit PrintManual(const Context& context);

} // namespace vtfltctl
