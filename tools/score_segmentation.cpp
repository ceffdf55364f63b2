// Scores dense segmentations against ground-truth label images.
//
//     score_segmentation <ground-truth folder> <result folder>
//
// Every <name>.pgm of the ground-truth folder (one grey value per object) is
// compared with <name>_dense.ppm of the result folder.  Result colours carry
// no meaning of their own: each colour is matched to the ground-truth label it
// overlaps most over the whole sequence.  Prints, per frame, the pixel
// accuracy and the mean intersection-over-union over the labels present in
// the frame's ground truth or result, then the means over all frames.  A
// missing result counts as 0.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/pnm.h"

namespace {

using Colour = unsigned int;  // 0xRRGGBB

Colour colourAt(const demo::Image& image, int x, int y) {
    const std::uint8_t* p = image.at(x, y);
    return (static_cast<Colour>(p[0]) << 16) | (static_cast<Colour>(p[1]) << 8) | p[2];
}

struct Frame {
    std::string name;
    demo::Image truth;
    demo::Image result;  // empty when missing
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: score_segmentation <ground-truth folder> <result folder>\n");
        return 2;
    }
    namespace fs = std::filesystem;
    const std::string truthFolder = argv[1], resultFolder = argv[2];
    try {
        std::vector<std::string> names;
        std::error_code ec;
        for (fs::directory_iterator it(truthFolder, ec), end; !ec && it != end; it.increment(ec))
            if (it->path().extension() == ".pgm") names.push_back(it->path().stem().string());
        if (ec) throw std::runtime_error("cannot list " + truthFolder + ": " + ec.message());
        std::sort(names.begin(), names.end());
        if (names.empty()) throw std::runtime_error("no ground truth (*.pgm) in " + truthFolder);

        std::vector<Frame> frames;
        std::map<Colour, std::map<int, long>> overlap;  // result colour -> truth label -> pixels
        for (const std::string& name : names) {
            Frame frame{name, demo::readPNM(truthFolder + "/" + name + ".pgm"), {}};
            const std::string resultPath = resultFolder + "/" + name + "_dense.ppm";
            if (fs::exists(resultPath)) {
                frame.result = demo::readPNM(resultPath);
                if (frame.result.channels != 3 || frame.result.width != frame.truth.width ||
                    frame.result.height != frame.truth.height)
                    throw std::runtime_error(resultPath + " does not match the size of its ground truth");
                for (int y = 0; y < frame.truth.height; ++y)
                    for (int x = 0; x < frame.truth.width; ++x)
                        ++overlap[colourAt(frame.result, x, y)][frame.truth.at(x, y)[0]];
            }
            frames.push_back(std::move(frame));
        }
        std::map<Colour, int> labelOf;
        for (const auto& [colour, counts] : overlap)
            labelOf[colour] = std::max_element(counts.begin(), counts.end(), [](auto& a, auto& b) {
                                  return a.second < b.second;
                              })->first;

        double sumAccuracy = 0, sumIoU = 0;
        for (const Frame& frame : frames) {
            if (frame.result.pixels.empty()) {
                std::printf("%s: no result\n", frame.name.c_str());
                continue;
            }
            std::map<int, long> truthCount, resultCount, both;
            long correct = 0;
            for (int y = 0; y < frame.truth.height; ++y) {
                for (int x = 0; x < frame.truth.width; ++x) {
                    const int t = frame.truth.at(x, y)[0];
                    const int r = labelOf[colourAt(frame.result, x, y)];
                    ++truthCount[t];
                    ++resultCount[r];
                    if (t == r) ++correct, ++both[t];
                }
            }
            std::set<int> labels;
            for (const auto& entry : truthCount) labels.insert(entry.first);
            for (const auto& entry : resultCount) labels.insert(entry.first);
            double iou = 0;
            for (int l : labels) iou += static_cast<double>(both[l]) / (truthCount[l] + resultCount[l] - both[l]);
            iou /= static_cast<double>(labels.size());
            const double accuracy = static_cast<double>(correct) / (frame.truth.width * frame.truth.height);
            std::printf("%s: pixel accuracy %6.2f %%, mean IoU %6.2f %%\n", frame.name.c_str(), 100 * accuracy,
                        100 * iou);
            sumAccuracy += accuracy;
            sumIoU += iou;
        }
        const double n = static_cast<double>(frames.size());
        std::printf("mean over %zu frames: pixel accuracy %6.2f %%, mean IoU %6.2f %%\n", frames.size(),
                    100 * sumAccuracy / n, 100 * sumIoU / n);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "score_segmentation: %s\n", e.what());
        return 1;
    }
    return 0;
}
