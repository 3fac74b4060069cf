#include "stop_signal.h"

#include "common/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtlog {
namespace {

// Set by the console's thread; lives as long as the process.
HANDLE g_interrupted = nullptr;

BOOL WINAPI OnConsoleEvent(DWORD event) noexcept
{
    // The second one gets the system's default, in case the command no longer reacts.
    if (WaitForSingleObject(g_interrupted, 0) == WAIT_OBJECT_0)
        return FALSE;
    SetEvent(g_interrupted);
    // With the console's end the process ends when this returns: give the command the time that the system allows.
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT)
        Sleep(INFINITE);
    return TRUE;
}

bool IsSet(HANDLE event) noexcept
{
    return event != nullptr && WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
}

} // namespace

StopSignal::StopSignal(const std::string& eventName, std::optional<double> seconds)
{
    g_interrupted = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (g_interrupted == nullptr)
        throw Failure(Exit::Internal, "no event could be made: " + toolkit::ErrorText(GetLastError()));
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
    if (!eventName.empty()) {
        m_event.reset(CreateEventW(nullptr, TRUE, FALSE, toolkit::ToWide(eventName).c_str()));
        const DWORD error = GetLastError();
        if (!m_event)
            throw Failure(Exit::Usage,
                          fmt::format("--stop-event: \"{}\" cannot be used: {}", eventName, toolkit::ErrorText(error)));
    }
    if (seconds)
        m_end = GetTickCount64() + static_cast<std::uint64_t>(*seconds * 1000);
}

std::vector<HANDLE> StopSignal::Handles() const
{
    std::vector<HANDLE> handles = {g_interrupted};
    if (m_event)
        handles.push_back(m_event.get());
    return handles;
}

DWORD StopSignal::Spell(DWORD milliseconds) const noexcept
{
    const std::uint64_t now = GetTickCount64();
    return now >= m_end ? 0 : static_cast<DWORD>(std::min<std::uint64_t>(milliseconds, m_end - now));
}

std::optional<Exit> StopSignal::Ending() const noexcept
{
    if (IsSet(g_interrupted))
        return Exit::Interrupted;
    if (IsSet(m_event.get()) || GetTickCount64() >= m_end)
        return Exit::Ok;
    return std::nullopt;
}

} // namespace vtlog
