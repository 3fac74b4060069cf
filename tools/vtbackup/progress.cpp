#include "progress.h"

#include "handle.h"
#include "text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

namespace vtbackup {
namespace {

constexpr std::uint64_t REDRAW_MILLISECONDS = 200;
constexpr std::size_t BAR_WIDTH = 30;
constexpr std::size_t LINE_WIDTH = 100;

bool StandardErrorIsTerminal() noexcept
{
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_ERROR_HANDLE), &mode) != 0;
}

std::string TimeText(double seconds)
{
    const auto whole = static_cast<std::uint64_t>(std::clamp(seconds, 0.0, 359999.0));
    return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

} // namespace

std::string ProgressLine(const std::string& title, std::uint64_t done, std::uint64_t total, double seconds)
{
    const double part = total == 0 ? 1.0 : std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
    const auto filled = static_cast<std::size_t>(part * BAR_WIDTH);
    const double rate = seconds > 0.0 ? static_cast<double>(done) / seconds : 0.0;
    const double remaining = rate > 0.0 && total > done ? static_cast<double>(total - done) / rate : 0.0;
    return fmt::format("{} [{}{}] {:3.0f}%  {}/s  {} left", title, std::string(filled, '#'),
                       std::string(BAR_WIDTH - filled, '.'), part * 100.0, BytesText(static_cast<std::uint64_t>(rate)),
                       TimeText(remaining));
}

Progress::Progress(std::string title, std::uint64_t totalBytes)
    : m_title(std::move(title)), m_total(totalBytes), m_started(GetTickCount64()), m_visible(StandardErrorIsTerminal())
{
}

Progress::~Progress()
{
    if (m_visible && m_drawn != 0)
        std::fprintf(stderr, "\r%s\r", std::string(LINE_WIDTH, ' ').c_str());
}

void Progress::Add(std::uint64_t bytes)
{
    m_done += bytes;
    if (!m_visible)
        return;
    const std::uint64_t now = GetTickCount64();
    if (now - m_drawn >= REDRAW_MILLISECONDS)
        Draw(now);
}

void Progress::Draw(std::uint64_t now)
{
    m_drawn = now;
    std::string line = ProgressLine(m_title, m_done, m_total, static_cast<double>(now - m_started) / 1000.0);
    line.resize(LINE_WIDTH, ' ');
    std::fprintf(stderr, "\r%s", line.c_str());
    std::fflush(stderr);
}

} // namespace vtbackup
