#include "bitmap_png.h"

#include <new>

#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#define STBI_WRITE_NO_STDIO
#include <stb/stb_image_write.h>

namespace vtfltctl::bitmap {
namespace {

constexpr int CHANNELS = 3;

void Append(void* to, void* bytes, int count)
{
    auto& file = *static_cast<std::vector<std::uint8_t>*>(to);
    const auto* const first = static_cast<const std::uint8_t*>(bytes);
    file.insert(file.end(), first, first + count);
}

} // namespace

std::vector<std::uint8_t> EncodePng(const Canvas& canvas)
{
    std::vector<std::uint8_t> file;
    if (stbi_write_png_to_func(Append, &file, canvas.Width(), canvas.Height(), CHANNELS, canvas.Pixels().data(),
                               canvas.Width() * CHANNELS) == 0)
        throw std::bad_alloc();
    return file;
}

} // namespace vtfltctl::bitmap
