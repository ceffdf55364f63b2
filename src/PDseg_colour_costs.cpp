#include "src/PDseg_colour_costs.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/PDseg.h"
#include "src/engine_arrays.h"
#include "src/label_colours.h"
#include "src/solver/simplex.h"
#include "vela/access.h"
#include "vela/device/launch.h"

namespace {

using vela::device::Thread;

constexpr unsigned int kBlock = 32;
// The neighbourhood of (x, y) spans x - 500 .. x + 500 and y - 500 .. y + 500.
constexpr int kHalfWidth = 500;
// Squared distance to the nearest l-pixel while none has been seen.
constexpr float kNoLabelNearby = 1.0e9f;
// A squared nearest distance this small means the pixel carries the label.
constexpr float kOnLabel = 1.0e-4f;
// Spatial scale s = 10 * nearest distance + 3.
constexpr float kScaleSlope = 10.0f;
constexpr float kScaleOffset = 3.0f;
// Colour weight exp(-c^2 / (2 * 54^2)) on 0..255 channels.
constexpr float kColourDenominator = 5832.0f;
constexpr float kWeightFloor = 1.0e-5f;
// Keeps the logarithm finite where no similar l-pixel is near.
constexpr float kProbabilityOffset = 0.001f;
// The pixel whose intermediate values are printed.
constexpr unsigned int kTraceX = 231;
constexpr unsigned int kTraceY = 261;
// Rows (and columns) the neighbourhoods of one block's pixels can reach.
constexpr int kBlockReach = 2 * kHalfWidth + static_cast<int>(kBlock);
// Where a block's rows hold labelled pixels is recorded per chunk of columns,
// one bit per chunk.
constexpr int kChunk = 8;
constexpr int kChunksPerRow = (kBlockReach + kChunk - 1) / kChunk;
constexpr int kMaskWords = (kChunksPerRow + 63) / 64;
// Stretches of a row up to this many columns are read without the chunk bits.
constexpr int kDirectScan = 4 * kChunk;

// The rectangle [x0, x1) x [y0, y1) that every neighbourhood of a range of
// pixels lies in.
struct Window {
    int x0, x1, y0, y1;
};

VELA_HD inline int maxInt(int a, int b) { return a > b ? a : b; }
VELA_HD inline int minInt(int a, int b) { return a < b ? a : b; }

// Index of the lowest set bit of a non-zero word.
VELA_HD inline int lowestBit(unsigned long long v) {
#if defined(__CUDA_ARCH__)
    return __ffsll(static_cast<long long>(v)) - 1;
#else
    return __builtin_ctzll(v);
#endif
}

// Neighbourhoods of the pixels [firstX, lastX] x [firstY, lastY] of a W x H image.
VELA_HD inline Window reach(int firstX, int lastX, int firstY, int lastY, int w, int h) {
    return Window{maxInt(0, firstX - kHalfWidth), minInt(w, lastX + kHalfWidth + 1), maxInt(0, firstY - kHalfWidth),
                  minInt(h, lastY + kHalfWidth + 1)};
}

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

// One thread per pixel.  For each label l the thread scans its neighbourhood
// twice: for the nearest l-pixel, then for the weighted colour similarity of
// the l-pixels.
//
// Only labelled (non-black) pixels can be l-pixels unless a label's colour is
// black.  So phase 0 also records, for every row the block's neighbourhoods
// reach, the first and last labelled column and which chunks of kChunk columns
// hold labelled pixels, and the scans read only those, in ascending order.
// The pixels skipped would contribute nothing, so the results, sums in their
// row-major order included, are those of the full scan.
struct spatiallyVaryColorDistCostMap_kernel {
    struct Shared {
        float4 colors[seg::kMaxLabels];
        int2 labelledColumns[kBlockReach];  // first and last; first > last: none
        unsigned long long labelledChunks[kBlockReach][kMaskWords];
    };
    struct Local {};
    static constexpr int phases = 2;

