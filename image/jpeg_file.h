// JPEG files through the TurboJPEG API of libjpeg-turbo, which reports every
// failure as a return value; thrown here as std::runtime_error naming the file.
#pragma once

#include <cstdint>
#include <string>

#include "image/rgb_image.h"

namespace jpeg_file {

// Reads a baseline or progressive JPEG as 8-bit RGB (greyscale gives
// R = G = B).  Refuses a header that claims more than kMaxImagePixels pixels
// or more than the file can hold (every 8 x 8 block takes at least one bit),
// and a file the library warns about (truncated or corrupt data), so that a
// damaged frame never passes as a grey-filled one.
RgbImage read(const std::string& path);
RgbImage readMemory(const std::uint8_t* data, std::size_t size, const std::string& name);

}  // namespace jpeg_file
