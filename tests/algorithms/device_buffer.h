// Test helper: a 4-D array whose whole allocation, row padding included, is
// first filled with a mark, so tests see both the elements an operation
// writes and the bytes it must leave alone.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "vela/tools.h"

namespace vela_test {

constexpr unsigned char kPaddingMark = 0xA5;

template <class T>
struct DeviceBuffer {
    vela::Array<T, 4> a{};

    // A device array in `layout`, or a (packed) host array.
    DeviceBuffer(uint4 extents, vela::MemLayout layout, bool device = true) {
        a = device ? vela::mallocDeviceArray<T>(extents, layout)
                   : vela::mallocHostArray<T>(extents, vela::LINEAR_LAYOUT);
        mark();
    }
    DeviceBuffer(const DeviceBuffer&) = delete;
    DeviceBuffer& operator=(const DeviceBuffer&) = delete;
    ~DeviceBuffer() { vela::freeArray(a); }

    std::size_t count() const { return std::size_t{a.extents.x} * a.extents.y * a.extents.z * a.extents.w; }

    // The whole allocation as rows of strides.y bytes, copied to or from `bytes`.
    void raw(std::vector<unsigned char>& bytes, bool toDevice) const {
        const unsigned int rows = a.extents.y * a.extents.z * a.extents.w;
        bytes.resize(std::size_t{a.strides.y} * rows, kPaddingMark);
        vela::Array<unsigned char, 2> whole{reinterpret_cast<unsigned char*>(a.data), make_uint2(1, a.strides.y),
                                            make_uint2(a.strides.y, rows), a.device};
        auto host = vela::arrayFromHostMemory(bytes.data(), whole.extents);
        toDevice ? vela::arrayCopy(whole, host) : vela::arrayCopy(host, whole);
    }

    void mark() {
        std::vector<unsigned char> bytes;
        raw(bytes, true);
    }

    // Elements in x-fastest order, staged through a plain buffer since
    // std::vector<bool> has no contiguous storage.
    void upload(const std::vector<T>& values) {
        std::unique_ptr<T[]> staging(new T[count()]);
        std::copy(values.begin(), values.end(), staging.get());
        auto host = vela::internal::wrapHost(staging.get(), a.extents);
        vela::arrayCopy(a, host);
    }
    std::vector<T> download() const {
        std::unique_ptr<T[]> staging(new T[count()]);
        auto host = vela::internal::wrapHost(staging.get(), a.extents);
        vela::arrayCopy(host, a);
        return std::vector<T>(staging.get(), staging.get() + count());
    }

    // Whether every byte outside the elements still holds the mark.
    bool paddingIntact() const {
        std::vector<unsigned char> bytes;
        raw(bytes, false);
        for (std::size_t i = 0; i < bytes.size(); ++i)
            if (i % a.strides.y >= a.extents.x * sizeof(T) && bytes[i] != kPaddingMark) return false;
        return true;
    }
};

template <class F>
std::string messageOf(F&& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "<no exception>";
}

}  // namespace vela_test
