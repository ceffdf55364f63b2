#include "src/driver/label_map.h"

#include <stdexcept>

#include "vela/access.h"
#include "vela/algorithms/scalar_cast.h"

namespace {

uint4 extents4(const vela::Array<float, 3>& a) { return make_uint4(a.extents.x, a.extents.y, a.extents.z, 1u); }
uint4 extents4(const vela::Array<float4, 1>& a) { return make_uint4(a.extents.x, 1u, 1u, 1u); }

// A host copy of `a` (linear rows), released with the object.
template <class T, int M>
struct HostCopy {
    vela::Array<T, M> a;
    explicit HostCopy(const vela::Array<T, M>& source)
        : a(vela::internal::decreaseArrayDimension<T, 4, M>(
              vela::mallocHostArray<T>(extents4(source), vela::LINEAR_LAYOUT))) {
        vela::arrayCopy(a, source);
    }
    ~HostCopy() { vela::freeArray(a); }
    HostCopy(const HostCopy&) = delete;
    HostCopy& operator=(const HostCopy&) = delete;
};

}  // namespace

std::vector<std::uint8_t> labelNumbers(const vela::Array<float, 3>& u, const std::vector<int>& labelIds) {
    if (u.extents.z != labelIds.size() || labelIds.empty())
        throw std::runtime_error("label map: the labelling has " + std::to_string(u.extents.z) + " layers for " +
                                 std::to_string(labelIds.size()) + " labels");
    for (int id : labelIds)
        if (id < 0 || id > 255) throw std::runtime_error("label map: label " + std::to_string(id) + " is not a byte");
    const HostCopy<float, 3> host(u);
    const unsigned int w = u.extents.x, h = u.extents.y, layers = u.extents.z;
    std::vector<std::uint8_t> numbers(static_cast<std::size_t>(w) * h);
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            unsigned int best = 0;
            for (unsigned int k = 1; k < layers; ++k)
                if (vela::at(host.a, x, y, k) > vela::at(host.a, x, y, best)) best = k;
            numbers[static_cast<std::size_t>(y) * w + x] = static_cast<std::uint8_t>(labelIds[best]);
        }
    return numbers;
}

std::vector<std::uint8_t> paletteBytes(const vela::Array<float4, 1>& colorCode) {
    const HostCopy<float4, 1> host(colorCode);
    std::vector<std::uint8_t> bytes;
    for (unsigned int i = 0; i < colorCode.extents.x; ++i) {
        const float4 c = vela::at(host.a, i);
        for (float v : {c.x, c.y, c.z}) bytes.push_back(vela::internal::lowByte(v));
    }
    return bytes;
}
