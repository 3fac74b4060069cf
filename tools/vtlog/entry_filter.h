// Which records are shown.
#pragma once

#include "record_parser.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vtlog {

struct EntryFilter {
    std::optional<int> level; // this one and the more important ones
    std::vector<std::uint32_t> processes;
    std::vector<std::uint32_t> threads;
    std::vector<std::uint32_t> codes;
    std::vector<std::wstring> texts; // all of them in the message, or in the names of program and module
    bool ignoreCase = false;
    std::optional<RecordTime> since;
    std::optional<RecordTime> until;

    // Whether everything passes.
    [[nodiscard]] bool Empty() const;
    // Whether a record passes.
    [[nodiscard]] bool Passes(const Entry& record) const;
    // Whether all texts are in this one.
    [[nodiscard]] bool HoldsTexts(std::wstring_view text) const;
};

// A level by name or number; several names begin with the same letter, so the whole name. Nothing when it is none.
std::optional<int> ParseLevel(const std::string& text);
// A code as a decimal number, as 0x and hexadecimal digits, or by its name.
std::optional<std::uint32_t> ParseCode(const std::string& text);

} // namespace vtlog
