// Stand-in for the cuda backend in builds made without the CUDA toolkit.
#include "vela/device/backend.h"

namespace vela::device::detail {

std::unique_ptr<BackendImpl> makeCudaBackend(std::string& why) {
    why = "this build was made without CUDA";
    return nullptr;
}

}  // namespace vela::device::detail
