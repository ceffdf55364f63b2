#include "tests/fuzz/harness.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "image/CTensor.h"
#include "src/config.h"
#include "src/tracks.h"
#include "vela/tools.h"

namespace fuzz {
namespace {

// The readers take paths, so every input goes through one scratch file per
// process, on a memory file system where there is one.
std::string scratchPath(const char* extension) {
    static const std::filesystem::path dir =
        std::filesystem::is_directory("/dev/shm") ? std::filesystem::path("/dev/shm")
                                                   : std::filesystem::temp_directory_path();
    return (dir / ("vela-fuzz-" + std::to_string(getpid()) + extension)).string();
}

std::string writeScratch(const std::uint8_t* data, std::size_t size, const char* extension) {
    const std::string path = scratchPath(extension);
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) throw std::logic_error("cannot write the scratch file " + path);
    if (size > 0 && std::fwrite(data, 1, size, f) != size) throw std::logic_error("cannot write " + path);
    std::fclose(f);
    return path;
}

}  // namespace

void readImage(const std::uint8_t* data, std::size_t size) {
    const std::string path = writeScratch(data, size, ".ppm");
    for (int reader = 0; reader < 2; ++reader) {
        CTensor<float> image;
        try {
            if (reader == 0)
                image.readFromPPM(path.c_str());
            else
                image.readFromPGM(path.c_str());
        } catch (const EInvalidFileFormat&) {
            continue;
        } catch (const std::runtime_error&) {
            continue;
        }
        // What was read must be what the sizes say: touch every sample.
        float sum = 0.0f;
        for (std::size_t i = 0; i < image.size(); ++i) sum += image.data[i];
        if (image.size() > 0 && sum != sum) throw std::logic_error("a sample read as NaN");
    }
}

void readTracks(const std::uint8_t* data, std::size_t size) {
    const std::string path = writeScratch(data, size, ".dat");
    constexpr int w = 48, h = 32;
    static std::vector<float> pixels(w * h);
    auto labels = vela::arrayFromHostMemory(pixels.data(), make_uint2(w, h));
    for (unsigned int frame : {0u, 1u, 7u}) {
        std::fill(pixels.begin(), pixels.end(), -1.0f);
        std::vector<int> ids;
        const int n = readTrackFrame(path, frame, w, h, labels, ids);
        if (n > 0 && static_cast<std::size_t>(n) != ids.size()) throw std::logic_error("label count and list differ");
        for (float v : pixels)
            if (v != -1.0f && (v < 0.0f || v >= static_cast<float>(n))) throw std::logic_error("label index out of range");
    }
}

void readConfig(const std::uint8_t* data, std::size_t size) {
    const std::string path = writeScratch(data, size, ".cfg");
    ConfigMap config;
    std::string error;
    if (parseConfigINI(path, config, error)) {
        for (const auto& entry : config)
            if (entry.first != entry.second.key) throw std::logic_error("record stored under another key");
    }
}

}  // namespace fuzz
