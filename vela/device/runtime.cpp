#include "vela/device/runtime.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vela/device/backend.h"
#include "vela/device/subnormals.h"

#if defined(__x86_64__) || defined(__i386__)
#include <xmmintrin.h>
#define VELA_HAVE_MXCSR 1
#endif

namespace vela::device {
namespace detail {
namespace {

struct Choice {
    Backend kind;
    std::unique_ptr<BackendImpl> impl;
};

[[noreturn]] void refuse(const std::string& line) {
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
    std::exit(1);
}

Choice choose() {
    const char* forced = std::getenv("VELA_DEVICE");
    std::string why;
    if (forced == nullptr || *forced == '\0') {
        if (auto cuda = makeCudaBackend(why)) return {Backend::Cuda, std::move(cuda)};
        return {Backend::Host, makeHostBackend()};
    }
    if (std::strcmp(forced, "host") == 0) return {Backend::Host, makeHostBackend()};
    if (std::strcmp(forced, "cuda") == 0) {
        if (auto cuda = makeCudaBackend(why)) return {Backend::Cuda, std::move(cuda)};
        refuse("VELA_DEVICE=cuda: no usable CUDA device: " + why);
    }
    refuse(std::string("VELA_DEVICE=") + forced + ": unknown backend (use \"host\" or \"cuda\")");
}

Choice& chosen() {
    static Choice choice = choose();
    return choice;
}

}  // namespace

BackendImpl& current() { return *chosen().impl; }

}  // namespace detail

Backend backend() { return detail::chosen().kind; }

const char* backendName(Backend b) { return b == Backend::Cuda ? "cuda" : "host"; }

int getDevice() { return detail::current().getDevice(); }
PitchedPtr malloc3D(std::size_t w, std::size_t h, std::size_t d) { return detail::current().malloc3D(w, h, d); }
void* mallocLinear(std::size_t bytes) { return detail::current().mallocLinear(bytes); }
void free(void* p) { detail::current().free(p); }
void memcpy3D(const Copy3D& copy) { detail::current().memcpy3D(copy); }
void synchronize() { detail::current().synchronize(); }
cudaError_t getLastError() { return detail::current().getLastError(); }
cudaError_t peekAtLastError() { return detail::current().peekAtLastError(); }
void setLastError(cudaError_t error) { detail::current().setLastError(error); }
const char* getErrorString(cudaError_t error) { return detail::current().getErrorString(error); }

Event eventCreate() { return static_cast<Event>(detail::current().eventCreate()); }
void eventRecord(Event e) { detail::current().eventRecord(e); }
void eventSynchronize(Event e) { detail::current().eventSynchronize(e); }
float eventElapsedTime(Event start, Event stop) { return detail::current().eventElapsedTime(start, stop); }
void eventDestroy(Event e) { detail::current().eventDestroy(e); }

// The SSE control bits: flush-to-zero (results) and denormals-are-zero (operands).
SubnormalsFlushed::SubnormalsFlushed(bool flush) : flush_(flush) {
#if defined(VELA_HAVE_MXCSR)
    if (!flush_) return;
    saved_ = _mm_getcsr();
    constexpr unsigned int kFlushToZero = 0x8000, kDenormalsAreZero = 0x0040;
    _mm_setcsr(saved_ | kFlushToZero | kDenormalsAreZero);
#endif
}

SubnormalsFlushed::~SubnormalsFlushed() {
#if defined(VELA_HAVE_MXCSR)
    if (flush_) _mm_setcsr(saved_);
#endif
}

}  // namespace vela::device

namespace vela::device::detail {

bool debugSyncEnabled() {
    static const bool enabled = [] {
        const char* v = std::getenv("VELA_DEBUG_SYNC");
        return v != nullptr && *v != '\0' && std::strcmp(v, "0") != 0;
    }();
    return enabled;
}

void debugSyncAfterLaunch(const char* kernel, dim3 grid, dim3 block) {
    synchronize();
    const cudaError_t status = peekAtLastError();
    std::fprintf(stderr, "launch %s<<<(%u, %u, %u), (%u, %u, %u)>>>: %s\n", kernel, grid.x, grid.y, grid.z, block.x,
                 block.y, block.z, getErrorString(status));
}

}  // namespace vela::device::detail
