// Where the logging code runs: the module that contains it, and the process's executable.
#pragma once

#include <cstddef>
#include <string_view>

namespace vtflt {

inline constexpr std::size_t MODULE_PATH_CAPACITY = 1024; // characters; a longer path counts as not found

struct ModulePath {
    wchar_t text[MODULE_PATH_CAPACITY];

    // The full path; empty when it could not be found.
    std::wstring_view Path() const noexcept;
    // The part behind the last backslash.
    std::wstring_view Name() const noexcept;
    // The part before it.
    std::wstring_view Folder() const noexcept;
};

// The process's executable. Found out at the first use, and again at each as long as it cannot be.
const ModulePath& ExecutableModule() noexcept;

// The module that contains the logging code; the executable where that cannot be found. Found out likewise.
const ModulePath& OwnModule() noexcept;

} // namespace vtflt
