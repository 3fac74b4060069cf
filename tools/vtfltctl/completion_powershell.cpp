#include "command_model.h"

#include <fmt/format.h>

namespace vtfltctl {
namespace {

// A literal: PowerShell changes nothing between single quotes, and takes two of them for one.
std::string PowerShellQuoted(const std::string& text)
{
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? std::string("''") : std::string(1, c);
    return quoted + "'";
}

// One entry of a table: a word, its kind for the shell's list, and what it means.
std::string Entry(const std::string& word, const char* kind, const std::string& meaning)
{
    // The comma keeps the shell from taking the entry's three texts for entries. An empty tool tip is refused by it.
    return fmt::format("        , @({}, {}, {})\n", PowerShellQuoted(word), PowerShellQuoted(kind),
                       PowerShellQuoted(meaning.empty() ? word : meaning));
}

void AddWords(const CommandModel& command, const std::string& path, std::string& script)
{
    script += fmt::format("    {} = @(\n", PowerShellQuoted(path));
    for (const CommandModel& child : command.commands)
        script += Entry(child.name, "Command", child.description);
    for (const OptionModel& option : command.options) {
        for (const std::string& name : option.names)
            script += Entry(name, "ParameterName", option.description);
        if (!option.IsPositional())
            continue;
        for (const std::string& word : option.words)
            script += Entry(word, "ParameterValue", option.description);
    }
    script += "    )\n";
    for (const CommandModel& child : command.commands)
        AddWords(child, path + "/" + child.name, script);
}

// What may follow an option; an empty list leaves the value to the shell, which offers files.
void AddValues(const CommandModel& command, const std::string& path, std::string& script)
{
    for (const OptionModel& option : command.options) {
        if (option.kind == ValueKind::None)
            continue;
        for (const std::string& name : option.names) {
            script += fmt::format("    {} = @(\n", PowerShellQuoted(path + " " + name));
            for (const std::string& word : option.words)
                script += Entry(word, "ParameterValue", option.description);
            script += "    )\n";
        }
    }
    for (const CommandModel& child : command.commands)
        AddValues(child, path + "/" + child.name, script);
}

constexpr const char* POWERSHELL_HEAD = R"(# PowerShell completion for vtfltctl. Load it in $PROFILE:
#     vtfltctl completion powershell | Out-String | Invoke-Expression

$vtfltctlWords = @{
)";

constexpr const char* BODY = R"($vtfltctlCompleter = {
    param($wordToComplete, $commandAst, $cursorPosition)

    $path = ''
    $previous = ''
    foreach ($element in ($commandAst.CommandElements | Select-Object -Skip 1)) {
        # The word that is being completed is no word before it.
        if ($element.Extent.EndOffset -ge $cursorPosition) {
            break
        }
        $previous = $element.Extent.Text
        if ($vtfltctlWords.ContainsKey("$path/$previous")) {
            $path = "$path/$previous"
        }
    }

    $words = $vtfltctlWords[$path]
    if ($vtfltctlValues.ContainsKey("$path $previous")) {
        $words = $vtfltctlValues["$path $previous"]
    }
    foreach ($word in $words) {
        if ($word[0].StartsWith($wordToComplete, [System.StringComparison]::OrdinalIgnoreCase)) {
            [System.Management.Automation.CompletionResult]::new($word[0], $word[0], $word[1], $word[2])
        }
    }
}.GetNewClosure()

Register-ArgumentCompleter -Native -CommandName @('vtfltctl', 'vtfltctl.exe') -ScriptBlock $vtfltctlCompleter
)";

} // namespace

std::string PowerShellCompletion(const CommandModel& program)
{
    std::string script = POWERSHELL_HEAD;
    AddWords(program, "", script);
    script += "}\n\n$vtfltctlValues = @{\n";
    AddValues(program, "", script);
    script += "}\n\n";
    return script + BODY;
}

} // namespace vtfltctl
