// vtlog: reads, watches and steers the diagnostic log of VTFltMgr. docs/vtlog.md is its manual.
#include "command_line.h"
#include "common/simulation.h"
#include "common/text.h"
#include "console.h"

#include "win/windows.h"

#include <new>

using namespace vtlog;

namespace {

int Ended(Exit code, const std::string& message)
{
    Diagnose(message);
    return static_cast<int>(code);
}

} // namespace

int wmain(int count, wchar_t** arguments)
{
    toolkit::PrepareConsole("vtlog");
    try {
        std::vector<std::string> texts;
        for (int i = 1; i < count; ++i)
            texts.push_back(toolkit::ToUtf8(arguments[i]));
        const ParsedCommandLine parsed = ParseCommandLine(std::move(texts));
        if (parsed.exitCode)
            return *parsed.exitCode;
        const Exit code = parsed.action();
        if (!Flush())
            return Ended(Exit::Unreadable, "what was printed could not be written");
        return static_cast<int>(code);
    } catch (const Failure& failure) {
        return Ended(failure.Code(), failure.what());
    } catch (const toolkit::SimulationError& error) {
        return Ended(error.NoMachine() ? Exit::NotFound : Exit::Internal, error.what());
    } catch (const std::bad_alloc&) {
        return Ended(Exit::Internal, "not enough memory");
    } catch (const std::exception& error) {
        return Ended(Exit::Internal, error.what());
    }
}
