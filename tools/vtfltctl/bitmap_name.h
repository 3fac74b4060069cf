// What the name of a bitmap file says: which bitmap it is, and whose.
#pragma once

#include <string>
#include <string_view>

namespace vtfltctl::bitmap {

enum class Role {
    Unknown,         // a name that the library does not give
    Base,            // VelVolTrc_base_APP.dat
    Child,           // VelVolTrc_child_APP.dat
    DriverDump,      // DriverBitmap-APP-DATE-TIME-MS.dat
    ToAppDump,       // DriverBitmap2App-APP-DATE-TIME-MS.dat
    SnapshotChanges, // AppSnapChanges-APP-DATE-TIME-MS.dat
};

struct NameFacts {
    Role role = Role::Unknown;
    std::string application;
    // Of a dump: the local time when it was taken, 2024-03-05T07:08:09.010.
    std::string taken;
};

// Path or name, UTF-8; folders are passed over. Names are compared as the file system does it, without regard to case.
NameFacts ParseBitmapName(std::string_view path);

[[nodiscard]] constexpr bool IsDump(Role role) noexcept
{
    return role == Role::DriverDump || role == Role::ToAppDump || role == Role::SnapshotChanges;
}

// "base", "child", "driver-dump", "application-dump", "snapshot-dump", "unknown": for JSON.
std::string_view RoleName(Role role) noexcept;
// For people: "base bitmap", "bitmap that the driver delivered" ...
std::string_view RoleText(Role role) noexcept;

} // namespace vtfltctl::bitmap
