// vtfltctl: shows and steers what the library keeps on a machine. docs/cli.md is its manual.
#include "common/simulation.h"
#include "output.h"

#include "win/windows.h"

#include <fmt/format.h>

#include <algorithm>
#include <new>

using namespace vtfltctl;

namespace {

bool AsksForJson(int count, wchar_t** arguments)
{
    return std::any_of(arguments, arguments + count,
                       [](const wchar_t* argument) { return std::wstring_view(argument) == L"--json"; });
}

// Half a character pair cannot be told apart from another once it is UTF-8: an ID would be taken for a different one.
std::vector<std::string> Utf8Arguments(int count, wchar_t** arguments)
{
    std::vector<std::string> texts;
    for (int i = 1; i < count; ++i) {
        texts.push_back(ToUtf8(arguments[i]));
        if (ToWide(texts.back()) != arguments[i])
            throw Failure(Exit::Usage, fmt::format("argument {} is no valid Unicode text", i));
    }
    return texts;
}

Exit Run(const Context& context)
{
    if (context.simulate.empty())
        return context.action();
    const toolkit::Simulation simulation(ToWide(context.simulate));
    return context.action();
}

} // namespace

int wmain(int count, wchar_t** arguments)
{
    toolkit::PrepareConsole("vtfltctl");
    Context context;
    // Until the command line is understood: what is wrong with it is told as it would be.
    context.json = AsksForJson(count, arguments);
    try {
        if (const std::optional<int> ended = ParseCommandLine(Utf8Arguments(count, arguments), context))
            return *ended;
        return static_cast<int>(Run(context));
    } catch (const Failure& failure) {
        return static_cast<int>(AnswerFailure(context, failure.Code(), failure.what()));
    } catch (const toolkit::SimulationError& error) {
        return static_cast<int>(
            AnswerFailure(context, error.NoMachine() ? Exit::NotFound : Exit::Internal, error.what()));
    } catch (const std::bad_alloc&) {
        return static_cast<int>(AnswerFailure(context, Exit::Internal, "not enough memory"));
    } catch (const std::exception& error) {
        return static_cast<int>(AnswerFailure(context, Exit::Internal, error.what()));
    }
}
