// Sums over the pixels of a frame, one set per layer: a kernel leaves the sums
// of each block of 32 x 8 pixels in a small device array, and the host adds
// those up in double.  Used where the engine needs a frame-wide number (the
// walker's dot products, the contrast of an image, how much the solver still
// moves).
//
// A reducing kernel runs three phases: in phase 0 each thread computes its
// values and stores them with `put`; `fold` then adds them in two phases.
// `pixelSums` does all of it for a per-pixel function.
#pragma once

#include <vector>

#include "src/engine_arrays.h"
#include "vela/access.h"
#include "vela/device/launch.h"

namespace seg {

constexpr unsigned int kSumBlockX = 32, kSumBlockY = 8, kSumBlockThreads = kSumBlockX * kSumBlockY;

// Where a thread of a summing launch works: pixel (x, y) of layer z (the grid's
// z), its number in the block and its block's number in the layer.
struct GridPixel {
    unsigned int x, y, z, thread, block;
    bool inside;

    VELA_HD GridPixel(const vela::device::Thread& t, unsigned int w, unsigned int h) {
        x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        z = t.blockIdx.z;
        thread = t.threadIdx.y * t.blockDim.x + t.threadIdx.x;
        block = t.blockIdx.y * t.gridDim.x + t.blockIdx.x;
        inside = x < w && y < h;
    }

    // The same in a launch over row segments: block row j of block b works
    // on segments(b * blockDim.y + j), blockDim.x pixels of one row from
    // (segment.x, segment.y); block rows past the last segment are outside.
    VELA_HD GridPixel(const vela::device::Thread& t, const vela::Array<uint2, 1>& segments, unsigned int w) {
        const unsigned int index = t.blockIdx.x * t.blockDim.y + t.threadIdx.y;
        inside = index < segments.extents.x;
        const uint2 segment = inside ? vela::at(segments, index) : make_uint2(0, 0);
        x = segment.x + t.threadIdx.x;
        y = segment.y;
        z = t.blockIdx.z;
        thread = t.threadIdx.y * t.blockDim.x + t.threadIdx.x;
        block = t.blockIdx.x;
        inside = inside && x < w;
    }
};

// The block's N values per thread, and their folding into partial(block, z, n).
template <int N>
struct BlockSums {
    static constexpr unsigned int kLanes = 32;  // threads that fold the values in phase 1
    float v[N][kSumBlockThreads];

    VELA_HD void put(const GridPixel& p, int n, float value) { v[n][p.thread] = value; }

    VELA_HD void fold(int phase, const GridPixel& p, const vela::Array<float, 3>& partial) {
        if (phase == 1 && p.thread < kLanes) {
            for (int n = 0; n < N; ++n) {
                float sum = 0.0f;
                for (unsigned int k = p.thread; k < kSumBlockThreads; k += kLanes) sum += v[n][k];
                v[n][p.thread] = sum;
            }
        } else if (phase == 2 && p.thread == 0) {
            for (int n = 0; n < N; ++n) {
                float sum = 0.0f;
                for (unsigned int k = 0; k < kLanes; ++k) sum += v[n][k];
                vela::at(partial, p.block, p.z, static_cast<unsigned int>(n)) = sum;
            }
        }
    }
};

// The launch shape of a summing kernel over W x H pixels and `layers` layers.
inline dim3 sumBlock() { return dim3(kSumBlockX, kSumBlockY); }
inline dim3 sumGrid(unsigned int w, unsigned int h, unsigned int layers = 1) {
    return dim3(vela::device::blocksFor(w, kSumBlockX), vela::device::blocksFor(h, kSumBlockY), layers);
}

// Per-layer sums of N values, in double.
struct LayerSums {
    std::vector<std::vector<double>> of;  // of[n][layer]
};

// The device array the blocks write their sums into, and their adding up.
class BlockSumReader {
 public:
    BlockSumReader(dim3 grid, unsigned int values)
        : blocks_(grid.x * grid.y),
          layers_(grid.z),
          values_(values),
          device_(deviceArray3D<float>(blocks_, layers_, values_)),
          host_(static_cast<std::size_t>(blocks_) * layers_ * values_) {}

    const vela::Array<float, 3>& partial() const { return device_.a; }

    LayerSums read() {
        vela::Array<float, 3> host = vela::arrayFromHostMemory(host_.data(), blocks_, layers_, values_);
        vela::arrayCopy(host, device_.a);
        LayerSums sums{std::vector<std::vector<double>>(values_, std::vector<double>(layers_, 0.0))};
        for (unsigned int n = 0; n < values_; ++n)
            for (unsigned int l = 0; l < layers_; ++l)
                for (unsigned int b = 0; b < blocks_; ++b)
                    sums.of[n][l] += host_[(static_cast<std::size_t>(n) * layers_ + l) * blocks_ + b];
        return sums;
    }

 private:
    unsigned int blocks_, layers_, values_;
    vela::ScopedArray<float, 3> device_;
    std::vector<float> host_;
};

// Sums term(x, y, z, values) over every pixel and layer: `Term` is a struct
// with `static constexpr int N` and a VELA_HD call operator that writes N
// floats for pixel (x, y) of layer z.
template <class Term>
struct pixelSums_kernel {
    using Shared = BlockSums<Term::N>;
    struct Local {};
    static constexpr int phases = 3;
    VELA_HD void operator()(int phase, const vela::device::Thread& t, Shared& s, Local&, Term term, unsigned int w,
                            unsigned int h, vela::Array<float, 3> partial) const {
        const GridPixel p(t, w, h);
        if (phase == 0) {
            float values[Term::N] = {};
            if (p.inside) term(p.x, p.y, p.z, values);
            for (int n = 0; n < Term::N; ++n) s.put(p, n, values[n]);
            return;
        }
        s.fold(phase, p, partial);
    }
};

// Launches pixelSums_kernel<Term>, checks the device error state and returns
// the sums.
template <class Term>
LayerSums pixelSums(const Term& term, unsigned int w, unsigned int h, unsigned int layers = 1) {
    const dim3 grid = sumGrid(w, h, layers);
    BlockSumReader reader(grid, Term::N);
    vela::device::launch<pixelSums_kernel<Term>>(grid, sumBlock(), nullptr, term, w, h, reader.partial());
    vela::_CHECK_CUDA_ERROR("src/block_sums", __LINE__);
    return reader.read();
}

}  // namespace seg
