// Starting helper programs of tests/children and waiting for them.
//
// A child attaches to the machine whose directory it is given. Parent and child meet at named events: either one that
// the child's program knows, or the pause of the simulator, which stops a child before any call that it makes:
//
//     Pause pause(L"VTFltSim.Test");                          // the events, unique per process
//     ChildProcess child(L"registrar", {machine.directory(), L"App1"}, pause.Before(L"RegSetValueExW", L"AppIDs"));
//     ASSERT_TRUE(pause.AwaitReached(child));                 // the child stands before that call
//     ...
//     pause.Go();
//     EXPECT_EQ(0u, child.Join());
//
// Waits end with the event or with the child, so a child that dies early fails a case and hangs none.
#pragma once

#include "support/start_again.h"
#include "support/text.h"
#include "vtfltsim/VTFltSim.hpp"
#include "win/owners.h"

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace vttest {

class ChildProcess {
public:
    // Starts program.exe from the test program's own folder. calls is the simulator's plan for it, or empty.
    ChildProcess(const std::wstring& program, const std::vector<std::wstring>& arguments,
                 const std::wstring& calls = {})
    {
        wchar_t self[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        std::wstring folder = self;
        folder.resize(folder.rfind(L'\\') + 1);
        std::wstring line = L"\"" + folder + program + L".exe\"";
        for (const std::wstring& argument : arguments)
            line += L" \"" + argument + L"\"";

        // Inherited by the child; this process has read its own plan already or has none.
        SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, calls.empty() ? nullptr : calls.c_str());
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION information = {};
        const bool started = StartAgain([&] {
            return CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                                  &information);
        });
        const DWORD error = GetLastError();
        SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, nullptr);
        if (!started)
            throw vtfltsim::SimError("starting a child", error);
        m_process.reset(information.hProcess);
        CloseHandle(information.hThread);
    }
    ChildProcess(ChildProcess&&) noexcept = default;
    ChildProcess& operator=(ChildProcess&&) = delete;
    // A child that a failed case did not join is ended, so that it holds nothing against the next case.
    ~ChildProcess()
    {
        if (m_process.valid() && !Ended()) {
            TerminateProcess(m_process.get(), 1);
            WaitForSingleObject(m_process.get(), INFINITE);
        }
    }

    // Waits for the end; gives the exit code. One that hangs is ended: on the double, where a day is over when nothing else
    // happens, its test then fails instead of hanging, too.
    DWORD Join()
    {
        if (WaitForSingleObject(m_process.get(), A_DAY) != WAIT_OBJECT_0)
            TerminateProcess(m_process.get(), HUNG);
        WaitForSingleObject(m_process.get(), INFINITE);
        DWORD code = STILL_ACTIVE;
        GetExitCodeProcess(m_process.get(), &code);
        m_process.reset();
        return code;
    }
    bool Ended() const { return WaitForSingleObject(m_process.get(), 0) == WAIT_OBJECT_0; }
    HANDLE Handle() const { return m_process.get(); }

    // Waits for the event; false when the child ended first, or hangs.
    bool Await(const vtflt::UniqueHandle& event) const
    {
        const HANDLE either[] = {event.get(), m_process.get()};
        return WaitForMultipleObjects(2, either, FALSE, A_DAY) == WAIT_OBJECT_0;
    }

private:
    static constexpr DWORD A_DAY = 24 * 60 * 60 * 1000; // milliseconds
    static constexpr DWORD HUNG = 0xBAD;
    vtflt::UniqueHandle m_process;
};

// A named event that a child may open, manual reset.
inline vtflt::UniqueHandle NamedEvent(const std::wstring& name)
{
    vtflt::UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
    if (!event.valid())
        throw vtfltsim::SimError("making an event", GetLastError());
    return event;
}

// A name that no other process and no other case uses.
inline std::wstring UniqueName(const std::wstring& stem)
{
    static unsigned counter = 0;
    return stem + L"." + WideNumber(GetCurrentProcessId()) + L"." + WideNumber(++counter);
}

// A point before which a child stops until it is told to go on.
class Pause {
public:
    explicit Pause(const std::wstring& stem)
        : m_name(UniqueName(stem)), m_reached(NamedEvent(m_name + L".reached")), m_go(NamedEvent(m_name + L".go"))
    {
    }
    // The child's plan: it stops before the nth matching call.
    std::wstring Before(const std::wstring& function, const std::wstring& match, unsigned nth = 1) const
    {
        return L"pause|" + function + L"|" + match + L"|" + WideNumber(nth) + L"|" + m_name;
    }
    bool AwaitReached(const ChildProcess& child) const { return child.Await(m_reached); }
    bool IsReached() const { return WaitForSingleObject(m_reached.get(), 0) == WAIT_OBJECT_0; }
    void Go() const { SetEvent(m_go.get()); }

private:
    std::wstring m_name;
    vtflt::UniqueHandle m_reached;
    vtflt::UniqueHandle m_go;
};

// The plan of a child that dies before or behind the nth matching call; it ends with VTFLTSIM_KILLED.
inline std::wstring DieBefore(const std::wstring& function, const std::wstring& match, unsigned nth = 1)
{
    return L"kill-before|" + function + L"|" + match + L"|" + WideNumber(nth);
}
inline std::wstring DieAfter(const std::wstring& function, const std::wstring& match, unsigned nth = 1)
{
    return L"kill-after|" + function + L"|" + match + L"|" + WideNumber(nth);
}

} // namespace vttest
