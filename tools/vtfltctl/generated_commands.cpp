// completion and man: what is made from the definitions of all commands.
#include "command_model.h"
#include "commands.h"
#include "output.h"
#include "vtfltmgr/version.h"

namespace vtfltctl {
namespace {

// The text is meant for a shell or a formatter; with --json it is a string in the object.
Exit AnswerGenerated(const Context& context, const std::string& text)
{
    return Answer(context, Exit::Ok, {{"text", text}}, text);
}

} // namespace

Exit PrintCompletion(const Context& context, const std::string& shell)
{
    return AnswerGenerated(context,
                           shell == "bash" ? BashCompletion(ProgramModel()) : PowerShellCompletion(ProgramModel()));
}

Exit PrintManual(const Context& context)
{
    return AnswerGenerated(context, ManualPage(ProgramModel(), VTFLTMGR_VERSION));
}

} // namespace vtfltctl
