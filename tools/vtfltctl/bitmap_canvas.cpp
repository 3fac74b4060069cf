#include "bitmap_canvas.h"

#include "bitmap_font.h"

#define STB_TRUETYPE_IMPLEMENTATION
#define STBTT_STATIC
#include <stb/stb_truetype.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace vtfltctl::bitmap {
namespace {

constexpr int CHANNELS = 3;
constexpr char32_t REPLACEMENT = 0xFFFD;

const stbtt_fontinfo& Font()
{
    static const stbtt_fontinfo font = [] {
        stbtt_fontinfo made{};
        if (stbtt_InitFont(&made, FontFile(), 0) == 0)
            throw std::runtime_error("the font in the program cannot be used");
        return made;
    }();
    return font;
}

// Takes one character off the front of a text that is not empty; malformed bytes become replacement characters.
char32_t TakeCharacter(std::string_view& text) noexcept
{
    const auto lead = static_cast<unsigned char>(text.front());
    text.remove_prefix(1);
    if (lead < 0x80)
        return lead;
    const std::size_t following = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < following)
        return REPLACEMENT;
    char32_t character = lead & (0x3FU >> following);
    for (std::size_t i = 0; i < following; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0) != 0x80)
            return REPLACEMENT;
        character = character << 6 | (byte & 0x3FU);
    }
    text.remove_prefix(following);
    return character;
}

// Calls draw(character, x) for each character, and returns where the next would stand.
template <typename Draw>
float LayOut(int size, std::string_view text, Draw draw)
{
    const float scale = stbtt_ScaleForMappingEmToPixels(&Font(), static_cast<float>(size));
    float x = 0;
    while (!text.empty()) {
        const auto character = static_cast<int>(TakeCharacter(text));
        int advance = 0;
        int bearing = 0;
        stbtt_GetCodepointHMetrics(&Font(), character, &advance, &bearing);
        draw(character, x, scale);
        x += static_cast<float>(advance) * scale;
    }
    return x;
}

std::uint8_t Mix(std::uint8_t under, std::uint8_t over, unsigned cover) noexcept
{
    return static_cast<std::uint8_t>((under * (255 - cover) + over * cover + 127) / 255);
}

} // namespace

Canvas::Canvas(int width, int height)
    : m_width(width), m_height(height),
      m_pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * CHANNELS, 0xFF)
{
}

void Canvas::Fill(int x, int y, int width, int height, Colour colour) noexcept
{
    const int right = std::min(x + width, m_width);
    const int bottom = std::min(y + height, m_height);
    for (int row = std::max(y, 0); row < bottom; ++row) {
        for (int column = std::max(x, 0); column < right; ++column)
            Blend(column, row, 255, colour);
    }
}

void Canvas::Blend(int x, int y, std::uint8_t cover, Colour colour) noexcept
{
    if (x < 0 || y < 0 || x >= m_width || y >= m_height)
        return;
    std::uint8_t* const pixel =
        m_pixels.data() +
        (static_cast<std::size_t>(y) * static_cast<std::size_t>(m_width) + static_cast<std::size_t>(x)) * CHANNELS;
    pixel[0] = Mix(pixel[0], colour.red, cover);
    pixel[1] = Mix(pixel[1], colour.green, cover);
    pixel[2] = Mix(pixel[2], colour.blue, cover);
}

void Canvas::Text(int x, int y, int size, std::string_view text, Colour colour)
{
    std::vector<std::uint8_t> glyph;
    LayOut(size, text, [&](int character, float offset, float scale) {
        const float whole = std::floor(offset);
        const float shift = offset - whole;
        int left = 0;
        int top = 0;
        int right = 0;
        int bottom = 0;
        stbtt_GetCodepointBitmapBoxSubpixel(&Font(), character, scale, scale, shift, 0, &left, &top, &right, &bottom);
        const int width = right - left;
        const int height = bottom - top;
        if (width <= 0 || height <= 0)
            return;
        glyph.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), 0);
        stbtt_MakeCodepointBitmapSubpixel(&Font(), glyph.data(), width, height, width, scale, scale, shift, 0,
                                          character);
        for (int row = 0; row < height; ++row) {
            for (int column = 0; column < width; ++column)
                Blend(x + static_cast<int>(whole) + left + column, y + top + row,
                      glyph[static_cast<std::size_t>(row * width + column)], colour);
        }
    });
}

int Canvas::TextWidth(int size, std::string_view text)
{
    return static_cast<int>(std::ceil(LayOut(size, text, [](int, float, float) {})));
}

} // namespace vtfltctl::bitmap
