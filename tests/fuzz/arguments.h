// Command lines out of bytes, and what must be true of the answer to any.
#pragma once

#include "fuzz/console.h"
#include "fuzz/fuzz.h"

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fuzz {

using Arguments = std::vector<std::string>;

// Arguments from the input: words of the program, any text, and words with any text behind "=".
Arguments TakeArguments(Input& input, std::span<const char* const> words);

// What a command line was understood as: the command with its options, each once in the form --name=value, and the values
// that have no name.
struct Understood {
    Arguments command; // its words
    Arguments options;
    Arguments values;

    bool operator==(const Understood&) const = default;

    void Value(const char* name, const std::string& value); // an empty one was not given
    void Flag(const char* name, bool isSet);
    void Number(const char* name, std::uint64_t number);
    // The command line that says just this.
    [[nodiscard]] Arguments Whole() const;
};

// The answer to a command line: an exit code with what was said, or what was understood.
struct Answered {
    std::optional<int> exitCode;
    Understood understood;
    Said said;
};
using Parse = Answered (*)(const Arguments& arguments);

// Holds the answer to the arguments, and to what it says of them, against all that every command line has to keep:
//  - it is the same when it is given again;
//  - help and version are 0 and print, everything else that is not understood is 2 and says why, once;
//  - no value is empty, none is made of one that was not given, and a number is what its decimal digits say;
//  - --yes and --simulate are understood when they are given, and only then;
//  - what was understood, said again, is understood as the same.
void CheckCommandLine(Parse parse, const Arguments& arguments);

// vtfltctl's answer.
Answered AskVtfltctl(const Arguments& arguments);

} // namespace fuzz
