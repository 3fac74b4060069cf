#include "bitmap_font.h"

// VTFLTCTL_FONT is the file's path as a string literal, from the build.
__asm__(
#ifdef _WIN32
    ".section .rdata,\"dr\"\n"
#else
    ".section .rodata\n"
#endif
    ".balign 16\n"
    ".globl vtfltctl_font_file\n"
    "vtfltctl_font_file:\n"
    ".incbin \"" VTFLTCTL_FONT "\"\n"
    ".text\n");

extern "C" const unsigned char vtfltctl_font_file[];

namespace vtfltctl::bitmap {

const unsigned char* FontFile() noexcept
{
    return vtfltctl_font_file;
}

} // namespace vtfltctl::bitmap
