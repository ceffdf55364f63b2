#include "src/Seg.h"

#include <vector>

#include "src/engine_arrays.h"

namespace {

constexpr int kPaletteSize = 100;
// The hand-picked colours; the remaining entries follow a near-black ramp.
constexpr int kPickedColours = 40;

// clang-format off
constexpr float kRed[kPickedColours] = {
    255, 200,  10,   0, 255,   0,   0, 180, 255, 180,   0, 170, 100, 240,   0, 255,  10, 200,  90,  10,
      0, 180,  70, 100, 255,  30, 100,   0, 100, 255,  50, 120, 140,  70,  70, 100, 235, 180, 200, 210};
constexpr float kGreen[kPickedColours] = {
     10, 190,  10, 180,   0, 255, 255,   0, 130,   0,   0, 170, 100, 100, 100,  70,  10, 200,   0, 100,
    150,  75,  70,  30, 100,   0,   0,   0, 255, 100,  80, 180, 100, 100, 140, 200, 235, 200,  70, 160};
constexpr float kBlue[kPickedColours] = {
     10,   0, 255,   0, 255, 255,   0,   0,   0, 180, 130, 170, 100,  80, 255,  30,  10,  70,  90,  50,
     25,  10, 255, 170, 170, 200,   0,  75, 100, 100, 200, 120,   0,   0, 140, 200, 100,   0, 250, 210};
// clang-format on

}  // namespace

Seg::Seg(const std::string& segName) : name(segName) {
    build_colorCode();
    labelColors = vela::Array<float4, 1>{};  // no table, no extent, device 0
}

// The colour tables outlive the object on purpose: labelColors may hold a
// table the caller made, and both are cheap.
Seg::~Seg() = default;

std::vector<float4> seg::palette() {
    std::vector<float4> palette(kPaletteSize);
    for (int i = 0; i < kPaletteSize; ++i) {
        if (i < kPickedColours) {
            palette[i] = make_float4(kRed[i], kGreen[i], kBlue[i], 0.0f);
        } else {
            const float base = static_cast<float>(i - kPickedColours);
            palette[i] = make_float4(base, base + 1.0f, base + 2.0f, 0.0f);
        }
    }
    return palette;
}

void Seg::build_colorCode() {
    std::vector<float4> palette = seg::palette();
    colorCode = seg::deviceCopy(seg::hostView1D(palette.data(), kPaletteSize)).release();
}
