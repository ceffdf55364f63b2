// Shows the evaluation the data term the solver gets, so that other methods can
// minimise their own energies over exactly the same costs:
//
//     dump_costs <config file> <trackfile> <frame> <image file> <out.npy>
//
// reads the configuration and the frame as the program does, builds the frame's
// seed image with the program's track reader, readies the frame's solver with
// prepareFrame (the step before the solver in the frame loop) and writes
// its cost map, before the solver's weight lambda, as an L x H x W float32
// .npy file: layer k is the cost of label index k at every pixel.  Prints two
// lines on standard output:
//
//     labels <track label number of index 0> <of index 1> ...
//     seconds <wall time of prepareFrame>
//
// A frame without seeds writes a 0 x H x W file, an empty "labels" line and 0
// seconds, without building anything.  Exit status 0 on success, 1 when a file
// cannot be read or written, 255 for a configuration the program refuses.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/driver/config.h"
#include "src/driver/driver.h"
#include "src/driver/settings_file.h"
#include "src/driver/tracks.h"
#include "src/engine_arrays.h"
#include "src/frame.h"
#include "vela/device/runtime.h"
#include "vela/tools.h"

namespace {

bool littleEndian() {
    const std::uint16_t one = 1;
    std::uint8_t first;
    std::memcpy(&first, &one, 1);
    return first == 1;
}

// The .npy format, version 1.0: magic, version, a little-endian 16-bit header
// length, then a Python dict literal padded with spaces to a multiple of 64
// bytes and ended by a newline, then the raw C-order data.
void writeNpy(const std::string& path, const std::vector<float>& values, unsigned int l, unsigned int h,
              unsigned int w) {
    std::string header = std::string("{'descr': '") + (littleEndian() ? "<" : ">") +
                         "f4', 'fortran_order': False, 'shape': (" + std::to_string(l) + ", " + std::to_string(h) +
                         ", " + std::to_string(w) + "), }";
    const std::size_t preamble = 10;  // magic (6), version (2), header length (2)
    header.append(63 - (preamble + header.size()) % 64, ' ');
    header.push_back('\n');
    const std::uint16_t length = static_cast<std::uint16_t>(header.size());
    const char lengthBytes[2] = {static_cast<char>(length & 0xff), static_cast<char>(length >> 8)};

    std::FILE* out = std::fopen(path.c_str(), "wb");
    if (out == nullptr) throw std::runtime_error("cannot write " + path);
    bool ok = std::fwrite("\x93NUMPY\x01\x00", 1, 8, out) == 8 && std::fwrite(lengthBytes, 1, 2, out) == 2 &&
              std::fwrite(header.data(), 1, header.size(), out) == header.size() &&
              // An empty map (a frame without seeds) writes no data: fwrite must not see its null pointer.
              (values.empty() || std::fwrite(values.data(), sizeof(float), values.size(), out) == values.size());
    ok = std::fclose(out) == 0 && ok;
    if (!ok) throw std::runtime_error("writing " + path + " failed");
}

int dumpCosts(const std::string& configPath, const std::string& trackPath, unsigned int frame,
              const std::string& imagePath, const std::string& outPath) {
    ConfigMap config = loadConfigINI(configPath);
    SegmentationSettings settings;
    std::string error;
    if (!readSegmentationSettings(config, settings, error)) exitWithConfigError(error);

    vela::ScopedArray<float4, 2> host(loadColorImage(imagePath));
    const unsigned int w = host.a.extents.x, h = host.a.extents.y;

    std::vector<float> seeds(static_cast<std::size_t>(w) * h, -1.0f);
    vela::Array<float, 2> hostSeeds = vela::arrayFromHostMemory(seeds.data(), make_uint2(w, h));
    FrameSeeds frameSeeds;
    std::vector<int>& labelIds = frameSeeds.labelIds;
    const int numLabels =
        readTrackFrame(trackPath, frame, static_cast<int>(w), static_cast<int>(h), hostSeeds, labelIds);
    if (numLabels < 1) {
        writeNpy(outPath, {}, 0, h, w);
        std::printf("labels\nseconds 0\n");
        return 0;
    }

    // The frame loop's device image and label image.
    requireAddressable(w, h, labelIds.size());
    vela::ScopedArray<float4, 2> image = seg::deviceCopy(host.a);
    const vela::ScopedArray<float, 2> labels = seg::deviceCopy(hostSeeds);
    frameSeeds.labels = labels.a;

    FrameSolver seg(image.a);
    const auto start = std::chrono::steady_clock::now();
    prepareFrame(seg, frameSeeds, settings);
    vela::device::synchronize();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    const unsigned int l = seg.costMap.extents.z;
    std::vector<float> costs(static_cast<std::size_t>(w) * h * l);
    vela::Array<float, 3> hostCosts = vela::arrayFromHostMemory(costs.data(), seg.costMap.extents);
    vela::arrayCopy(hostCosts, seg.costMap);
    writeNpy(outPath, costs, l, h, w);

    std::printf("labels");
    for (int id : labelIds) std::printf(" %d", id);
    std::printf("\nseconds %.6f\n", seconds);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: dump_costs <config file> <trackfile> <frame> <image file> <out.npy>\n");
        return 2;
    }
    try {
        const long frame = std::strtol(argv[3], nullptr, 10);
        if (frame < 0) {
            std::fprintf(stderr, "dump_costs: the frame must be 0 or more, got %s\n", argv[3]);
            return 2;
        }
        return dumpCosts(argv[1], argv[2], static_cast<unsigned int>(frame), argv[4], argv[5]);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "dump_costs: %s\n", e.what());
        return 1;
    }
}
