// Helpers shared by the engine tests.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/PDseg.h"
#include "src/engine_arrays.h"
#include "src/frame.h"
#include "tests/support/message_of.h"

namespace enginetest {

using Image = seg::ScopedArray<float4, 2>;

template <class T>
vela::Array<T, 2> upload(std::vector<T> pixels, unsigned int w, unsigned int h) {
    vela::Array<T, 2> d = seg::deviceArray2D<T>(w, h);
    vela::arrayCopy(d, vela::arrayFromHostMemory(pixels.data(), make_uint2(w, h)));
    return d;
}

// Element (x, y, l) lands at (l * H + y) * W + x.
template <class T, int N>
std::vector<T> download(const vela::Array<T, N>& a) {
    const vela::Array<T, 4> a4 = vela::internal::increaseArrayDimension(a);
    std::vector<T> out(static_cast<std::size_t>(a4.extents.x) * a4.extents.y * a4.extents.z);
    auto host = vela::arrayFromHostMemory(out.data(), make_uint3(a4.extents.x, a4.extents.y, a4.extents.z));
    if (!out.empty()) vela::arrayCopy(host, vela::internal::decreaseArrayDimension<T, 4, 3>(a4));
    return out;
}

// Also releases the colour tables the engine leaves to the process's end, so
// that leak checks see only real leaks.
// The solver object that releases its colour tables too, as a frame does.
using ScopedPDseg = FrameSolver;

inline bool same(const float4& a, const float4& b) { return a.x == b.x && a.y == b.y && a.z == b.z && a.w == b.w; }

// Runs the enclosing scope in a fresh scratch directory, removed afterwards.
struct ScratchDir {
    std::filesystem::path previous = std::filesystem::current_path(), path;
    ScratchDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "engine_test_XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a scratch directory");
        std::filesystem::current_path(path = pattern);
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::current_path(previous, ignored);
        std::filesystem::remove_all(path, ignored);
    }
};

}  // namespace enginetest
