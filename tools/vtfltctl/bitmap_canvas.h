// A picture in memory: rectangles and text on white.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace vtfltctl::bitmap {

struct Colour {
    std::uint8_t red;
    std::uint8_t green;
    std::uint8_t blue;

    friend bool operator==(const Colour&, const Colour&) = default;
};

class Canvas {
public:
    Canvas(int width, int height);

    [[nodiscard]] int Width() const noexcept { return m_width; }
    [[nodiscard]] int Height() const noexcept { return m_height; }
    // Red, green, blue of each pixel, row by row.
    [[nodiscard]] const std::vector<std::uint8_t>& Pixels() const noexcept { return m_pixels; }

    // What lies outside the picture is left out.
    void Fill(int x, int y, int width, int height, Colour colour) noexcept;
    // One line of UTF-8 text, its letters' feet at y. Characters that the font lacks appear as boxes.
    void Text(int x, int y, int size, std::string_view text, Colour colour);
    // How wide the text will be.
    [[nodiscard]] static int TextWidth(int size, std::string_view text);

private:
    void Blend(int x, int y, std::uint8_t cover, Colour colour) noexcept;

    int m_width;
    int m_height;
    std::vector<std::uint8_t> m_pixels;
};

} // namespace vtfltctl::bitmap
