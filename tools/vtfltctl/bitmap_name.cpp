#include "bitmap_name.h"

#include <algorithm>
#include <array>

namespace vtfltctl::bitmap {
namespace {

constexpr std::string_view EXTENSION = ".dat";
// -YYYYMMDD-HHMMSS-mmm
constexpr std::string_view STAMP_SHAPE = "-dddddddd-dddddd-ddd";

struct Prefix {
    std::string_view text;
    Role role;
};
constexpr std::array<Prefix, 5> PREFIXES{{
    {"VelVolTrc_base_", Role::Base},
    {"VelVolTrc_child_", Role::Child},
    {"DriverBitmap-", Role::DriverDump},
    {"DriverBitmap2App-", Role::ToAppDump},
    {"AppSnapChanges-", Role::SnapshotChanges},
}};

constexpr char Lower(char c) noexcept
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualIgnoringCase(std::string_view a, std::string_view b) noexcept
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return Lower(x) == Lower(y); });
}

bool MatchesStamp(std::string_view text) noexcept
{
    return std::equal(text.begin(), text.end(), STAMP_SHAPE.begin(), STAMP_SHAPE.end(),
                      [](char c, char shape) { return shape == 'd' ? c >= '0' && c <= '9' : c == shape; });
}

std::string StampText(std::string_view stamp)
{
    const auto part = [&](std::size_t at, std::size_t count) { return std::string(stamp.substr(at, count)); };
    return part(1, 4) + "-" + part(5, 2) + "-" + part(7, 2) + "T" + part(10, 2) + ":" + part(12, 2) + ":" +
           part(14, 2) + "." + part(17, 3);
}

} // namespace

NameFacts ParseBitmapName(std::string_view path)
{
    std::string_view name = path.substr(path.find_last_of("/\\") + 1);
    if (name.size() < EXTENSION.size() || !EqualIgnoringCase(name.substr(name.size() - EXTENSION.size()), EXTENSION))
        return {};
    name.remove_suffix(EXTENSION.size());

    const auto prefix = std::find_if(PREFIXES.begin(), PREFIXES.end(), [&](const Prefix& candidate) {
        return EqualIgnoringCase(name.substr(0, candidate.text.size()), candidate.text);
    });
    if (prefix == PREFIXES.end())
        return {};
    name.remove_prefix(prefix->text.size());

    NameFacts facts;
    if (IsDump(prefix->role)) {
        // The stamp is looked for at the end: an application's ID may hold anything.
        if (name.size() <= STAMP_SHAPE.size() || !MatchesStamp(name.substr(name.size() - STAMP_SHAPE.size())))
            return {};
        facts.taken = StampText(name.substr(name.size() - STAMP_SHAPE.size()));
        name.remove_suffix(STAMP_SHAPE.size());
    }
    if (name.empty())
        return {};
    facts.role = prefix->role;
    facts.application = name;
    return facts;
}

std::string_view RoleName(Role role) noexcept
{
    switch (role) {
    case Role::Base:
        return "base";
    case Role::Child:
        return "child";
    case Role::DriverDump:
        return "driver-dump";
    case Role::ToAppDump:
        return "application-dump";
    case Role::SnapshotChanges:
        return "snapshot-dump";
    case Role::Unknown:
        break;
    }
    return "unknown";
}

std::string_view RoleText(Role role) noexcept
{
    switch (role) {
    case Role::Base:
        return "base bitmap: owed to the next backup";
    case Role::Child:
        return "child bitmap: gathered since the last fetch";
    case Role::DriverDump:
        return "dump of what the driver delivered";
    case Role::ToAppDump:
        return "dump of what the application was given";
    case Role::SnapshotChanges:
        return "dump of the snapshot changes that the application handed in";
    case Role::Unknown:
        break;
    }
    return "bitmap";
}

} // namespace vtfltctl::bitmap
