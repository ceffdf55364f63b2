// Shows the evaluation what the program itself sees, so a peer method can be
// run on exactly the same input:
//
//     dump_seeds seeds <trackfile> <frame> <width> <height> <out.pgm>
//         reads one frame of the track file with the program's own reader and
//         writes the seed image as a PGM: each seeded pixel holds its track
//         label number (0 to 99), 255 marks an unlabelled pixel.  Exit status
//         0 also when the frame has no seed (then the image is all 255).
//     dump_seeds palette
//         prints the fixed label palette, one "r g b" line per label number.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "src/Seg.h"
#include "src/driver/tracks.h"
#include "src/engine_arrays.h"
#include "tools/pnm.h"
#include "vela/tools.h"

namespace {

constexpr std::uint8_t kUnlabelled = 255;

// Seg is abstract; the palette is all we need of it.
class PaletteOnly : public Seg {
 public:
    PaletteOnly() : Seg("palette") {}
    void run() override {}
};

int printPalette() {
    PaletteOnly seg;
    const int n = static_cast<int>(seg.colorCode.extents.x);
    std::vector<float4> table(n);
    vela::Array<float4, 1> host = seg::hostView1D(table.data(), static_cast<unsigned>(n));
    vela::arrayCopy(host, seg.colorCode);
    for (const float4& c : table)
        std::printf("%d %d %d\n", static_cast<int>(c.x), static_cast<int>(c.y), static_cast<int>(c.z));
    vela::freeArray(seg.colorCode);
    return 0;
}

int dumpSeeds(const std::string& trackPath, unsigned frame, int w, int h, const std::string& outPath) {
    std::vector<float> indices(static_cast<std::size_t>(w) * h, -1.0f);
    vela::Array<float, 2> labels = vela::arrayFromHostMemory(indices.data(), make_uint2(w, h));
    std::vector<int> labelIds;
    readTrackFrame(trackPath, frame, w, h, labels, labelIds);

    demo::Image out(w, h, 1);
    for (std::size_t i = 0; i < indices.size(); ++i) {
        const int k = static_cast<int>(indices[i]);
        out.pixels[i] = k < 0 ? kUnlabelled : static_cast<std::uint8_t>(labelIds.at(k));
    }
    demo::writePNM(out, outPath);
    return 0;
}

int usage() {
    std::fprintf(stderr,
                 "usage: dump_seeds seeds <trackfile> <frame> <width> <height> <out.pgm>\n"
                 "       dump_seeds palette\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::string command = argc > 1 ? argv[1] : "";
        if (command == "palette" && argc == 2) return printPalette();
        if (command == "seeds" && argc == 7) {
            const int w = std::atoi(argv[4]), h = std::atoi(argv[5]);
            if (w < 1 || h < 1) return usage();
            return dumpSeeds(argv[2], static_cast<unsigned>(std::atoi(argv[3])), w, h, argv[6]);
        }
        return usage();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "dump_seeds: %s\n", e.what());
        return 1;
    }
}
