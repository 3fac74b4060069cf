#include "fuzz/arguments.h"

#include <algorithm>

namespace fuzz {

namespace {

bool IsHelpOrVersion(const std::string& argument)
{
    return argument.starts_with("--help") || argument.starts_with("--version") || argument.starts_with("-h");
}

// What stands before "--": behind it nothing is an option.
Arguments BeforeMark(const Arguments& arguments)
{
    return {arguments.begin(), std::find(arguments.begin(), arguments.end(), "--")};
}

// Whether a word that looks like an option is a value of another one: CLI11 takes any word for a value that it needs.
bool IsTakenAsValue(const Understood& understood, const std::string& word)
{
    const auto holds = [&word](const std::string& text) { return text.find(word) != std::string::npos; };
    return std::any_of(understood.options.begin(), understood.options.end(),
                       [&](const std::string& option) {
                           const std::size_t sign = option.find('=');
                           return sign != std::string::npos && holds(option.substr(sign + 1));
                       }) ||
           std::any_of(understood.values.begin(), understood.values.end(), holds);
}

bool Has(const Arguments& arguments, const std::string& word)
{
    return std::find(arguments.begin(), arguments.end(), word) != arguments.end();
}

bool HasOption(const Arguments& options, const std::string& name)
{
    return std::any_of(options.begin(), options.end(),
                       [&](const std::string& option) { return option == name || option.starts_with(name + "="); });
}

// --name=00100 is --name=100. What is said by leaving it away is not looked for.
void CheckNumber(const Understood& understood, const std::string& argument)
{
    static constexpr std::string_view NUMBERS[] = {"--audit", "--backup", "--code-page", "--count",
                                                   "--limit", "--pid",    "--tid"};
    const std::size_t sign = argument.find('=');
    if (sign == std::string::npos || IsTakenAsValue(understood, argument) ||
        std::find(std::begin(NUMBERS), std::end(NUMBERS), argument.substr(0, sign)) == std::end(NUMBERS))
        return;
    const std::string digits = argument.substr(sign + 1);
    FUZZ_HOLDS(!digits.empty() && digits.find_first_not_of("0123456789") == std::string::npos);
    const std::string number = digits.substr(std::min(digits.find_first_not_of('0'), digits.size() - 1));
    FUZZ_HOLDS(number == "0" || number == std::to_string(UINT64_MAX) ||
               Has(understood.options, argument.substr(0, sign + 1) + number));
}

void CheckUnderstood(const Understood& understood, const Arguments& arguments)
{
    // An empty argument is a variable of a script that is not set.
    FUZZ_HOLDS(!Has(arguments, {}));
    for (const std::string& word : understood.command)
        FUZZ_HOLDS(Has(arguments, word));
    for (const std::string& value : understood.values)
        FUZZ_HOLDS(!value.empty());
    for (const std::string& option : understood.options) {
        FUZZ_HOLDS(option.find('=') != option.size() - 1);
        FUZZ_HOLDS(HasOption(arguments, option.substr(0, option.find('='))));
    }
    const bool isYesTakenBack = std::any_of(arguments.begin(), arguments.end(),
                                            [](const std::string& argument) { return argument.starts_with("--yes="); });
    for (const std::string& argument : BeforeMark(arguments)) {
        if (argument == "--yes" && !isYesTakenBack)
            FUZZ_HOLDS(HasOption(understood.options, "--yes") || IsTakenAsValue(understood, argument));
        if (argument == "--simulate" || argument.starts_with("--simulate="))
            FUZZ_HOLDS(HasOption(understood.options, "--simulate") || IsTakenAsValue(understood, argument));
        CheckNumber(understood, argument);
    }
}

void CheckExit(const Answered& answered, const Arguments& arguments)
{
    FUZZ_HOLDS(*answered.exitCode == 0 || *answered.exitCode == 2);
    if (*answered.exitCode == 0) {
        FUZZ_HOLDS(!answered.said.printed.empty() && answered.said.diagnosed.empty());
        FUZZ_HOLDS(std::any_of(arguments.begin(), arguments.end(), IsHelpOrVersion));
        return;
    }
    FUZZ_HOLDS(answered.said.diagnosed.size() == 1 && !answered.said.diagnosed.front().empty());
}

// One value in square brackets is taken for several of an argument that may be repeated and has no name.
bool IsBracketed(const std::string& value)
{
    return value.starts_with('[') && value.ends_with(']');
}

// But for the words: of several reasons to refuse, CLI11 names the option whose object has the lowest address.
bool IsSame(const Answered& a, const Answered& b)
{
    return a.exitCode == b.exitCode && a.understood == b.understood &&
           a.said.printed.empty() == b.said.printed.empty() && a.said.diagnosed.size() == b.said.diagnosed.size();
}

} // namespace

Arguments TakeArguments(Input& input, std::span<const char* const> words)
{
    Arguments arguments;
    while (input.Left() > 0 && arguments.size() < 24) {
        const std::uint8_t word = input.Byte();
        if (word < words.size()) {
            arguments.emplace_back(words[word]);
            continue;
        }
        const std::vector<std::uint8_t> text = input.Bytes(word % 16);
        std::string argument = word % 32 < 16 && !arguments.empty() ? arguments.back() + "=" : std::string();
        if (!argument.empty())
            arguments.pop_back();
        argument.append(text.begin(), text.end());
        // As arguments of a process are.
        std::erase(argument, '\0');
        arguments.push_back(argument);
    }
    return arguments;
}

void Understood::Value(const char* name, const std::string& value)
{
    if (!value.empty())
        options.push_back(std::string(name) + "=" + value);
}

void Understood::Flag(const char* name, bool isSet)
{
    if (isSet)
        options.emplace_back(name);
}

void Understood::Number(const char* name, std::uint64_t number)
{
    Value(name, std::to_string(number));
}

Arguments Understood::Whole() const
{
    Arguments whole = command;
    whole.insert(whole.end(), options.begin(), options.end());
    if (!values.empty())
        whole.emplace_back("--");
    whole.insert(whole.end(), values.begin(), values.end());
    return whole;
}

void CheckCommandLine(Parse parse, const Arguments& arguments)
{
    const Answered answered = parse(arguments);
    FUZZ_HOLDS(IsSame(parse(arguments), answered));
    if (answered.exitCode) {
        CheckExit(answered, arguments);
        return;
    }
    FUZZ_HOLDS(answered.said.diagnosed.empty());
    CheckUnderstood(answered.understood, arguments);
    if (std::any_of(answered.understood.values.begin(), answered.understood.values.end(), IsBracketed))
        return;
    const Answered again = parse(answered.understood.Whole());
    FUZZ_HOLDS(!again.exitCode && again.understood == answered.understood);
}

} // namespace fuzz
