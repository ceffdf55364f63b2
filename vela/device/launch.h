// Kernel launch on either backend from one kernel body.
//
// A kernel is a small struct whose call operator is the per-thread work:
//
//   struct scale_kernel {
//       VELA_HD void operator()(const vela::device::Thread& t, vela::Array<float, 2> a, float s) const {
//           const unsigned x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
//           if (x < a.extents.x) vela::at(a, x, 0) *= s;
//       }
//   };
//   vela::device::launch<scale_kernel>(grid, block, stream, a, 2.0f);
//
// The cuda launcher wraps the body in a __global__ entry; the host launcher
// spreads the blocks over OpenMP threads and runs the threads of a block in turn.
//
// A kernel that shares memory within a block and waits at barriers is written as
// phases split at the barriers.  It declares its block-shared state, the state
// each thread keeps across barriers, and its phase count:
//
//   struct sum_kernel {
//       struct Shared { float v[64]; };
//       struct Local { float mine; };
//       static constexpr int phases = 2;
//       VELA_HD void operator()(int phase, const Thread& t, Shared& s, Local& l, ...) const;
//   };
//
// Each phase ends where the CUDA code would call __syncthreads(); the host
// launcher finishes a phase for every thread of the block before the next begins.
//
// Files that launch kernels are compiled by nvcc in a CUDA build (CMake's
// vela_kernel_sources() marks them), so both launchers exist there.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "vela/device/runtime.h"
#include "vela/device/subnormals.h"
#include "vela/device/types.h"

#if defined(VELA_WITH_CUDA) && !defined(__CUDACC__)
#error "A file that launches kernels must be compiled by nvcc in a CUDA build: list it in vela_kernel_sources()."
#endif

#if defined(_OPENMP)
#define VELA_PRAGMA_OMP(text) _Pragma(#text)
#else
#define VELA_PRAGMA_OMP(text)
#endif