    VELA_HD void operator()(int phase, const Thread& t, Shared& s, Local&, vela::Array<float, 3> cost,
                            vela::Array<float4, 2> labelImage, vela::Array<float4, 2> image,
                            vela::Array<float4, 1> colors) const {
        const int w = static_cast<int>(labelImage.extents.x);
        const int h = static_cast<int>(labelImage.extents.y);
        const int blockX = static_cast<int>(t.blockIdx.x * t.blockDim.x);
        const int blockY = static_cast<int>(t.blockIdx.y * t.blockDim.y);
        const Window block = reach(blockX, blockX + static_cast<int>(t.blockDim.x) - 1, blockY,
                                   blockY + static_cast<int>(t.blockDim.y) - 1, w, h);
        if (phase == 0) {
            stage(t, s, block, cost.extents.z, labelImage, colors);
            return;
        }

        const unsigned int ux = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int uy = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        if (ux >= cost.extents.x || uy >= cost.extents.y) return;
        const int x = static_cast<int>(ux), y = static_cast<int>(uy);
        const int labels = static_cast<int>(cost.extents.z);

        Scan scan{labelImage, s.labelledColumns, s.labelledChunks, block.x0, block.y0, reach(x, x, y, y, w, h), false};
        for (int l = 0; l < labels; ++l) scan.everyPixel = scan.everyPixel || seg::isUnlabelled(s.colors[l]);
        const float4 here = vela::at(image, ux, uy);

        for (int l = 0; l < labels; ++l) {
            const float4 c = s.colors[l];
            const float nearest = nearestSquaredDistance(scan, x, y, c);
            if (ux == kTraceX && uy == kTraceY) printf("mindist= %f\n", nearest);

            float num = 1.0f, den = 1.0f;  // the pixel carries label l
            if (nearest > kOnLabel) {
                num = 0.0f;
                den = 0.0f;
                // Without an l-pixel in the neighbourhood nothing would accrue.
                if (nearest < kNoLabelNearby) similarity(scan, x, y, image, c, here, nearest, num, den);
            }
            const float q = den < kWeightFloor ? kProbabilityOffset : num / den + kProbabilityOffset;
            if (ux == kTraceX && uy == kTraceY) printf("count= %f\n", den);
            vela::at(cost, ux, uy, static_cast<unsigned int>(l)) = -logf(q);
        }
    }

 private:
    // One pixel's neighbourhood and where in it l-pixels may lie.
    struct Scan {
        vela::Array<float4, 2> labelImage;
        const int2* labelledColumns;
        const unsigned long long (*labelledChunks)[kMaskWords];
        int firstColumn, firstRow;  // of the block's reach: where chunk 0 and row 0 begin
        Window nb;
        bool everyPixel;  // a label is black: unlabelled pixels may be l-pixels too

        // Calls visit(i, labelImage(i, j)) for the columns i of row j that may
        // hold an l-pixel, in ascending order.
        template <class Visit>
        VELA_HD void row(int j, Visit& visit) const {
            const float4* pixels = &vela::at(labelImage, 0u, static_cast<unsigned int>(j));
            int begin = nb.x0, end = nb.x1;
            if (!everyPixel) {
                const int2 labelled = labelledColumns[j - firstRow];
                begin = maxInt(begin, labelled.x);
                end = minInt(end, labelled.y + 1);
            }
            // Short stretches are read whole; long ones chunk by chunk.
            if (everyPixel || end - begin <= kDirectScan) {
                for (int i = begin; i < end; ++i) visit(i, pixels[i]);
                return;
            }
            const unsigned long long* words = labelledChunks[j - firstRow];
            const int firstChunk = (begin - firstColumn) / kChunk;
            for (int word = firstChunk / 64; word < kMaskWords; ++word) {
                for (unsigned long long bits = words[word]; bits != 0; bits &= bits - 1) {
                    const int start = firstColumn + (word * 64 + lowestBit(bits)) * kChunk;
                    if (start >= end) return;
                    const int stop = minInt(start + kChunk, end);
                    for (int i = maxInt(start, begin); i < stop; ++i) visit(i, pixels[i]);
                }
            }
        }
    };

