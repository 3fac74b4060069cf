// The locks that keep backups from running while a command changes what they rely on.
#pragma once

#include "command_line.h"

#include "win/owners.h"

#include <string>
#include <vector>

namespace vtfltctl {

// Keeps backups of an application from running: one that began before a mark was set takes it off by its success. With
// volumes, keeps backups of these from running, too, whosever they are. Only backups that take these locks are kept;
// what others there are, nobody can tell.
class BackupPause {
public:
    // application: empty for none. volumes: {...}. Throws Failure(Busy) while such a backup runs, Failure(Unreadable) when
    // that cannot be told; it never waits.
    BackupPause(const Context& context, const std::wstring& application, const std::vector<std::wstring>& volumes = {});
    BackupPause(const BackupPause&) = delete;
    BackupPause& operator=(const BackupPause&) = delete;

private:
    class Held {
    public:
        Held(const std::wstring& name, const std::string& what);
        Held(Held&& other) noexcept = default;
        Held& operator=(Held&&) = delete;
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;
        ~Held();

    private:
        // 0, or why there is no mutex to wait for.
        DWORD Open(const std::wstring& name);

        vtflt::UniqueHandle m_mutex;
    };

    std::vector<Held> m_held;
};

} // namespace vtfltctl
