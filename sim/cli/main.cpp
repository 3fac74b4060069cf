// vtfltsim: builds and scripts simulated machines from the command line.
//
// Exit codes: 0 done; 1 the simulator refused, with the reason on standard error; 2 the command line is wrong; of run, the
// program's own.
#include "vtfltmgr/version.h"
#include "vtfltsim/VTFltSim.hpp"
#include "vtfltsim/VTFltSimForget.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace vtfltsim;

constexpr int EXIT_REFUSED = 1;
constexpr int EXIT_USAGE = 2;

std::string ToUtf8(const std::wstring& text)
{
    if (text.empty())
        return {};
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), result.data(), size, nullptr, nullptr);
    return result;
}

std::wstring ToWide(const std::string& text)
{
    if (text.empty())
        return {};
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring result(static_cast<std::size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), result.data(), size);
    return result;
}

// An open machine, for one command.
class Opened {
public:
    explicit Opened(const std::string& directory)
    {
        Check("opening the machine", VTFltSimOpen(ToWide(directory).c_str(), &m_machine));
    }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;
    ~Opened() { VTFltSimClose(m_machine); }
    VTFLTSIM_MACHINE get() const noexcept { return m_machine; }

private:
    VTFLTSIM_MACHINE m_machine = nullptr;
};

struct Options {
    std::string directory;
    std::string volume;
    std::string guid;
    std::string mount;
    std::string driveType = "fixed";
    std::uint64_t length = 0;
    std::uint64_t blockSize = 65536;
    std::uint64_t offset = 0;
    unsigned fill = 1;
    unsigned count = 1;
    unsigned seed = 0;
    unsigned number = 0;
    std::string state;
    std::string classKey;
    std::vector<std::string> filters;
    unsigned launchError = 0;
    unsigned uninstallExit = 0;
    unsigned installExit = 0;
    std::vector<std::string> hangs;
    std::string code;
    std::string endpoint;
    unsigned error = 0;
    unsigned nth = 1;
    std::vector<std::string> program; // with its arguments
    int exitCode = 0;
};

void ShowVolume(const VTFLTSIM_VOLUME_INFO& volume)
{
    std::printf("volume %s\n", ToUtf8(volume.guid).c_str());
    std::printf("  length %llu, block size %lu, drive type %lu, mounted at %s\n", volume.length, volume.blockSize,
                volume.driveType, *volume.mountPath != L'\0' ? ToUtf8(volume.mountPath).c_str() : "-");
    std::printf("  %s%s; blocks changed: %llu current, %llu frozen, %llu pending; chunks ever written: %llu\n",
                volume.tracked != 0 ? "tracked" : "not tracked", volume.prepared != 0 ? ", snapshot announced" : "",
                volume.currentBlocks, volume.frozenBlocks, volume.pendingBlocks, volume.allocatedChunks);
    std::printf("  files in %s\n", ToUtf8(volume.filesDirectory).c_str());
}

void ShowSnapshot(const VTFLTSIM_SNAPSHOT_INFO& snapshot)
{
    std::printf("snapshot %lu of %s\n", snapshot.number, ToUtf8(snapshot.volumeGuid).c_str());
    std::printf("  %s, length %llu, %s, blocks written into it: %llu\n", ToUtf8(snapshot.devicePath).c_str(),
                snapshot.length, snapshot.tracked != 0 ? "tracked" : "not tracked", snapshot.writtenBlocks);
}

// Shows what one enumeration gives, up to its end. One that cannot be read is named by its place; false then.
template <class Info>
bool ShowAll(VTFLTSIM_MACHINE machine, const char* what, DWORD(WINAPI* at)(VTFLTSIM_MACHINE, DWORD, Info*),
             void (*show)(const Info&))
{
    bool all = true;
    Info info = {};
    info.size = sizeof(info);
    for (DWORD i = 0;; ++i) {
        const DWORD code = at(machine, i, &info);
        if (code == ERROR_NO_MORE_ITEMS)
            return all;
        if (code == 0) {
            show(info);
            continue;
        }
        all = false;
        std::fflush(stdout); // in the place where it would stand
        std::fprintf(stderr, "vtfltsim: %s %lu from the start cannot be read, error %lu\n", what, i + 1, code);
    }
}

