// Helpers shared by the engine tests: moving small images to and from the
// device, owning test arrays, and running in a scratch directory.
#pragma once

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/PDseg.h"
#include "src/engine_arrays.h"
#include "vela/tools.h"

namespace enginetest {

// A W x H device image holding `pixels` (row-major).
template <class T>
vela::Array<T, 2> upload(std::vector<T> pixels, unsigned int w, unsigned int h) {
    vela::Array<T, 2> d = seg::deviceArray2D<T>(w, h);
    vela::arrayCopy(d, vela::arrayFromHostMemory(pixels.data(), make_uint2(w, h)));
    return d;
}

template <class T>
std::vector<T> download(const vela::Array<T, 2>& a) {
    std::vector<T> out(static_cast<std::size_t>(a.extents.x) * a.extents.y);
    auto h = vela::arrayFromHostMemory(out.data(), make_uint2(a.extents.x, a.extents.y));
    vela::arrayCopy(h, a);
    return out;
}

// Element (x, y, l) lands at (l * H + y) * W + x.
template <class T>
std::vector<T> download(const vela::Array<T, 3>& a) {
    std::vector<T> out(static_cast<std::size_t>(a.extents.x) * a.extents.y * a.extents.z);
    if (out.empty()) return out;
    auto h = vela::arrayFromHostMemory(out.data(), a.extents);
    vela::arrayCopy(h, a);
    return out;
}

// A PDseg that also releases the colour tables the engine leaves to the
// process's end, so that leak checks see only real leaks.
struct ScopedPDseg : PDseg {
    using PDseg::PDseg;
    ~ScopedPDseg() {
        vela::freeArray(colorCode);
        vela::freeArray(labelColors);
    }
};

// Runs the enclosing scope in a fresh scratch directory and removes it after.
class ScratchDir {
 public:
    ScratchDir() : previous_(std::filesystem::current_path()) {
        std::string pattern = (std::filesystem::temp_directory_path() / "engine_test_XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a scratch directory");
        path_ = pattern;
        std::filesystem::current_path(path_);
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::current_path(previous_, ignored);
        std::filesystem::remove_all(path_, ignored);
    }
    const std::filesystem::path& path() const { return path_; }

 private:
    std::filesystem::path previous_;
    std::filesystem::path path_;
};

inline bool sameColour(const float4& a, const float4& b) {
    return a.x == b.x && a.y == b.y && a.z == b.z && a.w == b.w;
}

}  // namespace enginetest
