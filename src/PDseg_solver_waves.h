// Launch of a phased kernel whose blocks read what neighbouring blocks write in
// the same launch, with a result that does not depend on the host's threads.
//
// On a GPU such a kernel is launched as usual and the order of the blocks is
// the hardware's.  The host backend's launcher would run neighbouring blocks on
// different OS threads at the same time: a data race, and results that change
// from run to run.  Here the host backend instead runs every grid row (blocks
// of one y and z) on one OS thread, its blocks in order of x, and all rows of
// even y before all rows of odd y.  A kernel whose blocks touch only the block
// rows next to their own (y - 1, y, y + 1) then never has two threads on the
// same element, and its result is one the GPU could also produce, the same for
// any number of threads.
#pragma once

#include <cstddef>
#include <vector>

#include "vela/device/launch.h"

namespace seg {

template <class K, class... Args>
void launchInRowWaves(dim3 grid, dim3 block, cudaStream_t stream, const Args&... args) {
#if defined(__CUDACC__)
    if (vela::device::usesCuda()) {
        vela::device::launch<K>(grid, block, stream, args...);
        return;
    }
#endif
    (void)stream;
    if (!vela::device::validLaunchShape(grid, block)) {
        vela::device::setLastError(cudaErrorInvalidConfiguration);
        return;
    }
    const std::size_t threads = static_cast<std::size_t>(block.x) * block.y * block.z;
    for (unsigned int z = 0; z < grid.z; ++z) {
        for (unsigned int parity = 0; parity < 2; ++parity) {
            const long long rows = grid.y;
            VELA_PRAGMA_OMP(omp parallel) {
                std::vector<typename K::Local> locals(threads);
                VELA_PRAGMA_OMP(omp for schedule(static))
                for (long long row = parity; row < rows; row += 2) {
                    vela::device::Thread t{};
                    t.blockDim = block;
                    t.gridDim = grid;
                    t.blockIdx.y = static_cast<unsigned int>(row);
                    t.blockIdx.z = z;
                    for (t.blockIdx.x = 0; t.blockIdx.x < grid.x; ++t.blockIdx.x) {
                        typename K::Shared shared;
                        for (int phase = 0; phase < K::phases; ++phase) {
                            std::size_t i = 0;
                            for (t.threadIdx.z = 0; t.threadIdx.z < block.z; ++t.threadIdx.z)
                                for (t.threadIdx.y = 0; t.threadIdx.y < block.y; ++t.threadIdx.y)
                                    for (t.threadIdx.x = 0; t.threadIdx.x < block.x; ++t.threadIdx.x)
                                        K{}(phase, t, shared, locals[i++], args...);
                        }
                    }
                }
            }
        }
    }
}

}  // namespace seg
