// The font of the pictures, a TrueType file that is linked into the program.
#pragma once

namespace vtfltctl::bitmap {

const unsigned char* FontFile() noexcept;

} // namespace vtfltctl::bitmap
