// An 8-bit RGB picture as the PNG and JPEG readers return it, and what the
// readers share: the pixel limit and the reading of a whole file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The most pixels a compressed frame may claim (2^28, 16384 x 16384): enough
// for any video frame, little enough that a forged header cannot make the
// reader allocate gigabytes.
constexpr std::uint64_t kMaxImagePixels = std::uint64_t(1) << 28;

struct RgbImage {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> rgb;  // row-major, R, G, B per pixel
};

namespace image_file {

// The whole file; throws std::runtime_error naming it when it cannot be read.
std::vector<std::uint8_t> readAll(const std::string& path);

// Which compressed format the extension after the last "." names.
enum class Compressed { NONE, PNG, JPEG };
Compressed compressedFormat(const std::string& path);

// Reads a PNG or JPEG frame by its extension.
RgbImage readCompressed(const std::string& path);

}  // namespace image_file