    // Phase 0: the label colours into the block's table (thread 0), and where
    // the labelled pixels lie in every row the block reaches (rows spread over
    // threads).
    VELA_HD static void stage(const Thread& t, Shared& s, const Window& block, unsigned int labels,
                              const vela::Array<float4, 2>& labelImage, const vela::Array<float4, 1>& colors) {
        const int thread = static_cast<int>(t.threadIdx.y * t.blockDim.x + t.threadIdx.x);
        const int threads = static_cast<int>(t.blockDim.x * t.blockDim.y);
        if (thread == 0)
            for (unsigned int l = 0; l < labels; ++l) s.colors[l] = vela::at(colors, l);
        for (int j = block.y0 + thread; j < block.y1; j += threads) {
            const float4* row = &vela::at(labelImage, 0u, static_cast<unsigned int>(j));
            unsigned long long* words = s.labelledChunks[j - block.y0];
            for (int word = 0; word < kMaskWords; ++word) words[word] = 0;
            int first = block.x1, last = block.x0 - 1;
            for (int i = block.x0; i < block.x1; ++i) {
                if (seg::isUnlabelled(row[i])) continue;
                if (first == block.x1) first = i;
                last = i;
                const int chunk = (i - block.x0) / kChunk;
                words[chunk / 64] |= 1ull << (chunk % 64);
            }
            s.labelledColumns[j - block.y0] = make_int2(first, last);
        }
    }

    struct Nearest {
        int x;
        float dy2;
        float4 c;
        float d2;
        VELA_HD void operator()(int i, const float4& p) {
            if (!seg::sameLabelColour(p, c)) return;
            const float dx = static_cast<float>(i - x);
            const float candidate = dx * dx + dy2;
            if (candidate < d2) d2 = candidate;
        }
    };

    // min over l-pixels (i, j) of (i - x)^2 + (j - y)^2, or kNoLabelNearby.  The
    // minimum does not depend on the visiting order, so rows are visited
    // outwards from y and the search stops at rows too far to improve on it.
    VELA_HD static float nearestSquaredDistance(const Scan& scan, int x, int y, const float4& c) {
        Nearest nearest{x, 0.0f, c, kNoLabelNearby};
        for (int k = 0;; ++k) {
            nearest.dy2 = static_cast<float>(k) * static_cast<float>(k);
            if (nearest.dy2 >= nearest.d2) break;
            const bool above = y - k >= scan.nb.y0, below = k > 0 && y + k < scan.nb.y1;
            if (!above && !below) break;
            if (above) scan.row(y - k, nearest);
            if (below) scan.row(y + k, nearest);
        }
        return nearest.d2;
    }

    struct Similarity {
        int x;
        float dy;
        float spread;  // 2 s^2
        float4 c, here;
        const float4* imageRow;
        float num, den;
        VELA_HD void operator()(int i, const float4& p) {
            if (!seg::sameLabelColour(p, c)) return;
            const float dx = static_cast<float>(i - x);
            const float ws = expf(-(dx * dx + dy * dy) / spread);
            const float4 q = imageRow[i];
            const float dr = here.x - q.x, dg = here.y - q.y, db = here.z - q.z;
            const float c2 = dr * dr + dg * dg + db * db;
            const float wc = expf(c2 / -kColourDenominator);
            num = num + ws * wc;
            den = den + ws;
        }
    };

