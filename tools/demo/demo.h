// The demonstration: a simulated machine, two applications, and everything that the plan does to them.
#pragma once

#include "child.h"
#include "oracle.h"
#include "plan.h"
#include "volumes.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vtdemo {

struct Row {
    int cycle = 0;
    std::size_t application = 0;
    std::size_t volume = 0;
    std::string kind;
    std::string why;
    std::uint64_t blocks = 0;
    std::uint64_t bytesRead = 0;
    std::uint64_t volumeLength = 0;
    std::string result; // "equal" when the restored contents are the snapshot's
    bool good = false;
};

struct Totals {
    int backups = 0;
    int full = 0;
    int verify = 0;
    int incremental = 0;
    int kills = 0;
    int busy = 0;               // runs that found the volume in use and were repeated
    std::uint64_t compared = 0; // bytes of restored volumes
    std::uint64_t writes = 0;
};

class Demo {
public:
    // root: an empty folder.
    explicit Demo(std::wstring root);
    ~Demo();
    Demo(const Demo&) = delete;
    Demo& operator=(const Demo&) = delete;

    // Runs the plan and prints its table. False at the first difference or the first event that did not show.
    bool Run();
    [[nodiscard]] Totals Sum() const;

private:
    // One application's backups of one volume, as the demonstration knows them.
    struct Series {
        Expectation next;
        std::uint64_t sequence = 0;
        std::map<std::uint64_t, Contents> snapshots; // by backup
    };

    void Prepare();
    bool RunStep(int step);
    void Apply(const Event& event);
    void RunApplication(std::size_t application, int step, std::vector<Row>& rows);
    Row BackUp(std::size_t application, std::size_t volume);
    std::string Kill(std::size_t application, std::size_t volume, EventKind kind);
    std::string KillWhileCopying(std::size_t application, std::size_t volume);
    std::string TakeOverLeftSnapshot(std::size_t volume, Series& series);
    std::string RestoreAndCompare(std::size_t application, std::size_t volume, std::uint64_t sequence);
    std::string RestoreOldOnes();
    std::string CheckRepositories();
    std::vector<std::wstring> Arguments(const wchar_t* command, std::size_t application, std::size_t volume) const;
    void Print(const Row& row) const;

    std::wstring m_root;
    VTFLTSIM_MACHINE m_machine = nullptr;
    std::vector<DemoVolume> m_volumes;
    std::vector<std::unique_ptr<Writer>> m_writers;
    std::vector<std::wstring> m_applications = {L"Nightly", L"Hourly"};
    int m_cycles[APPLICATIONS] = {};
    Series m_series[APPLICATIONS][VOLUMES]; // each is used by its application's thread only
    mutable std::mutex m_totalsMutex;
    Totals m_totals; // guarded by m_totalsMutex
};

} // namespace vtdemo
