// vtlog show: the command line.
#include "command_line.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace vtlog {
namespace {

struct Options {
    std::vector<std::string> files;
};

Exit Show(const Options&)
{
    throw Failure(Exit::Internal, "not built yet");
}

} // namespace

void AddShow(CLI::App& app, Action& action)
{
    CLI::App& command = *app.add_subcommand("show", "Read log files");
    const auto options = std::make_shared<Options>();
    command.add_option("file", options->files, "log files")->required();
    command.callback([options, &action] { action = [options] { return Show(*options); }; });
}

} // namespace vtlog
