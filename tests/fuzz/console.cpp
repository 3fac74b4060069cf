#include "fuzz/console.h"

#include "common/console.h"

namespace fuzz {

Said& TheSaid()
{
    static Said said;
    return said;
}

} // namespace fuzz

namespace toolkit {

bool OutputInColour() noexcept
{
    return false;
}

std::string Coloured(std::string_view text, Colour)
{
    return std::string(text);
}

bool Print(std::string_view text) noexcept
{
    fuzz::TheSaid().printed += text;
    return true;
}

bool Flush() noexcept
{
    return true;
}

void Diagnose(const std::string& message)
{
    fuzz::TheSaid().diagnosed.push_back(message);
}

} // namespace toolkit