    // Sums, in row-major order over the l-pixels of the neighbourhood, the
    // spatial weights (den) and the spatial times colour weights (num).
    VELA_HD static void similarity(const Scan& scan, int x, int y, const vela::Array<float4, 2>& image, const float4& c,
                                   const float4& here, float nearest, float& num, float& den) {
        const float scale = sqrtf(nearest) * kScaleSlope + kScaleOffset;
        Similarity sum{x, 0.0f, 2.0f * scale * scale, c, here, nullptr, 0.0f, 0.0f};
        for (int j = scan.nb.y0; j < scan.nb.y1; ++j) {
            sum.dy = static_cast<float>(j - y);
            sum.imageRow = &vela::at(image, 0u, static_cast<unsigned int>(j));
            scan.row(j, sum);
        }
        num = sum.num;
        den = sum.den;
    }
};

static_assert(kBlock - 1 + 2 * kHalfWidth + 1 <= kBlockReach, "the chunk table covers a block's reach");

[[noreturn]] void refuse(const std::string& what) {
    throw std::runtime_error("spatiallyVaryColorDistCostMap: " + what);
}

}  // namespace

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

namespace seg {

cudaError_t spatiallyVaryColorDistCostMap(vela::Array<float, 3>& costMap, vela::Array<float4, 2>& labelImage,
                                          vela::Array<float4, 2>& image, vela::Array<float4, 1>& colors) {
    const int labels = static_cast<int>(costMap.extents.z);
    checkLabelCount(labels, kMaxLabels, "the per-block colour table");
    checkLabelCount(labels, static_cast<int>(colors.extents.x), "the given colour list");
    const uint2 size = labelImage.extents;
    if (costMap.extents.x != size.x || costMap.extents.y != size.y)
        refuse("the cost map " + vela::internal::str_extents(costMap.extents) + " and the label image " +
               vela::internal::str_extents(size) + " differ in size");
    if (image.extents.x != size.x || image.extents.y != size.y)
        refuse("the image " + vela::internal::str_extents(image.extents) + " and the label image " +
               vela::internal::str_extents(size) + " differ in size");

    if (labelImage.device == vela::kHostDevice || image.device == vela::kHostDevice ||
        (labels > 0 && colors.device == vela::kHostDevice))
        refuse("the label image, the image and the colours must be on the device");

    const dim3 block(kBlock, kBlock);
    const dim3 grid(vela::device::blocksFor(size.x, kBlock), vela::device::blocksFor(size.y, kBlock));
    vela::device::launch<spatiallyVaryColorDistCostMap_kernel>(grid, block, nullptr, costMap, labelImage, image,
                                                               colors);
    return vela::device::peekAtLastError();
}

}  // namespace seg

void PDseg::imageToCostMap(vela::Array<float4, 2>& source, float4* colors, int nColors) {
    if (nColors > 0 && colors == nullptr)
        throw std::runtime_error("PDseg::imageToCostMap(): no colours given for " + std::to_string(nColors) +
                                 " labels");
    const unsigned int w = source.extents.x, h = source.extents.y;
    allocateSolverArrays(w, h, nColors, "PDseg::imageToCostMap()");
    if (nColors == 0) return;

    const unsigned int labels = static_cast<unsigned int>(nColors);
    std::vector<float4> pixels(static_cast<std::size_t>(w) * h);
    auto hostPixels = vela::arrayFromHostMemory(pixels.data(), make_uint2(w, h));
    vela::arrayCopy(hostPixels, source);

    // Layer k of the host cost array is the distance image to colour k.
    std::vector<float> costs(pixels.size() * labels);
    for (unsigned int k = 0; k < labels; ++k) {
        const float4 c = colors[k];
        float* layer = costs.data() + k * pixels.size();
        for (std::size_t p = 0; p < pixels.size(); ++p) {
            const float dr = pixels[p].x - c.x, dg = pixels[p].y - c.y, db = pixels[p].z - c.z;
            layer[p] = std::sqrt((dg * dg + dr * dr) + db * db);
        }
    }
    vela::arrayCopy(costMap, vela::arrayFromHostMemory(costs.data(), make_uint3(w, h, labels)));
}