void Show(Options& options)
{
    const Opened machine(options.directory);
    static constexpr const char* DRIVERS[] = {"working", "absent", "older"};
    DWORD driver = 0;
    Check("reading the driver's state", VTFltSimGetDriverState(machine.get(), &driver));
    std::printf("driver: %s\n", DRIVERS[driver]);
    const bool volumes = ShowAll(machine.get(), "volume", VTFltSimEnumVolume, ShowVolume);
    const bool snapshots = ShowAll(machine.get(), "snapshot", VTFltSimEnumSnapshot, ShowSnapshot);
    options.exitCode = volumes && snapshots ? 0 : EXIT_REFUSED;
}

DWORD DriveTypeOf(const std::string& name)
{
    static const std::map<std::string, DWORD> TYPES = {{"fixed", DRIVE_FIXED},     {"removable", DRIVE_REMOVABLE},
                                                       {"network", DRIVE_REMOTE},  {"cdrom", DRIVE_CDROM},
                                                       {"ramdisk", DRIVE_RAMDISK}, {"unknown", DRIVE_UNKNOWN}};
    return TYPES.at(name);
}

void AddVolume(const Options& options)
{
    const Opened machine(options.directory);
    const std::wstring guid = ToWide(options.guid);
    const std::wstring mount = ToWide(options.mount);
    VTFLTSIM_VOLUME_CONFIG config = {};
    config.size = sizeof(config);
    config.length = options.length;
    config.blockSize = static_cast<DWORD>(options.blockSize);
    config.driveType = DriveTypeOf(options.driveType);
    config.guid = guid.empty() ? nullptr : guid.c_str();
    config.mountPath = mount.empty() ? nullptr : mount.c_str();
    WCHAR made[VTFLTSIM_GUID_CHARS] = {};
    Check("adding the volume", VTFltSimAddVolume(machine.get(), &config, made));
    std::printf("%s\n", ToUtf8(made).c_str());
}

// Fixed bytes at one place, or the same bytes at places spread over the volume by the seed.
void Write(const Options& options)
{
    const Opened machine(options.directory);
    const std::wstring volume = ToWide(options.volume);
    VTFLTSIM_VOLUME_INFO info = {};
    info.size = sizeof(info);
    Check("finding the volume", VTFltSimGetVolumeInfo(machine.get(), volume.c_str(), &info));
    const std::uint64_t length =
        std::min<std::uint64_t>(options.length == 0 ? info.blockSize : options.length, 1u << 30);
    const std::vector<std::uint8_t> data(length, static_cast<std::uint8_t>(options.fill));
    std::mt19937_64 random(options.seed);
    for (unsigned i = 0; i < options.count; ++i) {
        const std::uint64_t room = info.length > length ? info.length - length : 0;
        const std::uint64_t offset = options.count == 1 ? options.offset : random() % (room + 1);
        Check("writing",
              VTFltSimWriteVolume(machine.get(), volume.c_str(), offset, data.data(), static_cast<DWORD>(length)));
    }
}

void TakeSnapshot(const Options& options)
{
    const Opened machine(options.directory);
    VTFLTSIM_SNAPSHOT_INFO info = {};
    info.size = sizeof(info);
    DWORD number = 0;
    Check("taking the snapshot", VTFltSimCreateSnapshot(machine.get(), ToWide(options.volume).c_str(), &number, &info));
    std::printf("%lu %s\n", number, ToUtf8(info.devicePath).c_str());
}

void SetFilters(const Options& options)
{
    const Opened machine(options.directory);
    std::vector<std::wstring> names;
    for (const auto& name : options.filters)
        names.push_back(ToWide(name));
    const std::wstring key = ToWide(options.classKey);
    Check("setting the filters",
          VTFltSimSetUpperFilters(machine.get(), key.empty() ? nullptr : key.c_str(), MultiString(names).c_str()));
}

