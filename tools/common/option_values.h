// What the programs' command lines take for the value of an option, beyond what CLI11 does by itself.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace toolkit {

// The name of the first option that is written "--option=", without a value, for which CLI11 would take the next word.
// Words are taken as they stand: one of this form is refused also as the value of the option before it, which is written
// "--option=VALUE" then, and none is looked at behind "--".
std::optional<std::string> OptionWithoutValue(const std::vector<std::string>& arguments);

// Refuses empty values of all options and arguments that there are, those of the subcommands too: an empty one is what a
// script passes for a variable that is not set, and as if the option were not there it would widen what a command does.
void RefuseEmptyValues(CLI::App& app);

// Whole numbers, written in decimal digits, with which CLI11 takes 010 for 8.
void TakeDecimal(CLI::Option* option);

// One value for each time that the option is given, and each as it stands. CLI11 takes all words behind it up to the
// next option, and of "[a,b]" two values that nobody typed.
void TakeOneEach(CLI::Option* option);

} // namespace toolkit
