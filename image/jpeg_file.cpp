#include "image/jpeg_file.h"

#include <turbojpeg.h>

#include <stdexcept>

namespace jpeg_file {

namespace {

// Frees the decompressor however the read ends.
struct Decompressor {
    tjhandle handle = tjInitDecompress();
    ~Decompressor() {
        if (handle != nullptr) tjDestroy(handle);
    }
};

[[noreturn]] void fail(const std::string& name, const std::string& what) {
    throw std::runtime_error(name + ": not a readable JPEG file: " + what);
}

}  // namespace

RgbImage readMemory(const std::uint8_t* data, std::size_t size, const std::string& name) {
    if (size == 0) fail(name, "the file is empty");
    Decompressor d;
    if (d.handle == nullptr) fail(name, tjGetErrorStr2(nullptr));
    int width = 0, height = 0, subsampling = 0, colourspace = 0;
    if (tjDecompressHeader3(d.handle, data, static_cast<unsigned long>(size), &width, &height, &subsampling,
                            &colourspace) != 0)
        fail(name, tjGetErrorStr2(d.handle));
    if (width < 1 || height < 1) fail(name, "the image has no pixels");
    const std::uint64_t pixels = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height);
    if (pixels > kMaxImagePixels) fail(name, "the image is larger than 2^28 pixels");
    if (pixels / 512 > size) fail(name, "the image size is more than the file can hold");

    RgbImage image;
    image.width = width;
    image.height = height;
    image.rgb.resize(static_cast<std::size_t>(pixels) * 3);
    // A warning (data cut short, a corrupt segment) stops the read: the rest
    // of the picture would be made up.  The scan limit keeps a forged
    // progressive file from taking minutes.
    if (tjDecompress2(d.handle, data, static_cast<unsigned long>(size), image.rgb.data(), width, 0, height, TJPF_RGB,
                      TJFLAG_STOPONWARNING | TJFLAG_LIMITSCANS | TJFLAG_ACCURATEDCT) != 0)
        fail(name, tjGetErrorStr2(d.handle));
    return image;
}

RgbImage read(const std::string& path) {
    const std::vector<std::uint8_t> bytes = image_file::readAll(path);
    return readMemory(bytes.data(), bytes.size(), path);
}

}  // namespace jpeg_file
