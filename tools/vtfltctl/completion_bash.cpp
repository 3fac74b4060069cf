#include "command_model.h"

#include <fmt/format.h>

namespace vtfltctl {
namespace {

// A word of our own in single quotes, in which the shell changes nothing.
std::string BashQuoted(const std::string& text)
{
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

void CollectPaths(const CommandModel& command, const std::string& path, std::string& patterns)
{
    for (const CommandModel& child : command.commands) {
        const std::string childPath = path + "/" + child.name;
        patterns += (patterns.empty() ? "" : " | ") + BashQuoted(childPath);
        CollectPaths(child, childPath, patterns);
    }
}

const char* ActionOf(ValueKind kind)
{
    switch (kind) {
    case ValueKind::File:
        return "_vtfltctl_files";
    case ValueKind::Folder:
        return "_vtfltctl_folders";
    default:
        return "true"; // nothing to offer, and no option either
    }
}

std::string WordList(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + word;
    return BashQuoted(text);
}

// What may follow an option: a case for each that takes a value.
void AddValueCases(const CommandModel& command, const std::string& path, std::string& script)
{
    for (const OptionModel& option : command.options) {
        if (option.kind == ValueKind::None || option.IsPositional())
            continue;
        std::string patterns;
        for (const std::string& name : option.names)
            patterns += (patterns.empty() ? "" : " | ") + BashQuoted(path + " " + name);
        const std::string action =
            option.kind == ValueKind::Word ? "_vtfltctl_words " + WordList(option.words) : ActionOf(option.kind);
        script += fmt::format("    {}) {}; return ;;\n", patterns, action);
    }
    for (const CommandModel& child : command.commands)
        AddValueCases(child, path + "/" + child.name, script);
}

// What may stand anywhere else: commands, options, and files where an argument is one.
void AddWordCases(const CommandModel& command, const std::string& path, std::string& script)
{
    std::vector<std::string> words;
    for (const CommandModel& child : command.commands)
        words.push_back(child.name);
    std::string arguments;
    for (const OptionModel& option : command.options) {
        words.insert(words.end(), option.names.begin(), option.names.end());
        if (!option.IsPositional())
            continue;
        if (option.kind == ValueKind::Word)
            words.insert(words.end(), option.words.begin(), option.words.end());
        else if (option.kind != ValueKind::Text)
            arguments = ActionOf(option.kind);
    }
    script += fmt::format("    {}) _vtfltctl_words {}", BashQuoted(path), WordList(words));
    if (!arguments.empty())
        script += fmt::format("; [[ $cur == -* ]] || {}", arguments);
    script += " ;;\n";
    for (const CommandModel& child : command.commands)
        AddWordCases(child, path + "/" + child.name, script);
}

constexpr const char* BASH_HEAD = R"(# bash completion for vtfltctl. Load it in ~/.bashrc:
#     source <(vtfltctl completion bash)

_vtfltctl_words()
{
    local word
    while IFS= read -r word; do
        COMPREPLY+=("$word")
    done < <(compgen -W "$1" -- "$cur")
}

_vtfltctl_files()
{
    local word
    compopt -o filenames 2>/dev/null
    while IFS= read -r word; do
        COMPREPLY+=("$word")
    done < <(compgen -f -- "$cur")
}

_vtfltctl_folders()
{
    local word
    compopt -o filenames 2>/dev/null
    while IFS= read -r word; do
        COMPREPLY+=("$word")
    done < <(compgen -d -- "$cur")
}

_vtfltctl()
{
    local cur prev path i
    COMPREPLY=()
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD - 1]}
    # --option=value comes in three words.
    if [[ $cur == = ]]; then
        cur=
    elif [[ $prev == = ]] && ((COMP_CWORD > 1)); then
        prev=${COMP_WORDS[COMP_CWORD - 2]}
    fi

    path=
    for ((i = 1; i < COMP_CWORD; i++)); do
        case "$path/${COMP_WORDS[i]}" in
)";

} // namespace

std::string BashCompletion(const CommandModel& program)
{
    std::string patterns;
    CollectPaths(program, "", patterns);
    std::string script = BASH_HEAD;
    script += fmt::format("        {}) path+=/${{COMP_WORDS[i]}} ;;\n        esac\n    done\n\n", patterns);
    script += "    case \"$path $prev\" in\n";
    AddValueCases(program, "", script);
    script += "    esac\n    case \"$path\" in\n";
    AddWordCases(program, "", script);
    script += fmt::format("    esac\n}}\n\ncomplete -F _vtfltctl {0} {0}.exe\n", program.name);
    return script;
}

} // namespace vtfltctl
