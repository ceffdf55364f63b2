// The device runtime: everything the system needs from a GPU runtime, offered
// the same way whichever backend runs.  The backend is chosen once per process:
//   - "cuda": the CUDA runtime on a real GPU (only in builds made with nvcc);
//   - "host": device memory is host memory and kernels run on CPU threads.
// A CUDA build uses the GPU when one is present and the host backend otherwise;
// the environment variable VELA_DEVICE=host|cuda forces one.
//
// Like the CUDA runtime, failures are not returned: they set the last error,
// which getLastError() reads and clears.
#pragma once

#include <cstddef>

#include "vela/device/types.h"

namespace vela::device {

enum class Backend { Host, Cuda };

// The backend of this process.  The first call makes the choice; an unusable
// forced choice prints one line on standard error and ends the process.
Backend backend();
const char* backendName(Backend b);
inline bool usesCuda() { return backend() == Backend::Cuda; }

// Row padding of pitched host-backend allocations, like a GPU's.
constexpr std::size_t kHostPitchAlignment = 512;

struct PitchedPtr {
    void* ptr;
    std::size_t pitch;  // bytes per row
    std::size_t xsize;  // bytes of elements per row
    std::size_t ysize;  // rows per slice
};

struct Copy3D {
    PitchedPtr src;
    PitchedPtr dst;
    std::size_t width;   // bytes per row to copy
    std::size_t height;  // rows per slice
    std::size_t depth;   // slices
    cudaMemcpyKind kind;
};

int getDevice();
PitchedPtr malloc3D(std::size_t widthBytes, std::size_t height, std::size_t depth);
void* mallocLinear(std::size_t bytes);
void free(void* p);
// Synchronous copy of `depth` slices of `height` rows; slice k of a side starts
// at ptr + k * pitch * ysize.
void memcpy3D(const Copy3D& copy);
void synchronize();

cudaError_t getLastError();     // returns and clears the last error
cudaError_t peekAtLastError();  // returns it and leaves it set
void setLastError(cudaError_t error);
const char* getErrorString(cudaError_t error);

// Events time device work: on the cuda backend they are recorded in the default
// stream, on the host backend they read a steady clock.
struct EventRecord;
using Event = EventRecord*;
Event eventCreate();
void eventRecord(Event e);
void eventSynchronize(Event e);
float eventElapsedTime(Event start, Event stop);  // milliseconds
void eventDestroy(Event e);

}  // namespace vela::device
