#include <stdexcept>

#include "image/CTensor.h"
#include "image/png_file.h"
#include "tests/fuzz/harness.h"
#include "tests/fuzz/scratch.h"

namespace fuzz {

namespace {

// Reads the bytes as a frame of the format the extension names; only the
// readers' documented refusal may come out.
void readFrame(const std::uint8_t* data, std::size_t size, const char* extension) {
    const std::string path = writeScratch(data, size, extension);
    CTensor<float> image;
    try {
        image.readFromImage(path.c_str());
    } catch (const std::runtime_error&) {
        return;
    }
    if (image.zSize != 3 || image.xSize < 1 || image.ySize < 1) throw std::logic_error("a frame read without pixels");
    // Every sample must have been written: touch each one.
    for (std::size_t i = 0; i < image.size(); ++i)
        if (!(image.data[i] >= 0.0f && image.data[i] <= 255.0f)) throw std::logic_error("a sample outside 0 to 255");
}

}  // namespace

void readPng(const std::uint8_t* data, std::size_t size) {
    readFrame(data, size, ".png");
    // The same bytes as a label map: its stored values, or a refusal.
    try {
        const png_file::IndexImage labels = png_file::readIndicesMemory(data, size, "fuzz.png");
        if (labels.values.size() != static_cast<std::size_t>(labels.width) * static_cast<std::size_t>(labels.height))
            throw std::logic_error("a label map of the wrong size");
    } catch (const std::runtime_error&) {
    }
}
void readJpeg(const std::uint8_t* data, std::size_t size) { readFrame(data, size, ".jpg"); }

}  // namespace fuzz
