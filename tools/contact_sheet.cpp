// Puts the demo's pictures side by side in one PNG, a row per frame: the
// input frame, the dense segmentation, the overlay and the ground truth.
//
//     contact_sheet <frames folder> <result folder> <ground-truth folder> <output.png> [step]
//
// Each <name>.ppm of the frames folder gives a row from <name>.ppm,
// <name>_dense.ppm and <name>_overlay.ppm of the result folder and <name>.pgm
// of the ground-truth folder (grey values as they are).  Every `step`-th
// pixel of every `step`-th row is kept (default 2), so label colours stay
// pure.  A missing or unreadable picture leaves its tile dark grey.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "image/png_file.h"
#include "tools/pnm.h"

namespace {

namespace fs = std::filesystem;

constexpr int kGap = 4;
constexpr std::uint8_t kBackground = 32, kMissing = 64;

// The picture, or an empty one when it cannot be read.
demo::Image readOrEmpty(const fs::path& path) {
    try {
        return demo::readPNM(path.string());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "contact_sheet: %s\n", e.what());
        return {};
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5 || argc > 6) {
        std::fprintf(stderr, "usage: %s <frames folder> <result folder> <ground-truth folder> <output.png> [step]\n",
                     argv[0]);
        return 2;
    }
    const fs::path frames = argv[1], results = argv[2], truth = argv[3];
    const int step = argc > 5 ? std::atoi(argv[5]) : 2;
    if (step < 1) {
        std::fprintf(stderr, "contact_sheet: the step must be at least 1\n");
        return 2;
    }
    try {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(frames))
            if (entry.path().extension() == ".ppm") names.push_back(entry.path().stem().string());
        std::sort(names.begin(), names.end());
        if (names.empty()) throw std::runtime_error("no .ppm frames in " + frames.string());

        std::vector<std::vector<demo::Image>> rows;
        int tileW = 0, tileH = 0;
        for (const std::string& name : names) {
            rows.push_back({readOrEmpty(frames / (name + ".ppm")), readOrEmpty(results / (name + "_dense.ppm")),
                            readOrEmpty(results / (name + "_overlay.ppm")), readOrEmpty(truth / (name + ".pgm"))});
            for (const demo::Image& p : rows.back()) {
                tileW = std::max(tileW, (p.width + step - 1) / step);
                tileH = std::max(tileH, (p.height + step - 1) / step);
            }
        }
        const int columns = 4, rowCount = static_cast<int>(rows.size());
        RgbImage sheet;
        sheet.width = kGap + columns * (tileW + kGap);
        sheet.height = kGap + rowCount * (tileH + kGap);
        sheet.rgb.assign(static_cast<std::size_t>(sheet.width) * sheet.height * 3, kBackground);
        for (int r = 0; r < rowCount; ++r)
            for (int c = 0; c < columns; ++c) {
                const demo::Image& p = rows[r][c];
                const int x0 = kGap + c * (tileW + kGap), y0 = kGap + r * (tileH + kGap);
                for (int y = 0; y < tileH; ++y)
                    for (int x = 0; x < tileW; ++x) {
                        std::uint8_t* out = &sheet.rgb[(static_cast<std::size_t>(y0 + y) * sheet.width + x0 + x) * 3];
                        const int sx = x * step, sy = y * step;
                        if (sx >= p.width || sy >= p.height) {
                            std::fill(out, out + 3, kMissing);
                            continue;
                        }
                        const std::uint8_t* in = p.at(sx, sy);
                        for (int k = 0; k < 3; ++k) out[k] = in[p.channels == 3 ? k : 0];
                    }
            }
        png_file::writeRgb(sheet, argv[4]);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "contact_sheet: %s\n", e.what());
        return 1;
    }
    return 0;
}
