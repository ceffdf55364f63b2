#include "image/png_file.h"

#include <png.h>

#include <cstring>
#include <stdexcept>

namespace png_file {

namespace {

// Releases what libpng holds for an image however its use ends.
struct Image {
    png_image image;
    Image() {
        std::memset(&image, 0, sizeof image);
        image.version = PNG_IMAGE_VERSION;
    }
    ~Image() { png_image_free(&image); }
};

[[noreturn]] void failRead(const std::string& name, const std::string& what) {
    throw std::runtime_error(name + ": not a readable PNG file: " + what);
}

// Deflate cannot compress by more than about 1032 to 1.
constexpr std::uint64_t kMaxDeflateRatio = 1032;

}  // namespace

RgbImage readMemory(const std::uint8_t* data, std::size_t size, const std::string& name) {
    Image png;
    if (png_image_begin_read_from_memory(&png.image, data, size) == 0) failRead(name, png.image.message);
    const std::uint64_t width = png.image.width, height = png.image.height;
    if (width * height > kMaxImagePixels) failRead(name, "the image is larger than 2^28 pixels");
    // Each row holds a filter byte and at least one bit per pixel.
    if (height * (1 + (width + 7) / 8) > kMaxDeflateRatio * size)
        failRead(name, "the image size is more than the file can hold");

    // RGBA keeps the colours of transparent pixels as they are (the alpha
    // byte is then dropped); 16-bit samples without colour-space chunks are
    // taken as sRGB, so they are scaled rather than gamma-converted.
    png.image.format = PNG_FORMAT_RGBA;
    png.image.flags |= PNG_IMAGE_FLAG_16BIT_sRGB;
    std::vector<std::uint8_t> rgba(static_cast<std::size_t>(width * height) * 4);
    if (png_image_finish_read(&png.image, nullptr, rgba.data(), 0, nullptr) == 0) failRead(name, png.image.message);

    RgbImage image;
    image.width = static_cast<int>(width);
    image.height = static_cast<int>(height);
    image.rgb.resize(static_cast<std::size_t>(width * height) * 3);
    for (std::size_t i = 0, n = static_cast<std::size_t>(width * height); i < n; ++i)
        std::memcpy(&image.rgb[3 * i], &rgba[4 * i], 3);
    return image;
}

RgbImage read(const std::string& path) {
    const std::vector<std::uint8_t> bytes = image_file::readAll(path);
    return readMemory(bytes.data(), bytes.size(), path);
}

namespace {

void write(Image& png, const std::string& path, const void* pixels, const void* colormap) {
    if (png_image_write_to_file(&png.image, path.c_str(), 0, pixels, 0, colormap) == 0)
        throw std::runtime_error(path + ": cannot write the PNG file: " + png.image.message);
}

}  // namespace

void writeRgb(const RgbImage& image, const std::string& path) {
    if (image.width < 1 || image.height < 1 ||
        image.rgb.size() != static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height) * 3)
        throw std::runtime_error(path + ": cannot write an empty or inconsistent image");
    Image png;
    png.image.width = static_cast<png_uint_32>(image.width);
    png.image.height = static_cast<png_uint_32>(image.height);
    png.image.format = PNG_FORMAT_RGB;
    write(png, path, image.rgb.data(), nullptr);
}

void writePalette(int width, int height, const std::vector<std::uint8_t>& indices,
                  const std::vector<std::uint8_t>& palette, const std::string& path) {
    const std::size_t entries = palette.size() / 3;
    if (width < 1 || height < 1 || indices.size() != static_cast<std::size_t>(width) * static_cast<std::size_t>(height))
        throw std::runtime_error(path + ": cannot write an empty or inconsistent label image");
    if (entries * 3 != palette.size() || entries < 1 || entries > 256)
        throw std::runtime_error(path + ": a palette has 1 to 256 RGB entries");
    for (std::uint8_t i : indices)
        if (i >= entries) throw std::runtime_error(path + ": a pixel indexes past the palette");
    Image png;
    png.image.width = static_cast<png_uint_32>(width);
    png.image.height = static_cast<png_uint_32>(height);
    png.image.format = PNG_FORMAT_RGB_COLORMAP;
    // More than 16 entries: the file keeps one byte per pixel.
    png.image.colormap_entries = static_cast<png_uint_32>(entries);
    write(png, path, indices.data(), palette.data());
}

}  // namespace png_file
