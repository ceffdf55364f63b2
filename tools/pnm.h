// Binary PPM ("P6") and PGM ("P5") files with 8-bit samples, for the demo
// tools.  Kept apart from the program's image library so the tools read and
// write exactly what they show.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace demo {

struct Image {
    int width = 0;
    int height = 0;
    int channels = 0;                  // 3 for PPM, 1 for PGM
    std::vector<std::uint8_t> pixels;  // row-major, channels interleaved

    Image() = default;
    Image(int w, int h, int c) : width(w), height(h), channels(c), pixels(static_cast<std::size_t>(w) * h * c) {}
    std::uint8_t* at(int x, int y) { return &pixels[(static_cast<std::size_t>(y) * width + x) * channels]; }
    const std::uint8_t* at(int x, int y) const { return &pixels[(static_cast<std::size_t>(y) * width + x) * channels]; }
};

// Reads a P5 or P6 file with a maximum value of 255 at most; throws
// std::runtime_error naming the file when it cannot.
Image readPNM(const std::string& path);

// Writes P6 for 3 channels and P5 for 1; throws std::runtime_error on failure.
void writePNM(const Image& image, const std::string& path);

}  // namespace demo
