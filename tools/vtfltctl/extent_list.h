// A list of extents that is printed while it is found: however long it is, no more than a line of it is in memory.
#pragma once

#include "command_line.h"

#include <cstdint>
#include <string>

namespace vtfltctl {

// CSV, a line of column names and then a line for each extent; with --json an object with an array of them, which ends
// with "result", for that is known last.
class ExtentList {
public:
    // columns: the names, as CSV writes them. before: members of the object that come before the list, as JSON text
    // with a comma behind each, or nothing.
    ExtentList(const Context& context, std::string columns, const std::string& before);

    // One extent. where: a third column, or nothing. False when standard output takes no more.
    [[nodiscard]] bool Add(std::uint64_t offset, std::uint64_t length, const char* where = nullptr);
    // Ends the list: with the offset at which the next command goes on, when there is more. Gives outcome back, or
    // Unreadable when standard output could not be written.
    Exit End(Exit outcome, bool more, std::uint64_t next);
    // Ends it with a failure; the object says it, too.
    Exit Fail(Exit outcome, const std::string& message);

private:
    bool Write(const std::string& text);
    Exit Close(Exit outcome, const std::string& members);

    const Context& m_context;
    bool m_first = true;
    bool m_written = true;
};

} // namespace vtfltctl
