// The interface both backends implement; only the runtime dispatcher and the two
// implementations see it.
#pragma once

#include <memory>
#include <string>

#include "vela/device/runtime.h"

namespace vela::device::detail {

class BackendImpl {
 public:
    virtual ~BackendImpl() = default;
    virtual int getDevice() = 0;
    virtual PitchedPtr malloc3D(std::size_t widthBytes, std::size_t height, std::size_t depth) = 0;
    virtual void* mallocLinear(std::size_t bytes) = 0;
    virtual void free(void* p) = 0;
    virtual void memcpy3D(const Copy3D& copy) = 0;
    virtual void synchronize() = 0;
    virtual cudaError_t getLastError() = 0;
    virtual cudaError_t peekAtLastError() = 0;
    virtual void setLastError(cudaError_t error) = 0;
    virtual const char* getErrorString(cudaError_t error) = 0;
    virtual void* eventCreate() = 0;
    virtual void eventRecord(void* e) = 0;
    virtual void eventSynchronize(void* e) = 0;
    virtual float eventElapsedTime(void* start, void* stop) = 0;
    virtual void eventDestroy(void* e) = 0;
};

std::unique_ptr<BackendImpl> makeHostBackend();
// Null, with the reason in `why`, when this build or machine has no usable GPU.
std::unique_ptr<BackendImpl> makeCudaBackend(std::string& why);

BackendImpl& current();

}  // namespace vela::device::detail