void SetUtility(const Options& options)
{
    const Opened machine(options.directory);
    VTFLTSIM_UTILITY utility = {};
    utility.size = sizeof(utility);
    utility.launchError = options.launchError;
    utility.uninstallExit = options.uninstallExit;
    utility.installExit = options.installExit;
    for (const auto& which : options.hangs)
        utility.hangs |= which == "uninstall" ? 1u : 2u;
    Check("setting the utility", VTFltSimSetUtility(machine.get(), &utility));
}

void AddFault(const Options& options)
{
    static const std::map<std::string, DWORD> CODES = {
        {"get-bitmap", 0xB0000002},           {"get-block-size", 0xB0000006},        {"block-size-change", 0xB0000009},
        {"replication-success", 0xB0000011},  {"prepare-for-snapshot", 0xB0000015},  {"stop-volume", 0xB000001D},
        {"update-device-config", 0xB0000046}, {"prepare-for-uninstall", 0xB000004A}, {"get-length", 0x7405C}};
    const Opened machine(options.directory);
    std::wstring endpoint = ToWide(options.endpoint);
    if (endpoint == L"control")
        endpoint = VTFLTSIM_ENDPOINT_CONTROL;
    Check("planning the fault",
          VTFltSimFailRequest(machine.get(), CODES.at(options.code), endpoint.empty() ? nullptr : endpoint.c_str(),
                              options.nth, options.count, options.error));
}

// As the C run-time of the program takes it apart again.
std::wstring Quoted(const std::string& argument)
{
    const std::wstring text = ToWide(argument);
    if (!text.empty() && text.find_first_of(L" \t\"") == std::wstring::npos)
        return text;
    std::wstring quoted = L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t c : text) {
        if (c == L'"')
            quoted.append(backslashes + 1, L'\\');
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        quoted.push_back(c);
    }
    return quoted.append(backslashes, L'\\') + L"\"";
}

void Run(Options& options)
{
    std::wstring line;
    for (const auto& argument : options.program)
        line += (line.empty() ? L"" : L" ") + Quoted(argument);
    PROCESS_INFORMATION process = {};
    Check("starting the program", VTFltSimStartProgram(ToWide(options.directory).c_str(), line.c_str(), 0, &process));
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD code = EXIT_REFUSED;
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    options.exitCode = static_cast<int>(code);
}

// Adds a command that works on a machine; work runs when it was chosen.
template <class Work>
CLI::App* Command(CLI::App& parent, Options& options, const char* name, const char* help, Work work)
{
    CLI::App* command = parent.add_subcommand(name, help);
    command->add_option("directory", options.directory, "the machine's directory")->required();
    command->callback([&options, work] { work(options); });
    return command;
}

template <class Work>
CLI::App* VolumeCommand(CLI::App& parent, Options& options, const char* name, const char* help, Work work)
{
    CLI::App* command = Command(parent, options, name, help, work);
    command->add_option("volume", options.volume, "{GUID}, \\\\?\\Volume{GUID} or a mount path")->required();
    return command;
}

