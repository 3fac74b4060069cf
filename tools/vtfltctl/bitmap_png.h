// PNG files.
#pragma once

#include "bitmap_canvas.h"

#include <cstdint>
#include <vector>

namespace vtfltctl::bitmap {

// The picture as the bytes of a PNG file. Throws std::bad_alloc.
std::vector<std::uint8_t> EncodePng(const Canvas& canvas);

} // namespace vtfltctl::bitmap
