#include "vela/tools.h"

#include <cstdio>
#include <sstream>

namespace vela {

void _CHECK_CUDA_ERROR(const char* file, int line) {
    const cudaError_t error = device::getLastError();
    if (error == cudaSuccess) return;
    char text[1024];
    std::snprintf(text, sizeof text, "%s:%d: cuda error: %s\n", file, line, device::getErrorString(error));
    throw std::runtime_error(text);
}

namespace internal {
namespace {
template <class V>
std::string joinExtents(const V& e, int n) {
    std::ostringstream out;
    out << "(";
    for (int i = 0; i < n; ++i) out << (i ? ", " : "") << component(e, i);
    out << ")";
    return out.str();
}
}  // namespace

std::string str_extents(uint1 e) { return joinExtents(e, 1); }
std::string str_extents(uint2 e) { return joinExtents(e, 2); }
std::string str_extents(uint3 e) { return joinExtents(e, 3); }
std::string str_extents(uint4 e) { return joinExtents(e, 4); }

void throwCannotDecrease(int targetDimension, uint4 extents) {
    std::ostringstream out;
    out << "decreaseArrayDimension: Cannot decrease source array dimension.\n"
        << " source dimension is " << 4 << " "
        << " target dimension is " << targetDimension << ". "
        << " source array extents are " << str_extents(extents);
    throw std::runtime_error(out.str());
}

void throwExtentsMismatch(const std::string& src, const std::string& dst) {
    throw std::runtime_error("arrayCopy: extents mismatch\n src extents are " + src + " dst extents are " + dst);
}

cudaMemcpyKind copyKind(int srcDevice, int dstDevice) {
    const bool srcOnDevice = srcDevice != kHostDevice;
    const bool dstOnDevice = dstDevice != kHostDevice;
    if (srcOnDevice && dstOnDevice) return cudaMemcpyDeviceToDevice;
    if (srcOnDevice) return cudaMemcpyDeviceToHost;
    if (dstOnDevice) return cudaMemcpyHostToDevice;
    return cudaMemcpyHostToHost;
}

void throwBlockOutOfBounds(uint4 extents, const Range (&r)[4]) {
    std::ostringstream out;
    out << "block: block range is out of bounds.\n array extents are " << str_extents(extents) << ", ranges are [";
    for (int i = 0; i < 4; ++i) out << (i ? ", " : "") << r[i].begin << "-" << r[i].end;
    out << "]";
    throw std::runtime_error(out.str());
}

}  // namespace internal
}  // namespace vela