void DefineVolumes(CLI::App& app, Options& options)
{
    const CLI::AsSizeValue size(false);
    const CLI::Range blockSizes(std::uint64_t{1}, std::uint64_t{0xFFFFFFFF}); // what fits its field
    CLI::App* add = Command(app, options, "add-volume", "add a volume and print its GUID", AddVolume);
    add->add_option("length", options.length, "bytes; 64M, 1G and the like are fine")->required()->transform(size);
    add->add_option("--block-size", options.blockSize, "tracking block size (default 64K)")
        ->transform(size)
        ->check(blockSizes);
    add->add_option("--mount", options.mount, "mount path, such as E:\\");
    add->add_option("--guid", options.guid, "{...}; made up when left out");
    add->add_option("--type", options.driveType, "drive type (default fixed)")
        ->check(CLI::IsMember({"fixed", "removable", "network", "cdrom", "ramdisk", "unknown"}));

    VolumeCommand(app, options, "remove-volume", "remove a volume and its snapshots", [](const Options& o) {
        Check("removing", VTFltSimRemoveVolume(Opened(o.directory).get(), ToWide(o.volume).c_str()));
    });
    CLI::App* write = VolumeCommand(app, options, "write", "write to a volume, as any program there would", Write);
    write->add_option("--offset", options.offset, "where, in bytes (default 0)")->transform(size);
    write->add_option("--length", options.length, "how much (default: one tracking block)")->transform(size);
    write->add_option("--fill", options.fill, "byte value (default 1)")->check(CLI::Range(0, 255));
    write->add_option("--count", options.count, "above 1: so many writes, at places made from --seed");
    write->add_option("--seed", options.seed, "seed of the places (default 0)");

    CLI::App* resize = VolumeCommand(app, options, "resize", "change a volume's length", [](const Options& o) {
        Check("resizing", VTFltSimResizeVolume(Opened(o.directory).get(), ToWide(o.volume).c_str(), o.length));
    });
    resize->add_option("length", options.length, "new length in bytes")->required()->transform(size);
    CLI::App* block =
        VolumeCommand(app, options, "block-size", "change a volume's tracking block size", [](const Options& o) {
            Check("changing the block size", VTFltSimSetBlockSize(Opened(o.directory).get(), ToWide(o.volume).c_str(),
                                                                  static_cast<DWORD>(o.blockSize)));
        });
    block->add_option("size", options.blockSize, "new size, a multiple of 512")
        ->required()
        ->transform(size)
        ->check(blockSizes);
    VolumeCommand(app, options, "lose-tracking", "let the driver lose track of a volume", [](const Options& o) {
        Check("losing track", VTFltSimLoseTracking(Opened(o.directory).get(), ToWide(o.volume).c_str()));
    });
    CLI::App* forget = VolumeCommand(
        app, options, "forget-writes", "let the driver overlook the next writes to a volume, and nobody notice",
        [](const Options& o) {
            Check("forgetting", VTFltSimForgetWrites(Opened(o.directory).get(), ToWide(o.volume).c_str(), o.count));
        });
    forget->add_option("count", options.count, "how many; 4294967295: all from here on; 0: none (default 1)");
    VolumeCommand(app, options, "start-tracking", "track a stopped volume again", [](const Options& o) {
        Check("tracking", VTFltSimStartTracking(Opened(o.directory).get(), ToWide(o.volume).c_str()));
    });
    VolumeCommand(app, options, "snapshot", "take a snapshot; print its number and device path", TakeSnapshot);
    CLI::App* drop = Command(app, options, "delete-snapshot", "delete a snapshot", [](const Options& o) {
        Check("deleting", VTFltSimDeleteSnapshot(Opened(o.directory).get(), o.number));
    });
    drop->add_option("number", options.number, "the snapshot's number")->required();
}

