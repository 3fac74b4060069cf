// The names of the locks that a backup holds while it runs: programs that must not work beside one take the same.
#pragma once

#include <string>
#include <string_view>

namespace toolkit {

// Names the locks of one machine: a simulated one by its folder, however it is written, or (an empty folder) the one that
// the program runs on.
class LockNames {
public:
    explicit LockNames(const std::wstring& simulation);
    [[nodiscard]] std::wstring Application(std::wstring_view id) const;
    [[nodiscard]] std::wstring Volume(std::wstring_view guid) const;

private:
    std::wstring m_prefix;
};

} // namespace toolkit
