// Test helper: a 4-D array whose whole allocation, row padding included, is
// first filled with a mark, so tests see both the elements an operation
// writes and the bytes it must leave alone.
#pragma once

#include <exception>
#include <string>
#include <vector>

#include "tests/support/message_of.h"
#include "vela/tools.h"

namespace vela_test {

constexpr unsigned char kPaddingMark = 0xA5;

template <class T>
struct DeviceBuffer {
    vela::Array<T, 4> a{};
    // Views of `a` as planes and as an image, where its extents allow them.
    vela::Array<T, 3> a3{};
    vela::Array<T, 2> a2{};

    // A device array in `layout`, or a (packed) host array.
    DeviceBuffer(uint4 extents, vela::MemLayout layout, bool device = true) {
        a = device ? vela::mallocDeviceArray<T>(extents, layout)
                   : vela::mallocHostArray<T>(extents, vela::LINEAR_LAYOUT);
        if (extents.w == 1) a3 = vela::internal::decreaseArrayDimension<T, 4, 3>(a);
        if (extents.w == 1 && extents.z == 1) a2 = vela::internal::decreaseArrayDimension<T, 4, 2>(a);
        mark();
    }
    DeviceBuffer(const DeviceBuffer&) = delete;
    DeviceBuffer& operator=(const DeviceBuffer&) = delete;
    ~DeviceBuffer() { vela::freeArray(a); }

    std::size_t count() const { return std::size_t{a.extents.x} * a.extents.y * a.extents.z * a.extents.w; }

    // The whole allocation as rows of strides.y bytes, first set to the mark
    // throughout when `fill`.
    std::vector<unsigned char> raw(bool fill) const {
        const unsigned int rows = a.extents.y * a.extents.z * a.extents.w;
        std::vector<unsigned char> bytes(std::size_t{a.strides.y} * rows, kPaddingMark);
        vela::Array<unsigned char, 2> whole{reinterpret_cast<unsigned char*>(a.data), make_uint2(1, a.strides.y),
                                            make_uint2(a.strides.y, rows), a.device};
        auto host = vela::arrayFromHostMemory(bytes.data(), whole.extents);
        fill ? vela::arrayCopy(whole, host) : vela::arrayCopy(host, whole);
        return bytes;
    }
    void mark() { raw(true); }

    // Elements in x-fastest order; missing ones are zero.
    void upload(std::vector<T> values) {
        values.resize(count());
        vela::arrayCopy(a, vela::internal::wrapHost(values.data(), a.extents));
    }
    std::vector<T> download() const {
        std::vector<T> values(count());
        auto host = vela::internal::wrapHost(values.data(), a.extents);
        vela::arrayCopy(host, a);
        return values;
    }

    // Whether every byte outside the elements still holds the mark.
    bool paddingIntact() const {
        const std::vector<unsigned char> bytes = raw(false);
        for (std::size_t i = 0; i < bytes.size(); ++i)
            if (i % a.strides.y >= a.extents.x * sizeof(T) && bytes[i] != kPaddingMark) return false;
        return true;
    }
};

}  // namespace vela_test
