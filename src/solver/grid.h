// The launch shape shared by the solver's and the edge weights' per-pixel
// kernels: blocks of 32 x 2 threads (a warp-wide row segment, so label-major
// rows are read coalesced) over ceil(W/32) x ceil(H/2) blocks, one pixel per
// thread.
#pragma once

#include "vela/device/launch.h"

namespace seg {

constexpr unsigned int kPixelBlockX = 32;
constexpr unsigned int kPixelBlockY = 2;

inline dim3 pixelBlock() { return dim3(kPixelBlockX, kPixelBlockY); }

inline dim3 pixelGrid(unsigned int w, unsigned int h) {
    return dim3(vela::device::blocksFor(w, kPixelBlockX), vela::device::blocksFor(h, kPixelBlockY));
}

// The pixel of a thread; false for threads outside the w x h image.
VELA_HD inline bool pixelOf(const vela::device::Thread& t, unsigned int w, unsigned int h, unsigned int& x,
                            unsigned int& y) {
    x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
    y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
    return x < w && y < h;
}

}  // namespace seg
