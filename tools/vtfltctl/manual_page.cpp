#include "command_model.h"

#include <fmt/format.h>

#include <cctype>
#include <optional>

namespace vtfltctl {
namespace {

// Text of ours as roff: nothing in it is taken for a request or an escape.
std::string Escaped(const std::string& text)
{
    std::string escaped;
    bool lineStart = true;
    for (const char c : text) {
        if (lineStart && (c == '.' || c == '\''))
            escaped += "\\&";
        lineStart = c == '\n';
        if (c == '\\')
            escaped += "\\e";
        else if (c == '-')
            escaped += "\\-";
        else
            escaped += c;
    }
    return escaped;
}

// A paragraph's text: sentences begin lines of their own, and no blank line ends it.
std::string Prose(const std::string& text)
{
    std::string prose;
    const std::string escaped = Escaped(text);
    for (std::size_t i = 0; i < escaped.size(); ++i) {
        const bool sentenceEnd = i >= 1 && escaped[i] == ' ' && escaped[i - 1] == '.';
        prose += escaped[i] == '\n' || sentenceEnd ? '\n' : escaped[i];
    }
    return prose + "\n";
}

std::string Capitalised(std::string text)
{
    if (!text.empty())
        text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return text;
}

std::string EndedSentence(const std::string& text)
{
    return text.empty() || text.back() == '.' ? text : text + ".";
}

std::string Bold(const std::string& text)
{
    return "\\fB" + Escaped(text) + "\\fR";
}

std::string Italic(const std::string& text)
{
    return "\\fI" + Escaped(text) + "\\fR";
}

// "--which base|child": as an option is typed.
std::string OptionText(const OptionModel& option)
{
    if (option.IsPositional())
        return Italic(option.value) + (option.repeated ? " ..." : "");
    std::string text;
    for (const std::string& name : option.names)
        text += (text.empty() ? "" : ", ") + Bold(name);
    return option.value.empty() ? text : text + " " + Italic(option.value);
}

void AddSynopsis(const CommandModel& command, const std::string& path, std::string& page)
{
    for (const CommandModel& child : command.commands)
        AddSynopsis(child, path + " " + child.name, page);
    if (!command.commands.empty())
        return;
    std::string line = Bold(path);
    for (const OptionModel& option : command.options) {
        if (option.IsPositional())
            line += option.required ? " " + OptionText(option) : " [" + OptionText(option) + "]";
        else if (option.required)
            line += " " + OptionText(option);
    }
    const bool first = page.ends_with(".nh\n");
    page += (first ? "" : ".br\n") + line + " [" + Italic("options") + "]\n";
}

void AddCommand(const CommandModel& command, const std::string& path, std::string& page)
{
    if (command.commands.empty()) {
        page += ".SS " + Escaped(path) + "\n" + Prose(EndedSentence(command.description));
        for (const OptionModel& option : command.options)
            page += ".TP\n" + OptionText(option) + "\n" + Prose(EndedSentence(Capitalised(option.description)));
    }
    for (const CommandModel& child : command.commands)
        AddCommand(child, path + " " + child.name, page);
}

struct ExitLine {
    std::string number;
    std::string name;
    std::string meaning;
};

std::string TakeWord(std::string& text)
{
    const std::size_t from = text.find_first_not_of(' ');
    if (from == std::string::npos)
        return {};
    const std::size_t end = std::min(text.find(' ', from), text.size());
    std::string word = text.substr(from, end - from);
    text.erase(0, end);
    return word;
}

// A line of the footer that is an exit code's.
std::optional<ExitLine> ParseExitLine(std::string line)
{
    ExitLine parsed;
    parsed.number = TakeWord(line);
    if (parsed.number.empty() || parsed.number.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    parsed.name = TakeWord(line);
    const std::size_t from = line.find_first_not_of(' ');
    parsed.meaning = from == std::string::npos ? std::string() : line.substr(from);
    return parsed;
}

void AddExitCodes(const std::string& footer, std::string& page)
{
    for (std::size_t at = 0; at < footer.size();) {
        const std::size_t end = std::min(footer.find('\n', at), footer.size());
        if (const std::optional<ExitLine> line = ParseExitLine(footer.substr(at, end - at)))
            page += ".TP\n" + Bold(line->number) + " (" + Escaped(line->name) + ")\n" +
                    Prose(EndedSentence(Capitalised(line->meaning)));
        at = end + 1;
    }
}

} // namespace

std::string ManualPage(const CommandModel& program, const std::string& version)
{
    std::string title;
    for (const char c : program.name)
        title += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    // The version stands where a date would: the page is made from the program, not written on a day.
    std::string page = fmt::format(".TH {0} 1 \"{1}\" \"VTFltMgr {1}\"\n", title, version);
    std::string summary = program.description;
    if (!summary.empty())
        summary[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(summary[0])));
    if (summary.ends_with('.'))
        summary.pop_back();
    page += ".SH NAME\n" + Escaped(program.name) + " \\- " + Escaped(summary) + "\n";
    page += ".SH SYNOPSIS\n.nh\n";
    AddSynopsis(program, program.name, page);
    page += ".hy\n.SH DESCRIPTION\n" + Prose(EndedSentence(program.description));
    page += Prose("What is found goes to standard output, what went wrong to standard error; both are UTF-8. With "
                  "--json the result is one JSON object.");
    page += ".SH COMMANDS\n";
    AddCommand(program, program.name, page);
    page += ".SH EXIT STATUS\n";
    AddExitCodes(program.footer, page);
    return page;
}

} // namespace vtfltctl
