#include "config_change.h"

#include "common/text.h"
#include "entry_filter.h"

#include <fmt/format.h>

namespace vtlog {
namespace {

using namespace vtflt;

std::uint32_t LevelOption(const char* name, const std::string& text)
{
    if (text == "none")
        return LOG_LEVEL_NOT_SET;
    const std::optional<int> level = ParseLevel(text);
    if (!level || *level < 0)
        throw Failure(Exit::Usage, fmt::format("{}: \"{}\" is no level; write error, warning, information, detail, a "
                                               "number from 0 on, or none",
                                               name, text));
    return static_cast<std::uint32_t>(*level);
}

// The process has another current folder than this one: it gets the whole path.
std::wstring PathOption(const char* name, const std::string& text)
{
    const std::wstring given = toolkit::ToWide(text);
    if (given.empty() || given.back() == L'\\' || given.back() == L'/')
        throw Failure(Exit::Usage, fmt::format("{}: \"{}\" is no file", name, text));
    std::wstring full(32768, L'\0');
    const DWORD length = GetFullPathNameW(given.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length == 0 || length >= full.size())
        throw Failure(Exit::Usage, fmt::format("{}: \"{}\" is no path", name, text));
    full.resize(length);
    if (full.size() >= LOG_PATH_CAPACITY)
        throw Failure(Exit::Usage, fmt::format("{}: the path has {} characters; a log file's has {} at most", name,
                                               full.size(), LOG_PATH_CAPACITY - 1));
    return full;
}

} // namespace

ConfigChange ChangeOf(const ConfigOptions& options)
{
    ConfigChange change;
    const bool forModule = options.level || options.path || options.automatic;
    if (forModule && !options.module)
        throw Failure(Exit::Usage, "--level, --path and --auto need --module; for the whole process there are "
                                   "--global-level and --global-path");
    if (options.module && !forModule)
        throw Failure(Exit::Usage, "--module needs --level, --path or --auto");
    if (options.module) {
        change.module = toolkit::ToWide(*options.module);
        change.automatic = options.automatic;
    }
    if (options.level)
        change.level = LevelOption("--level", *options.level);
    if (options.path)
        change.path = PathOption("--path", *options.path);
    if (options.globalLevel)
        change.globalLevel = LevelOption("--global-level", *options.globalLevel);
    if (options.globalPath)
        change.globalPath = PathOption("--global-path", *options.globalPath);
    if (options.noGlobalPath)
        change.globalPath = std::wstring();
    return change;
}

} // namespace vtlog
