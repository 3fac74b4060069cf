// The soak: applications that back up the volumes of one simulated machine without end, each run a process of its own, some
// of them ended at any moment. Every backup that came to its end is restored and compared with its snapshot, byte for byte.
#pragma once

#include "demo/oracle.h"
#include "vtfltsim/VTFltSim.hpp"

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace vtsoak {

struct Options {
    double minutes = 10;
    std::uint64_t kills = 0; // ends when there were so many, and an incremental backup; 0: when the time is over
    unsigned seed = 1;
};

struct Totals {
    std::atomic<std::uint64_t> kills{0};    // processes that were ended in the middle of their work
    std::atomic<std::uint64_t> survived{0}; // that were to be ended and were faster
    std::atomic<std::uint64_t> backups{0};  // that came to their end
    std::atomic<std::uint64_t> incremental{0};
    std::atomic<std::uint64_t> restores{0}; // with a comparison
    std::atomic<std::uint64_t> bytes{0};    // compared
    std::atomic<std::uint64_t> registrations{0};
    std::atomic<std::uint64_t> losses{0}; // of tracking
    std::atomic<std::uint64_t> busy{0};   // somebody else was at work
    std::atomic<std::uint64_t> writes{0};
    std::atomic<std::uint64_t> differences{0};
    std::atomic<std::uint64_t> hangs{0};
    std::atomic<std::uint64_t> failures{0}; // an exit code that has no reason
};

inline constexpr std::size_t APPLICATIONS = 3;
inline constexpr std::size_t VOLUMES = 2;

// Who has a snapshot, or may have one, is inside; whoever removes what was left waits until nobody is.
class SnapshotGate {
public:
    class Inside {
    public:
        explicit Inside(SnapshotGate& gate) : m_gate(gate)
        {
            std::unique_lock lock(gate.m_mutex);
            gate.m_changed.wait(lock, [&] { return !gate.m_closed; });
            ++gate.m_inside;
        }
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;
        ~Inside()
        {
            const std::lock_guard lock(m_gate.m_mutex);
            --m_gate.m_inside;
            m_gate.m_changed.notify_all();
        }

    private:
        SnapshotGate& m_gate;
    };
    template <class Work>
    void WhileNobodyIsInside(const Work& work)
    {
        std::unique_lock lock(m_mutex);
        m_closed = true;
        m_changed.wait(lock, [this] { return m_inside == 0; });
        work();
        m_closed = false;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_closed = false;
    unsigned m_inside = 0;
};

class Soak {
public:
    Soak(std::wstring root, const Options& options);
    ~Soak();
    Soak(const Soak&) = delete;
    Soak& operator=(const Soak&) = delete;

    // Runs until the time is over, or something is wrong. True: nothing was.
    bool Run();
    const Totals& Sum() const { return m_totals; }

private:
    // What an application keeps of a volume.
    struct Series {
        std::uint64_t sequence = 0; // the last backup that came to its end; 0: none
        std::uint64_t since = 0;    // backups since the chain began anew
        vtdemo::Contents contents;
    };
    struct Worker {
        std::size_t number = 0;
        std::wstring name;
        std::mt19937 random;
        double milliseconds = 400;      // what a backup takes, about
        bool mayBeUnregistered = false; // a run that was to unregister it was ended since one came to its end
        ULONGLONG busySince = 0;        // milliseconds; 0: its last run was not told that somebody else is at work
        std::atomic<std::uint64_t> restores{0};
        std::atomic<std::uint64_t> incremental{0};
        std::array<Series, VOLUMES> series;
    };
    // What became of one run.
    enum class Ended { Well, Killed, Busy, Badly };
    struct Outcome {
        Ended ended = Ended::Badly;
        std::uint64_t sequence = 0;
        DWORD snapshot = 0;
        bool incremental = false;
    };

    void Prepare();
    void Work(Worker& worker);
    void Write(std::size_t volume);
    void Disturb();
    void BackUp(Worker& worker, std::size_t volume);
    void RegisterAnew(Worker& worker);
    void Restore(Worker& worker, std::size_t volume);
    // Runs vtbackup, and ends it somewhere when it is a victim.
    enum class Victim : bool { No, Yes };
    Outcome RunOnce(Worker& worker, std::vector<std::wstring> arguments, Victim victim);
    // Runs it until it came to its end; victims first, as the dice fall. False: the soak is over.
    bool RunThrough(Worker& worker, const std::vector<std::wstring>& arguments, Outcome& outcome);
    Outcome Busy(Worker& worker, Outcome outcome);
    void NoteBackup(Worker& worker, std::size_t volume, const Outcome& outcome);
    std::string SnapshotNumbers() const;
    void RemoveLeftSnapshots();
    void RemoveBefore(const Worker& worker, std::size_t volume, std::uint64_t sequence);
    std::vector<std::wstring> Arguments(const wchar_t* command, const Worker& worker,
                                        std::size_t volume = VOLUMES) const;
    void Report(const std::string& text);
    bool WasTried() const;
    bool GoesOn();

    const std::wstring m_root;
    const Options m_options;
    const ULONGLONG m_started;
    Totals m_totals;
    std::atomic<bool> m_over{false};
    std::mutex m_printing;
    SnapshotGate m_gate;
    VTFLTSIM_MACHINE m_machine = nullptr;
    std::array<std::wstring, VOLUMES> m_volumes;
    std::array<Worker, APPLICATIONS> m_workers;
};

} // namespace vtsoak
