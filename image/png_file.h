// PNG files through libpng's simplified API, which keeps its error recovery
// inside the library: every failure comes back as a return value and is
// thrown here as std::runtime_error naming the file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image/rgb_image.h"

namespace png_file {

// Reads any PNG as 8-bit RGB: greyscale becomes R = G = B, a palette is
// expanded, alpha is dropped (the colours are taken as they are, not
// composed over a background), and 16-bit samples are scaled to 0 to 255.
// Refuses a header that claims more than kMaxImagePixels pixels or more than
// the file's compressed data can hold, before the pixels are allocated.
RgbImage read(const std::string& path);
// The same from bytes in memory; `name` names them in messages.
RgbImage readMemory(const std::uint8_t* data, std::size_t size, const std::string& name);

// A label map: one byte per pixel, row-major, as an 8-bit greyscale or
// palette PNG stores it (for a palette PNG the indices, not their colours).
struct IndexImage {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> values;
};

// Reads an 8-bit single-channel PNG (greyscale or palette) as its stored
// values.  Any other PNG (colour, alpha, 16-bit or fewer than 8 bits per
// pixel) is refused with std::runtime_error naming the file and what it holds,
// as is a file that is no readable PNG, by readMemory()'s size checks too.
IndexImage readIndices(const std::string& path);
IndexImage readIndicesMemory(const std::uint8_t* data, std::size_t size, const std::string& name);

// An 8-bit RGB PNG of `image`.
void writeRgb(const RgbImage& image, const std::string& path);

// An 8-bit palette PNG: one byte per pixel indexing `palette` (RGB triples,
// 256 entries at most; every index must be below the entry count).
void writePalette(int width, int height, const std::vector<std::uint8_t>& indices,
                  const std::vector<std::uint8_t>& palette, const std::string& path);

}  // namespace png_file
