#include <stdexcept>

#include "image/CTensor.h"
#include "tests/fuzz/harness.h"
#include "tests/fuzz/scratch.h"

namespace fuzz {

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

}  // namespace fuzz
