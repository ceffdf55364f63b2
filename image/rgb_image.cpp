#include "image/rgb_image.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "image/jpeg_file.h"
#include "image/png_file.h"

namespace image_file {

std::vector<std::uint8_t> readAll(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) throw std::runtime_error(path + ": cannot open the file: " + std::strerror(errno));
    std::vector<std::uint8_t> bytes;
    std::uint8_t chunk[65536];
    std::size_t n = 0;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) bytes.insert(bytes.end(), chunk, chunk + n);
    const bool failed = std::ferror(f) != 0;
    const int error = errno;
    std::fclose(f);
    if (failed) throw std::runtime_error(path + ": cannot read the file: " + std::strerror(error));
    return bytes;
}

Compressed compressedFormat(const std::string& path) {
    const std::size_t dot = path.rfind('.');
    const std::string ext = dot == std::string::npos ? path : path.substr(dot + 1);
    if (ext == "png" || ext == "PNG") return Compressed::PNG;
    if (ext == "jpg" || ext == "JPG" || ext == "jpeg" || ext == "JPEG") return Compressed::JPEG;
    return Compressed::NONE;
}

RgbImage readCompressed(const std::string& path) {
    switch (compressedFormat(path)) {
        case Compressed::PNG:
            return png_file::read(path);
        case Compressed::JPEG:
            return jpeg_file::read(path);
        case Compressed::NONE:
            break;
    }
    throw std::runtime_error("Image file format not supported");
}

}  // namespace image_file
