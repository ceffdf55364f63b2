#include <algorithm>
#include <stdexcept>
#include <vector>

#include "src/driver/tracks.h"
#include "tests/fuzz/harness.h"
#include "tests/fuzz/scratch.h"
#include "vela/tools.h"

namespace fuzz {

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
            if (v != -1.0f && (v < 0.0f || v >= static_cast<float>(n)))
                throw std::logic_error("label index out of range");
    }
}

}  // namespace fuzz
