#include "line_reader.h"

#include <mutex>
#include <thread>
#include <utility>

namespace vtlog {

struct LineReader::State {
    vtflt::UniqueHandle event{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    std::mutex lock; // guards what follows
    std::vector<std::string> lines;
    bool ended = false;
};

LineReader::LineReader() : m_state(std::make_shared<State>())
{
    std::thread([state = m_state] {
        const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
        std::string line;
        char character = 0;
        DWORD got = 0;
        while (ReadFile(input, &character, 1, &got, nullptr) && got == 1) {
            if (character != '\n') {
                if (character != '\r' && line.size() < 100)
                    line += character;
                continue;
            }
            const std::lock_guard guard(state->lock);
            state->lines.push_back(std::exchange(line, {}));
            SetEvent(state->event.get());
        }
        const std::lock_guard guard(state->lock);
        state->ended = true;
        SetEvent(state->event.get());
    }).detach();
}

HANDLE LineReader::Event() const noexcept
{
    return m_state->event.get();
}

std::vector<std::string> LineReader::Take()
{
    const std::lock_guard guard(m_state->lock);
    return std::exchange(m_state->lines, {});
}

bool LineReader::Ended() const
{
    const std::lock_guard guard(m_state->lock);
    return m_state->ended;
}

} // namespace vtlog
