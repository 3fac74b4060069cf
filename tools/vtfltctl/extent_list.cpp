#include "extent_list.h"

#include "output.h"

#include <fmt/format.h>

namespace vtfltctl {

ExtentList::ExtentList(const Context& context, std::string columns, const std::string& before) : m_context(context)
{
    if (context.json)
        Write(fmt::format("{{\n  \"command\": {},\n  {}\"extents\": [", Json(context.command).dump(), before));
    else
        Write(columns + "\n");
}

bool ExtentList::Write(const std::string& text)
{
    m_written = m_written && Print(text);
    return m_written;
}

bool ExtentList::Add(std::uint64_t offset, std::uint64_t length, const char* where)
{
    const char* const between = m_first ? "" : ",";
    m_first = false;
    if (!m_context.json)
        return Write(where == nullptr ? fmt::format("{},{}\n", offset, length)
                                      : fmt::format("{},{},{}\n", offset, length, where));
    const std::string third = where == nullptr ? std::string() : fmt::format(", \"in\": \"{}\"", where);
    return Write(fmt::format("{}\n    {{\"offset\": {}, \"length\": {}{}}}", between, offset, length, third));
}

Exit ExtentList::End(Exit outcome, bool more, std::uint64_t next)
{
    if (more && !m_context.json)
        Diagnose(fmt::format("there are more extents: go on with --start {}", next));
    return Close(outcome, fmt::format("\"next\": {},\n  ", more ? std::to_string(next) : "null"));
}

Exit ExtentList::Fail(Exit outcome, const std::string& message)
{
    Diagnose(message);
    return Close(outcome, fmt::format("\"next\": null,\n  \"message\": {},\n  ",
                                      Json(message).dump(-1, ' ', false, Json::error_handler_t::replace)));
}

Exit ExtentList::Close(Exit outcome, const std::string& members)
{
    if (m_context.json)
        Write(fmt::format("{}],\n  {}\"result\": \"{}\"\n}}\n", m_first ? "" : "\n  ", members, OutcomeName(outcome)));
    if (m_written && Flush())
        return outcome;
    Diagnose("the result could not be written to standard output");
    return Exit::Unreadable;
}

} // namespace vtfltctl
