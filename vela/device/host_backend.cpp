// The host backend: "device" memory is host memory with GPU-like row padding,
// copies are memcpy, and errors follow the CUDA runtime's codes and texts so
// that tests see the same behaviour on either backend.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "vela/device/backend.h"
#include "vela/device/block_cache.h"

namespace vela::device::detail {
namespace {

using Clock = std::chrono::steady_clock;

struct HostEvent {
    Clock::time_point when;
    bool recorded;
};

bool multiplyOverflows(std::size_t a, std::size_t b, std::size_t& out) {
    if (a != 0 && b > std::numeric_limits<std::size_t>::max() / a) return true;
    out = a * b;
    return false;
}

// Blocks of at least 128 KiB, glibc's first threshold for mapping a block
// on its own, are kept for reuse, up to 256 MiB, and each for 256 requests
// (a 320 x 240 frame of a video makes about 50).
constexpr std::size_t kSmallestKept = 128 * 1024;
constexpr std::size_t kMostKept = 256 * 1024 * 1024;
constexpr std::uint64_t kKeptRequests = 256;

void releaseBlock(void* p) { std::free(p); }

class HostBackend final : public BackendImpl {
 public:
    int getDevice() override { return 0; }

    PitchedPtr malloc3D(std::size_t widthBytes, std::size_t height, std::size_t depth) override {
        PitchedPtr result{nullptr, 0, widthBytes, height};
        const std::size_t pitch = (widthBytes + kHostPitchAlignment - 1) / kHostPitchAlignment * kHostPitchAlignment;
        std::size_t rows = 0, bytes = 0;
        if (widthBytes == 0 || height == 0 || depth == 0) return result;  // CUDA returns a null pointer too
        if (multiplyOverflows(height, depth, rows) || multiplyOverflows(rows, pitch, bytes)) {
            setLastError(cudaErrorMemoryAllocation);
            return result;
        }
        result.ptr = allocate(bytes);
        if (result.ptr != nullptr) result.pitch = pitch;
        return result;
    }

    void* mallocLinear(std::size_t bytes) override {
        if (bytes == 0) return nullptr;
        return allocate(bytes);
    }

    void free(void* p) override { cache_.free(p); }

    void memcpy3D(const Copy3D& c) override {
        if (c.width == 0 || c.height == 0 || c.depth == 0) return;
        if (c.src.ptr == nullptr || c.dst.ptr == nullptr) {
            setLastError(cudaErrorInvalidValue);
            return;
        }
        if (c.width > c.src.pitch || c.width > c.dst.pitch) {
            setLastError(cudaErrorInvalidPitchValue);
            return;
        }
        const auto* src = static_cast<const unsigned char*>(c.src.ptr);
        auto* dst = static_cast<unsigned char*>(c.dst.ptr);
        const std::size_t srcSlice = c.src.pitch * c.src.ysize;
        const std::size_t dstSlice = c.dst.pitch * c.dst.ysize;
        for (std::size_t z = 0; z < c.depth; ++z)
            for (std::size_t y = 0; y < c.height; ++y)
                std::memmove(dst + z * dstSlice + y * c.dst.pitch, src + z * srcSlice + y * c.src.pitch, c.width);
    }

    void synchronize() override {}  // host launches are synchronous

    cudaError_t getLastError() override { return lastError_.exchange(cudaSuccess); }
    cudaError_t peekAtLastError() override { return lastError_.load(); }
    void setLastError(cudaError_t error) override { lastError_.store(error); }

    const char* getErrorString(cudaError_t error) override {
        switch (error) {
            case cudaSuccess:
                return "no error";
            case cudaErrorInvalidValue:
                return "invalid argument";
            case cudaErrorMemoryAllocation:
                return "out of memory";
            case cudaErrorInvalidConfiguration:
                return "invalid configuration argument";
            case cudaErrorInvalidPitchValue:
                return "invalid pitch argument";
            case cudaErrorInvalidDevicePointer:
                return "invalid device pointer";
            case cudaErrorNoDevice:
                return "no CUDA-capable device is detected";
            case cudaErrorInvalidResourceHandle:
                return "invalid resource handle";
            default:
                return "unrecognized error code";
        }
    }

    void* eventCreate() override { return new HostEvent{Clock::now(), false}; }
    void eventRecord(void* e) override {
        auto* event = static_cast<HostEvent*>(e);
        event->when = Clock::now();
        event->recorded = true;
    }
    void eventSynchronize(void*) override {}
    float eventElapsedTime(void* start, void* stop) override {
        auto* a = static_cast<HostEvent*>(start);
        auto* b = static_cast<HostEvent*>(stop);
        if (!a->recorded || !b->recorded) {
            setLastError(cudaErrorInvalidResourceHandle);
            return 0.0f;
        }
        return std::chrono::duration<float, std::milli>(b->when - a->when).count();
    }
    void eventDestroy(void* e) override { delete static_cast<HostEvent*>(e); }

 private:
    void* allocate(std::size_t bytes) {
        // Rounded up so that aligned_alloc accepts the size; 512-byte aligned
        // like the start of a GPU allocation.
        std::size_t rounded = 0;
        if (bytes > std::numeric_limits<std::size_t>::max() - kHostPitchAlignment) {
            setLastError(cudaErrorMemoryAllocation);
            return nullptr;
        }
        rounded = (bytes + kHostPitchAlignment - 1) / kHostPitchAlignment * kHostPitchAlignment;
        if (void* kept = cache_.take(rounded)) return kept;
        void* p = std::aligned_alloc(kHostPitchAlignment, rounded);
        if (p == nullptr) setLastError(cudaErrorMemoryAllocation);
        cache_.allocated(p, rounded);
        return p;
    }

    std::atomic<cudaError_t> lastError_{cudaSuccess};
    BlockCache cache_{kSmallestKept, kMostKept, kKeptRequests, releaseBlock};
};

}  // namespace

std::unique_ptr<BackendImpl> makeHostBackend() { return std::make_unique<HostBackend>(); }

}  // namespace vela::device::detail
