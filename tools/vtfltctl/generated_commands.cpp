// completion and man: what is made from the definitions of all commands.
#include "command_model.h"
#include "output.h"
#include "vtfltmgr/version.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace vtfltctl {
namespace {

CommandModel Program()
{
    CLI::App app;
    Context context;
    AddCommands(app, context);
    return ModelOf(app);
}

// The text is meant for a shell or a formatter; with --json it is a string in the object.
Exit AnswerGenerated(const Context& context, const std::string& text)
{
    return Answer(context, Exit::Ok, {{"text", text}}, text);
}

} // namespace

void AddGeneratedCommands(CLI::App& app, Context& context)
{
    const auto shell = std::make_shared<std::string>();
    CLI::App& completion =
        AddCommand(app, context, "completion", "Print a script that completes commands in a shell", [&context, shell] {
            const bool bash = *shell == "bash";
            return AnswerGenerated(context, bash ? BashCompletion(Program()) : PowerShellCompletion(Program()));
        });
    completion.add_option("SHELL", *shell, "the shell")
        ->required()
        ->check(CLI::IsMember(std::vector<std::string>{"bash", "powershell"}))
        ->type_name("");
    AddCommand(app, context, "man", "Print the manual page, for man or groff -man",
               [&context] { return AnswerGenerated(context, ManualPage(Program(), VTFLTMGR_VERSION)); });
}

} // namespace vtfltctl
