// Launch shapes and thread-to-element mapping shared by the array algorithms'
// kernels.
#pragma once

#include "vela/device/launch.h"

namespace vela::internal {

// Elementwise operations on 4-D arrays: blocks of 128 x 2 threads, one grid
// layer per (z, w) pair.
constexpr dim3 kElementwiseBlock(128, 2, 1);

inline dim3 elementwiseGrid(const uint4& extents) {
    return dim3(device::blocksFor(extents.x, kElementwiseBlock.x), device::blocksFor(extents.y, kElementwiseBlock.y),
                extents.z * extents.w);
}

// The element of a thread of an elementwise launch.  The grid's z packs two
// indices: w = blockIdx.z / zblocks, z = blockIdx.z mod zblocks.
struct ElementIndex {
    unsigned int x, y, z, w;

    VELA_HD ElementIndex(const device::Thread& t, int zblocks) {
        const unsigned int zb = static_cast<unsigned int>(zblocks);
        x = t.blockDim.x * t.blockIdx.x + t.threadIdx.x;
        y = t.blockDim.y * t.blockIdx.y + t.threadIdx.y;
        w = t.blockIdx.z / zb;
        z = t.blockDim.z * (t.blockIdx.z % zb) + t.threadIdx.z;
    }

    VELA_HD bool inside(const uint4& e) const { return x < e.x && y < e.y && z < e.z && w < e.w; }
};

// Per-pixel image kernels: blocks of 32 x 4 threads over the x-y plane.
constexpr dim3 kImageBlock(32, 4, 1);

inline dim3 imageGrid(unsigned int width, unsigned int height) {
    return dim3(device::blocksFor(width, kImageBlock.x), device::blocksFor(height, kImageBlock.y), 1);
}

}  // namespace vela::internal
