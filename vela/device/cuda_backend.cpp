// The cuda backend: a thin pass-through to the CUDA runtime.  Compiled only in
// builds made with the CUDA toolkit.
#include <cuda_runtime.h>

#include <atomic>
#include <string>

#include "vela/device/backend.h"

namespace vela::device::detail {
namespace {

class CudaBackend final : public BackendImpl {
 public:
    int getDevice() override {
        int device = 0;
        cudaGetDevice(&device);
        return device;
    }

    PitchedPtr malloc3D(std::size_t widthBytes, std::size_t height, std::size_t depth) override {
        cudaPitchedPtr p{};
        cudaMalloc3D(&p, make_cudaExtent(widthBytes, height, depth));
        return PitchedPtr{p.ptr, p.pitch, p.xsize, p.ysize};
    }

    void* mallocLinear(std::size_t bytes) override {
        void* p = nullptr;
        cudaMalloc(&p, bytes);
        return p;
    }

    void free(void* p) override { cudaFree(p); }

    void memcpy3D(const Copy3D& c) override {
        cudaMemcpy3DParms parms{};
        parms.srcPtr = make_cudaPitchedPtr(const_cast<void*>(c.src.ptr), c.src.pitch, c.src.xsize, c.src.ysize);
        parms.dstPtr = make_cudaPitchedPtr(c.dst.ptr, c.dst.pitch, c.dst.xsize, c.dst.ysize);
        parms.extent = make_cudaExtent(c.width, c.height, c.depth);
        parms.kind = c.kind;
        cudaMemcpy3D(&parms);
    }

    void synchronize() override { cudaDeviceSynchronize(); }

    // The runtime's last error has no setter: an error this layer finds itself
    // (a launch shape no device can run, say) waits here and is reported
    // before the runtime's own.
    cudaError_t getLastError() override {
        const cudaError_t own = pending_.exchange(cudaSuccess);
        const cudaError_t runtime = cudaGetLastError();
        return own != cudaSuccess ? own : runtime;
    }
    cudaError_t peekAtLastError() override {
        const cudaError_t own = pending_.load();
        return own != cudaSuccess ? own : cudaPeekAtLastError();
    }
    void setLastError(cudaError_t error) override { pending_.store(error); }
    const char* getErrorString(cudaError_t error) override { return cudaGetErrorString(error); }

    void* eventCreate() override {
        cudaEvent_t e = nullptr;
        cudaEventCreateWithFlags(&e, cudaEventDefault);
        return e;
    }
    void eventRecord(void* e) override { cudaEventRecord(static_cast<cudaEvent_t>(e), 0); }
    void eventSynchronize(void* e) override { cudaEventSynchronize(static_cast<cudaEvent_t>(e)); }
    float eventElapsedTime(void* start, void* stop) override {
        float ms = 0.0f;
        cudaEventElapsedTime(&ms, static_cast<cudaEvent_t>(start), static_cast<cudaEvent_t>(stop));
        return ms;
    }
    void eventDestroy(void* e) override { cudaEventDestroy(static_cast<cudaEvent_t>(e)); }

 private:
    std::atomic<cudaError_t> pending_{cudaSuccess};
};

}  // namespace

std::unique_ptr<BackendImpl> makeCudaBackend(std::string& why) {
    int count = 0;
    const cudaError_t status = cudaGetDeviceCount(&count);
    if (status != cudaSuccess) {
        why = cudaGetErrorString(status);
        cudaGetLastError();  // the probe's failure is not the program's error
        return nullptr;
    }
    if (count == 0) {
        why = "no CUDA-capable device is detected";
        return nullptr;
    }
    return std::make_unique<CudaBackend>();
}

}  // namespace vela::device::detail
