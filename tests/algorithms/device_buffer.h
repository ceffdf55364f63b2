// Test helper: a 4-D array whose whole allocation, row padding included, can be
// marked, uploaded and inspected, so tests see both the elements an operation
// writes and the bytes it must leave alone.
#pragma once

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "vela/access.h"
#include "vela/tools.h"

namespace vela_test {

constexpr unsigned char kPaddingMark = 0xA5;

template <class T>
struct DeviceBuffer {
    vela::Array<T, 4> a{};

    // device: allocate with `layout` on the device; otherwise a host array.
    DeviceBuffer(uint4 extents, vela::MemLayout layout, bool device = true) {
        a = device ? vela::mallocDeviceArray<T>(extents, layout)
                   : vela::mallocHostArray<T>(extents, vela::LINEAR_LAYOUT);
        mark();
    }
    DeviceBuffer(const DeviceBuffer&) = delete;
    DeviceBuffer& operator=(const DeviceBuffer&) = delete;
    ~DeviceBuffer() { vela::freeArray(a); }

    unsigned int rows() const { return a.extents.y * a.extents.z * a.extents.w; }
    std::size_t count() const {
        return static_cast<std::size_t>(a.extents.x) * a.extents.y * a.extents.z * a.extents.w;
    }

    // The whole allocation as rows of strides.y bytes.
    vela::Array<unsigned char, 2> rawView() const {
        vela::Array<unsigned char, 2> v{};
        v.data = reinterpret_cast<unsigned char*>(a.data);
        v.device = a.device;
        v.strides = make_uint2(1, a.strides.y);
        v.extents = make_uint2(a.strides.y, rows());
        return v;
    }

    std::vector<unsigned char> raw() const {
        std::vector<unsigned char> bytes(static_cast<std::size_t>(a.strides.y) * rows());
        auto host = vela::arrayFromHostMemory(bytes.data(), make_uint2(a.strides.y, rows()));
        vela::arrayCopy(host, rawView());
        return bytes;
    }

    // Fills every byte of the allocation with the padding mark.
    void mark() {
        std::vector<unsigned char> bytes(static_cast<std::size_t>(a.strides.y) * rows(), kPaddingMark);
        auto host = vela::arrayFromHostMemory(bytes.data(), make_uint2(a.strides.y, rows()));
        auto v = rawView();
        vela::arrayCopy(v, host);
    }

    // Elements in x-fastest order.  (Staged through a plain buffer, since
    // std::vector<bool> has no contiguous storage.)
    void upload(const std::vector<T>& values) {
        std::unique_ptr<T[]> staging(new T[count()]);
        std::copy(values.begin(), values.end(), staging.get());
        auto host = hostView(staging.get());
        vela::arrayCopy(a, host);
    }
    std::vector<T> download() const {
        std::unique_ptr<T[]> staging(new T[count()]);
        auto host = hostView(staging.get());
        vela::arrayCopy(host, a);
        return std::vector<T>(staging.get(), staging.get() + count());
    }

    // Whether every byte outside the elements still holds the padding mark.
    bool paddingIntact() const {
        const std::vector<unsigned char> bytes = raw();
        const std::size_t used = static_cast<std::size_t>(a.extents.x) * sizeof(T);
        for (unsigned int r = 0; r < rows(); ++r)
            for (std::size_t i = used; i < a.strides.y; ++i)
                if (bytes[static_cast<std::size_t>(r) * a.strides.y + i] != kPaddingMark) return false;
        return true;
    }

 private:
    vela::Array<T, 4> hostView(T* p) const {
        auto v = vela::internal::wrapHost(p, a.extents);
        return v;
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
