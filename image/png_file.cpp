#include "image/png_file.h"

#include <png.h>

#include <csetjmp>
#include <cstring>
#include <memory>
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

// The bytes libpng reads from, and the message of the error that stopped it.
struct MemorySource {
    const std::uint8_t* data;
    std::size_t size;
    std::size_t at = 0;
    std::string error;
};

void readFromMemory(png_structp png, png_bytep out, png_size_t count) {
    auto* source = static_cast<MemorySource*>(png_get_io_ptr(png));
    if (count > source->size - source->at) png_error(png, "the file ends early");
    std::memcpy(out, source->data + source->at, count);
    source->at += count;
}

void onError(png_structp png, png_const_charp message) {
    static_cast<MemorySource*>(png_get_error_ptr(png))->error = message;
    png_longjmp(png, 1);
}

void onWarning(png_structp, png_const_charp) {}

const char* colourTypeName(int type) {
    switch (type) {
        case PNG_COLOR_TYPE_RGB:
            return "colour";
        case PNG_COLOR_TYPE_RGB_ALPHA:
            return "colour with alpha";
        case PNG_COLOR_TYPE_GRAY_ALPHA:
            return "greyscale with alpha";
        default:
            return "single-channel";
    }
}

}  // namespace

IndexImage readIndicesMemory(const std::uint8_t* data, std::size_t size, const std::string& name) {
    // libpng's error handler jumps back to setjmp: what the reading changes
    // lives on the heap behind a pointer set before it, and no object with a
    // destructor is alive across a libpng call.
    struct Reading {
        MemorySource source;
        IndexImage image;
        std::vector<png_bytep> rows;
        std::string refusal;
    };
    const std::unique_ptr<Reading> reading =
        std::make_unique<Reading>(Reading{MemorySource{data, size, 0, {}}, {}, {}, {}});
    MemorySource* const source = &reading->source;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, source, onError, onWarning);
    png_infop info = png == nullptr ? nullptr : png_create_info_struct(png);
    if (info == nullptr) {
        png_destroy_read_struct(&png, nullptr, nullptr);
        throw std::runtime_error(name + ": out of memory reading the PNG file");
    }
    if (setjmp(png_jmpbuf(png)) == 0) {
        png_set_read_fn(png, source, readFromMemory);
        png_read_info(png, info);
        const png_uint_32 width = png_get_image_width(png, info), height = png_get_image_height(png, info);
        const int depth = png_get_bit_depth(png, info), type = png_get_color_type(png, info);
        const bool single = type == PNG_COLOR_TYPE_GRAY || type == PNG_COLOR_TYPE_PALETTE;
        if (static_cast<std::uint64_t>(width) * height > kMaxImagePixels) {
            reading->refusal = "not a readable PNG file: the image is larger than 2^28 pixels";
        } else if (height * (1 + (static_cast<std::uint64_t>(width) + 7) / 8) > kMaxDeflateRatio * size) {
            reading->refusal = "not a readable PNG file: the image size is more than the file can hold";
        } else if (!single || depth != 8) {
            reading->refusal = std::string("not a single-channel 8-bit PNG (it is ") + colourTypeName(type) + ", " +
                               std::to_string(depth) + " bits per sample)";
        } else {
            IndexImage& image = reading->image;
            image.width = static_cast<int>(width);
            image.height = static_cast<int>(height);
            image.values.resize(static_cast<std::size_t>(width) * height);
            reading->rows.resize(height);
            for (png_uint_32 y = 0; y < height; ++y)
                reading->rows[y] = image.values.data() + static_cast<std::size_t>(y) * width;
            // Interlaced files are read whole in every pass.
            png_set_interlace_handling(png);
            png_read_update_info(png, info);
            png_read_image(png, reading->rows.data());
        }
    } else {
        reading->refusal = "not a readable PNG file: " + source->error;
    }
    png_destroy_read_struct(&png, &info, nullptr);
    if (!reading->refusal.empty()) throw std::runtime_error(name + ": " + reading->refusal);
    return std::move(reading->image);
}

IndexImage readIndices(const std::string& path) {
    const std::vector<std::uint8_t> bytes = image_file::readAll(path);
    return readIndicesMemory(bytes.data(), bytes.size(), path);
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
