// What a program says: data to standard output, everything else to standard error. All of it is UTF-8 with plain
// line feeds, whatever it goes to.
#pragma once

#include <string>
#include <string_view>

namespace toolkit {

// Makes both streams as said above, and names the program that speaks. Called once, before anything is written; the
// name is kept as it is, not copied.
void PrepareConsole(const char* program) noexcept;

// The colours by what they mean; each is a terminal's own, so that it fits the user's theme.
enum class Colour {
    Error,
    Warning,
    Information,
    Detail,
    Quiet, // what is beside the point: the tail, a note
};
// Whether standard output is a terminal that shows colour, and NO_COLOR is not set.
bool OutputInColour() noexcept;
// The text in a colour when output is in colour, else as it stands.
std::string Coloured(std::string_view text, Colour colour);

// Writes to standard output. False when nobody reads it any more, or its disk is full: stop then.
[[nodiscard]] bool Print(std::string_view text) noexcept;
// Hands on what Print has kept; output to a terminal is never kept.
[[nodiscard]] bool Flush() noexcept;

// "program: message" to standard error, in red on a terminal unless NO_COLOR is set.
void Diagnose(const std::string& message);

} // namespace toolkit
