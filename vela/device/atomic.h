// Atomic integer addition inside kernels, on both backends.  Integer sums do
// not depend on the order in which threads add, so a kernel that counts with
// these gives the same counts on every backend and every run.
#pragma once

#include "vela/device/types.h"

namespace vela::device {

// Adds `value` to *address as one indivisible step; returns the old value.
VELA_HD inline int addAtomic(int* address, int value) {
#if defined(__CUDA_ARCH__)
    return ::atomicAdd(address, value);
#else
    // The host backend runs blocks on several OS threads at once.
    return __atomic_fetch_add(address, value, __ATOMIC_RELAXED);
#endif
}

}  // namespace vela::device
