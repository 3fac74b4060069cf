// vtbackup: the reference backup program of VTFltMgr. docs/vtbackup.md is its manual.
#include "command_line.h"
#include "commands.h"
#include "console.h"
#include "interrupt.h"
#include "text.h"

#include "handle.h"

#include <new>

using namespace vtbackup;

namespace {

int Ended(const Options& options, Exit code, const std::string& message)
{
    Diagnose(message);
    if (options.json)
        PrintJson({{"result", OutcomeName(code)}, {"message", message}});
    return static_cast<int>(code);
}

} // namespace

int wmain(int count, wchar_t** arguments)
{
    SetConsoleOutputCP(CP_UTF8);
    ParsedCommandLine parsed;
    try {
        std::vector<std::string> texts;
        for (int i = 1; i < count; ++i)
            texts.push_back(ToUtf8(arguments[i]));
        parsed = ParseCommandLine(std::move(texts));
        if (parsed.exitCode)
            return *parsed.exitCode;
        WatchForInterrupt();
        const Exit code = RunCommand(parsed.options);
        if (AllWritten())
            return static_cast<int>(code);
        // Whoever reads half of an answer must not take it for one. A code that says more stays.
        Diagnose("the result could not be written to standard output");
        return static_cast<int>(code == Exit::Ok ? Exit::Repository : code);
    } catch (const Failure& failure) {
        return Ended(parsed.options, failure.Code(), failure.what());
    } catch (const std::bad_alloc&) {
        return Ended(parsed.options, Exit::Internal, "not enough memory");
    } catch (const std::exception& error) {
        return Ended(parsed.options, Exit::Internal, error.what());
    }
}
