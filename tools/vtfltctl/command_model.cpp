#include "command_model.h"

#include "command_line.h"

#include <CLI/CLI.hpp>

namespace vtfltctl {
namespace {

// CLI11 writes the type of a value that must be in a set as "TEXT:{one,two}".
std::vector<std::string> WordsOf(const std::string& typeName)
{
    const std::size_t open = typeName.find('{');
    const std::size_t close = typeName.rfind('}');
    std::vector<std::string> words;
    if (open == std::string::npos || close == std::string::npos || close < open)
        return words;
    for (std::size_t at = open + 1; at <= close;) {
        const std::size_t end = std::min(typeName.find(',', at), close);
        if (end > at)
            words.push_back(typeName.substr(at, end - at));
        at = end + 1;
    }
    return words;
}

std::string Joined(const std::vector<std::string>& words, const char* between)
{
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : between) + word;
    return text;
}

ValueKind KindOf(const std::string& value)
{
    if (value == "FILE" || value == "PATH")
        return ValueKind::File;
    return value == "DIR" ? ValueKind::Folder : ValueKind::Text;
}

OptionModel ModelOf(const CLI::Option& option)
{
    OptionModel model;
    for (const std::string& name : option.get_snames())
        model.names.push_back("-" + name);
    for (const std::string& name : option.get_lnames())
        model.names.push_back("--" + name);
    model.description = option.get_description();
    model.required = option.get_required();
    model.repeated = option.get_items_expected_max() > 1;
    if (option.get_items_expected_max() == 0)
        return model;

    const std::string typeName = option.get_type_name();
    model.words = WordsOf(typeName);
    if (!model.words.empty()) {
        model.kind = ValueKind::Word;
        model.value = Joined(model.words, "|");
        return model;
    }
    const std::string type = typeName.substr(0, typeName.find(':'));
    model.value = option.get_positional() ? option.get_name(true) : type;
    model.kind = KindOf(type);
    return model;
}

} // namespace

CommandModel ModelOf(const CLI::App& app)
{
    CommandModel model;
    model.name = app.get_name();
    model.description = app.get_description();
    model.footer = app.get_footer();
    for (const CLI::Option* option : app.get_options())
        model.options.push_back(ModelOf(*option));
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        model.commands.push_back(ModelOf(*command));
    return model;
}

CommandModel ProgramModel()
{
    CLI::App app;
    Context context;
    AddCommands(app, context);
    return ModelOf(app);
}

} // namespace vtfltctl
