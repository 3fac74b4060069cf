// A progress bar with rate and remaining time, on standard error, and only when that is a terminal.
#pragma once

#include <cstdint>
#include <string>

namespace vtbackup {

class Progress {
public:
    Progress(std::string title, std::uint64_t totalBytes);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Add(std::uint64_t bytes);

private:
    void Draw(std::uint64_t now);

    std::string m_title;
    std::uint64_t m_total;
    std::uint64_t m_done = 0;
    std::uint64_t m_started;
    std::uint64_t m_drawn = 0; // time of the last drawing
    bool m_visible;
};

// The bar's line, without its carriage return. Pure, so that it can be looked at alone.
std::string ProgressLine(const std::string& title, std::uint64_t done, std::uint64_t total, double seconds);

} // namespace vtbackup