namespace vela::device {

// What a thread knows about itself, as CUDA's built-in variables say it.
struct Thread {
    uint3 threadIdx;
    uint3 blockIdx;
    dim3 blockDim;
    dim3 gridDim;
};

// Ceiling of n / d for launch shapes.
VELA_HD constexpr unsigned int blocksFor(unsigned int n, unsigned int d) { return (n + d - 1) / d; }

// The device limits a launch is checked against on the host backend (those of
// every GPU the cuda backend supports).
constexpr unsigned int kMaxThreadsPerBlock = 1024;
constexpr unsigned int kMaxBlockDim[3] = {1024, 1024, 64};
constexpr unsigned int kMaxGridDim[3] = {2147483647u, 65535, 65535};

inline bool validLaunchShape(dim3 grid, dim3 block) {
    if (grid.x == 0 || grid.y == 0 || grid.z == 0 || block.x == 0 || block.y == 0 || block.z == 0) return false;
    if (block.x > kMaxBlockDim[0] || block.y > kMaxBlockDim[1] || block.z > kMaxBlockDim[2]) return false;
    if (grid.x > kMaxGridDim[0] || grid.y > kMaxGridDim[1] || grid.z > kMaxGridDim[2]) return false;
    return static_cast<unsigned long long>(block.x) * block.y * block.z <= kMaxThreadsPerBlock;
}

// How the host launcher may schedule a kernel's blocks over its OS threads.
enum class HostOrder {
    // Any block on any thread at any time: the blocks of one launch share no
    // element that one of them writes.  The default.
    Any,
    // For kernels whose blocks read what the blocks of the neighbouring grid
    // rows write in the same launch (a GPU tolerates that ordering freedom; a
    // CPU would race).  Each grid row (blocks of one y and z) runs on one OS
    // thread, its blocks in order of x, and all rows of even y before all rows
    // of odd y: no two threads touch the same element, and the result is one a
    // GPU could also produce, the same for any number of threads.
    RowWaves,
};
// A kernel chooses with  static constexpr vela::device::HostOrder hostOrder = ...;

namespace detail {

template <class K, class = void>
struct IsPhased : std::false_type {};
template <class K>
struct IsPhased<K, std::void_t<decltype(K::phases)>> : std::true_type {};

template <class K, bool = IsPhased<K>::value>
struct LocalOfImpl {
    struct type {};
};
template <class K>
struct LocalOfImpl<K, true> {
    using type = typename K::Local;
};
template <class K>
using LocalOf = typename LocalOfImpl<K>::type;

template <class K, class = void>
struct HostOrderOf {
    static constexpr HostOrder value = HostOrder::Any;
};
template <class K>
struct HostOrderOf<K, std::void_t<decltype(K::hostOrder)>> {
    static constexpr HostOrder value = K::hostOrder;
};

// A kernel may declare `static constexpr bool flushSubnormals = true;`: on the
// host backend its blocks then run with subnormal floats (below 1.2e-38) read
// and written as zero.  CPUs compute on them many times slower, and iterative
// solvers whose values decay towards zero far from their sources (the random
// walker's probabilities) meet them by the million; a GPU computes on them at
// full speed, so the cuda backend keeps them.  Only for kernels whose results
// no value that small can change.
template <class K, class = void>
struct FlushesSubnormals {
    static constexpr bool value = false;
};
template <class K>
struct FlushesSubnormals<K, std::void_t<decltype(K::flushSubnormals)>> {
    static constexpr bool value = K::flushSubnormals;
};

// VELA_DEBUG_SYNC=1 makes every launch wait for its kernel and log its shape and
// status on standard error, so an asynchronous fault points at its launcher.
bool debugSyncEnabled();
void debugSyncAfterLaunch(const char* kernel, dim3 grid, dim3 block);

#if defined(__CUDACC__)
template <class K, class... Args>
__global__ void cudaEntry(Args... args) {
    const Thread t{threadIdx, blockIdx, blockDim, gridDim};
    if constexpr (IsPhased<K>::value) {
        __shared__ typename K::Shared shared;
        typename K::Local local;
#pragma unroll
        for (int phase = 0; phase < K::phases; ++phase) {
            if (phase > 0) __syncthreads();
            K{}(phase, t, shared, local, args...);
        }
    } else {
        K{}(t, args...);
    }
}
#endif

// Runs all threads of the block t.blockIdx, phase after phase.
template <class K, class... Args>
void runBlock(Thread& t, LocalOf<K>* locals, const Args&... args) {
    const dim3 block = t.blockDim;
    if constexpr (IsPhased<K>::value) {
        typename K::Shared shared;
        for (int phase = 0; phase < K::phases; ++phase) {
            std::size_t i = 0;
            for (t.threadIdx.z = 0; t.threadIdx.z < block.z; ++t.threadIdx.z)
                for (t.threadIdx.y = 0; t.threadIdx.y < block.y; ++t.threadIdx.y)
                    for (t.threadIdx.x = 0; t.threadIdx.x < block.x; ++t.threadIdx.x)
                        K{}(phase, t, shared, locals[i++], args...);
        }
    } else {
        (void)locals;
        for (t.threadIdx.z = 0; t.threadIdx.z < block.z; ++t.threadIdx.z)
            for (t.threadIdx.y = 0; t.threadIdx.y < block.y; ++t.threadIdx.y)
                for (t.threadIdx.x = 0; t.threadIdx.x < block.x; ++t.threadIdx.x) K{}(t, args...);
    }
}

// Runs the grid's blocks over the OpenMP threads in the order the kernel allows.
template <class K, class... Args>
void hostLaunch(dim3 grid, dim3 block, const Args&... args) {
    const std::size_t threads = static_cast<std::size_t>(block.x) * block.y * block.z;
    auto start = [&](Thread& t) {
        t = Thread{};
        t.blockDim = block;
        t.gridDim = grid;
    };
    if constexpr (HostOrderOf<K>::value == HostOrder::RowWaves) {
        for (unsigned int z = 0; z < grid.z; ++z) {
            for (long long parity = 0; parity < 2; ++parity) {
                VELA_PRAGMA_OMP(omp parallel) {
                    const SubnormalsFlushed mode(FlushesSubnormals<K>::value);
                    // Per OS thread, not per block: reused by every block it runs.
                    std::vector<LocalOf<K>> locals(IsPhased<K>::value ? threads : 0);
                    VELA_PRAGMA_OMP(omp for schedule(static))
                    for (long long row = parity; row < static_cast<long long>(grid.y); row += 2) {
                        Thread t;
                        start(t);
                        t.blockIdx.y = static_cast<unsigned int>(row);
                        t.blockIdx.z = z;
                        for (t.blockIdx.x = 0; t.blockIdx.x < grid.x; ++t.blockIdx.x)
                            runBlock<K>(t, locals.data(), args...);
                    }
                }
            }
        }
    } else {
        const long long blocks = static_cast<long long>(grid.x) * grid.y * grid.z;
        VELA_PRAGMA_OMP(omp parallel) {
            const SubnormalsFlushed mode(FlushesSubnormals<K>::value);
            std::vector<LocalOf<K>> locals(IsPhased<K>::value ? threads : 0);
            VELA_PRAGMA_OMP(omp for schedule(static))
            for (long long b = 0; b < blocks; ++b) {
                Thread t;
                start(t);
                t.blockIdx.x = static_cast<unsigned int>(b % grid.x);
                t.blockIdx.y = static_cast<unsigned int>((b / grid.x) % grid.y);
                t.blockIdx.z = static_cast<unsigned int>(b / (static_cast<long long>(grid.x) * grid.y));
                runBlock<K>(t, locals.data(), args...);
            }
        }
    }
}

}  // namespace detail

// Launches K over `grid` blocks of `block` threads on `stream`.  A shape the
// device cannot run sets the last error to "invalid configuration argument" and
// runs nothing, on both backends.  Launches are asynchronous on the cuda backend
// and complete before returning on the host backend.
template <class K, class... Args>
void launch(dim3 grid, dim3 block, cudaStream_t stream, const Args&... args) {
    // Checked here rather than left to the driver, whose error for a bad shape
    // differs between versions.
    if (!validLaunchShape(grid, block)) {
        setLastError(cudaErrorInvalidConfiguration);
        return;
    }
#if defined(__CUDACC__)
    if (usesCuda()) {
        detail::cudaEntry<K, Args...><<<grid, block, 0, stream>>>(args...);
        if (detail::debugSyncEnabled()) detail::debugSyncAfterLaunch(typeid(K).name(), grid, block);
        return;
    }
#endif
    (void)stream;
    detail::hostLaunch<K>(grid, block, args...);
    if (detail::debugSyncEnabled()) detail::debugSyncAfterLaunch(typeid(K).name(), grid, block);
}

// For work whose host form differs from its kernels in schedule only, never in
// result (a vectorised sweep of the same per-pixel steps, say): `onHost` runs on
// the host backend and `onDevice` on the cuda backend, so code above this
// layer supplies both and never asks which backend runs.
template <class OnHost, class OnDevice>
void hostOrDevice(OnHost&& onHost, OnDevice&& onDevice) {
    if (usesCuda())
        onDevice();
    else
        onHost();
}

}  // namespace vela::device
