#include "common/option_values.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace toolkit {

std::optional<std::string> OptionWithoutValue(const std::vector<std::string>& arguments)
{
    for (const std::string& argument : arguments) {
        if (argument == "--")
            break;
        if (argument.starts_with("--") && argument.find('=') == argument.size() - 1)
            return argument.substr(0, argument.size() - 1);
    }
    return std::nullopt;
}

void RefuseEmptyValues(CLI::App& app)
{
    for (CLI::Option* option : app.get_options()) {
        if (option->get_items_expected_max() != 0) // no flag
            option->check([](const std::string& value) { return value.empty() ? "may not be empty" : ""; });
    }
    for (CLI::App* command : app.get_subcommands({}))
        RefuseEmptyValues(*command);
}

void TakeDecimal(CLI::Option* option)
{
    option->transform(CLI::Validator(
        [](std::string& text) {
            if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
                return '"' + text + "\" is no whole number in decimal digits";
            text.erase(0, std::min(text.find_first_not_of('0'), text.size() - 1));
            return std::string();
        },
        ""));
}

void TakeOneEach(CLI::Option* option)
{
    option->allow_extra_args(false);
}

} // namespace toolkit