void DefineSystem(CLI::App& app, Options& options)
{
    static const std::vector<std::string> DRIVERS = {"working", "absent", "older"};
    static const std::vector<std::string> SERVICES = {"present", "absent", "refused", "manager-refused"};
    const auto index = [](const std::vector<std::string>& names, const std::string& name) {
        return static_cast<DWORD>(std::find(names.begin(), names.end(), name) - names.begin());
    };
    CLI::App* driver = Command(app, options, "driver", "set the driver's state", [index](const Options& o) {
        Check("setting the driver", VTFltSimSetDriverState(Opened(o.directory).get(), index(DRIVERS, o.state)));
    });
    driver->add_option("state", options.state, "working, absent or older")->required()->check(CLI::IsMember(DRIVERS));
    CLI::App* service = Command(app, options, "service", "set the driver's service", [index](const Options& o) {
        Check("setting the service", VTFltSimSetService(Opened(o.directory).get(), index(SERVICES, o.state)));
    });
    service->add_option("state", options.state, "present, absent, refused or manager-refused")
        ->required()
        ->check(CLI::IsMember(SERVICES));
    CLI::App* filters = Command(app, options, "filters", "set the upper filters of a device class", SetFilters);
    filters->add_option("names", options.filters, "the filters in order; none: an empty list");
    filters->add_option("--class", options.classKey, "class key below HKEY_LOCAL_MACHINE (default: the volume class)");
    CLI::App* utility = Command(app, options, "utility", "set how VTFltUtl.exe behaves", SetUtility);
    utility->add_option("--uninstall-exit", options.uninstallExit, "exit code of -r (default 0)");
    utility->add_option("--install-exit", options.installExit, "exit code of -i (default 0; 3010: restart needed)");
    utility->add_option("--launch-error", options.launchError, "the utility does not start, with this error");
    utility->add_option("--hangs", options.hangs, "which never ends")->check(CLI::IsMember({"uninstall", "install"}));
    CLI::App* fault = Command(app, options, "fail", "let driver requests fail", AddFault);
    fault->add_option("request", options.code, "which request")
        ->required()
        ->check(CLI::IsMember({"get-bitmap", "get-block-size", "block-size-change", "replication-success",
                               "prepare-for-snapshot", "stop-volume", "update-device-config", "prepare-for-uninstall",
                               "get-length"}));
    fault->add_option("error", options.error, "error code")->required();
    fault->add_option("--on", options.endpoint, "a volume, a snapshot's device path, or control (default: any)");
    fault->add_option("--nth", options.nth, "first request that fails, from now (default 1)");
    fault->add_option("--count", options.count, "how many fail (default 1; 0: all from there on)");
    Command(app, options, "clear-faults", "end all planned failures",
            [](const Options& o) { Check("clearing", VTFltSimClearFaults(Opened(o.directory).get())); });
    Command(app, options, "reboot", "restart the machine",
            [](const Options& o) { Check("restarting", VTFltSimReboot(Opened(o.directory).get())); });
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    std::vector<std::string> arguments;
    for (int i = argc - 1; i > 0; --i)
        arguments.push_back(ToUtf8(argv[i])); // last first, as the parser takes them

    Options options;
    CLI::App app("Builds and scripts simulated machines for tests of backup programs.", "vtfltsim");
    app.set_version_flag("--version", "vtfltsim " VTFLTMGR_VERSION, "print the version");
    app.require_subcommand(1);
    app.footer("Exit codes: 0 done, 1 the simulator refused (see standard error), 2 wrong command line.");
    Command(app, options, "create", "make a new machine", [](const Options& o) {
        VTFLTSIM_MACHINE machine = nullptr;
        Check("creating the machine", VTFltSimCreate(ToWide(o.directory).c_str(), &machine));
        VTFltSimClose(machine);
    });
    Command(app, options, "destroy", "remove a machine with all its contents",
            [](const Options& o) { Check("removing the machine", VTFltSimDestroy(ToWide(o.directory).c_str())); });
    Command(app, options, "show", "print volumes, change counts and snapshots", Show);
    DefineVolumes(app, options);
    DefineSystem(app, options);
    CLI::App* run = app.add_subcommand("run", "run a program, unmodified, under a machine; ends with its exit code");
    run->add_option("directory", options.directory, "the machine's directory")->required();
    run->prefix_command(); // what follows is the program's
    run->footer("Behind the directory: the program and its arguments.");
    run->callback([&options, run] {
        options.program = run->remaining();
        if (options.program.empty())
            throw CLI::RequiredError("program");
        Run(options);
    });
    try {
        app.parse(std::move(arguments));
        return options.exitCode;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : EXIT_USAGE;
    } catch (const SimError& error) {
        std::fprintf(stderr, "vtfltsim: %s\n", error.what());
        return EXIT_REFUSED;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vtfltsim: %s\n", error.what());
        return EXIT_REFUSED;
    }
}
