// What the solver tests share: host grids in label-major order, their device
// round trips, seeded random contents, and comparison with tolerance.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/PDseg.h"
#include "src/engine_arrays.h"
#include "vela/tools.h"

namespace solvertest {

// W x H x L values, element (x, y, l) at (l * H + y) * W + x.
template <class T>
struct Grid {
    unsigned int W = 0, H = 0, L = 1;
    std::vector<T> data;

    Grid() = default;
    Grid(unsigned int w, unsigned int h, unsigned int l = 1, T value = T{})
        : W(w), H(h), L(l), data(static_cast<std::size_t>(w) * h * l, value) {}
    T& operator()(unsigned int x, unsigned int y, unsigned int l = 0) {
        return data[(static_cast<std::size_t>(l) * H + y) * W + x];
    }
    const T& operator()(unsigned int x, unsigned int y, unsigned int l = 0) const {
        return data[(static_cast<std::size_t>(l) * H + y) * W + x];
    }
};

// A pitched device array that releases itself.
template <class T, int N>
struct DeviceArray {
    vela::Array<T, N> a{};
    DeviceArray() = default;
    explicit DeviceArray(const vela::Array<T, N>& array) : a(array) {}
    DeviceArray(const DeviceArray&) = delete;
    DeviceArray& operator=(const DeviceArray&) = delete;
    ~DeviceArray() { vela::freeArray(a); }
};

// A pitched device copy of a grid, 2-D (N = 2, one layer) or 3-D.
template <int N, class T>
vela::Array<T, N> toDevice(const Grid<T>& g) {
    auto d = vela::mallocDeviceArray<T>(make_uint4(g.W, g.H, g.L, 1), vela::PITCHED_LAYOUT);
    Grid<T> copy = g;
    auto src =
        vela::internal::increaseArrayDimension(vela::arrayFromHostMemory(copy.data.data(), make_uint3(g.W, g.H, g.L)));
    vela::arrayCopy(d, src);
    return vela::internal::decreaseArrayDimension<T, 4, N>(d);
}
template <class T>
vela::Array<T, 3> toDevice3(const Grid<T>& g) {
    return toDevice<3>(g);
}
template <class T>
vela::Array<T, 2> toDevice2(const Grid<T>& g) {
    return toDevice<2>(g);
}

template <class T, int N>
Grid<T> toHost(const vela::Array<T, N>& a) {
    const unsigned int l = N == 3 ? vela::internal::component(a.extents, 2) : 1;
    Grid<T> g(a.extents.x, a.extents.y, l);
    auto view = vela::arrayFromHostMemory(g.data.data(), make_uint3(g.W, g.H, g.L));
    auto whole = vela::internal::increaseArrayDimension(a);
    auto dst = vela::internal::increaseArrayDimension(view);
    vela::arrayCopy(dst, whole);
    return g;
}

inline std::mt19937& rng() {
    static std::mt19937 engine(20240611u);
    return engine;
}

inline float uniform(float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(rng()); }

inline Grid<float> randomGrid(unsigned int w, unsigned int h, unsigned int l, float lo, float hi) {
    Grid<float> g(w, h, l);
    for (auto& v : g.data) v = uniform(lo, hi);
    return g;
}

inline Grid<float2> randomDuals(unsigned int w, unsigned int h, unsigned int l, float bound) {
    Grid<float2> g(w, h, l);
    for (auto& v : g.data) v = make_float2(uniform(-bound, bound), uniform(-bound, bound));
    return g;
}

// Relaxed labellings: non-negative, summing to 1 per pixel.
inline Grid<float> randomLabelling(unsigned int w, unsigned int h, unsigned int l) {
    Grid<float> g = randomGrid(w, h, l, 0.0f, 1.0f);
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            float sum = 0;
            for (unsigned int k = 0; k < l; ++k) sum += g(x, y, k);
            for (unsigned int k = 0; k < l; ++k) g(x, y, k) /= sum;
        }
    return g;
}

// Compares element by element with tolerance abs + |ref| * rel.  On failure the
// message lists the first mismatches and the largest difference.
struct Tolerance {
    float abs = 1e-6f;
    float rel = 1e-5f;
};

inline void components(float v, std::vector<float>& out) { out.push_back(v); }
inline void components(float2 v, std::vector<float>& out) { out.insert(out.end(), {v.x, v.y}); }
inline void components(float4 v, std::vector<float>& out) { out.insert(out.end(), {v.x, v.y, v.z, v.w}); }

template <class T>
::testing::AssertionResult near(const Grid<T>& got, const Grid<T>& ref, Tolerance tol = {}) {
    if (got.W != ref.W || got.H != ref.H || got.L != ref.L) return ::testing::AssertionFailure() << "shapes differ";
    std::ostringstream first;
    int mismatches = 0;
    double largest = 0;
    std::size_t i = 0;
    for (unsigned int l = 0; l < ref.L; ++l)
        for (unsigned int y = 0; y < ref.H; ++y)
            for (unsigned int x = 0; x < ref.W; ++x, ++i) {
                std::vector<float> a, b;
                components(got.data[i], a);
                components(ref.data[i], b);
                for (std::size_t c = 0; c < a.size(); ++c) {
                    const double diff = std::fabs(static_cast<double>(a[c]) - b[c]);
                    const bool bad = !(diff <= tol.abs + std::fabs(b[c]) * tol.rel);
                    if (diff > largest || std::isnan(diff)) largest = std::isnan(diff) ? INFINITY : diff;
                    if (bad && mismatches++ < 5)
                        first << "\n  (" << x << ", " << y << ", " << l << ")[" << c << "]: got " << a[c] << ", want "
                              << b[c];
                }
            }
    if (mismatches == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << mismatches << " mismatches in " << ref.W << " x " << ref.H << " x " << ref.L
                                         << ", largest difference " << largest << first.str();
}

template <class T>
bool sameBytes(const Grid<T>& a, const Grid<T>& b) {
    return a.data.size() == b.data.size() && std::memcmp(a.data.data(), b.data.data(), a.data.size() * sizeof(T)) == 0;
}

// A PDseg that also releases the colour tables the engine keeps to the
// process's end, so that leak checks see only real leaks.
struct ScopedPDseg : PDseg {
    using PDseg::PDseg;
    ~ScopedPDseg() {
        vela::freeArray(colorCode);
        vela::freeArray(labelColors);
    }
};

// Runs the enclosing scope in a fresh temporary directory, removed afterwards:
// the solver writes "imageGradient.ppm" into the working directory.
class ScratchDir {
 public:
    ScratchDir() : previous_(std::filesystem::current_path()) {
        std::string pattern = (std::filesystem::temp_directory_path() / "solver_test_XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temporary directory");
        path_ = pattern;
        std::filesystem::current_path(path_);
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::current_path(previous_, ignored);
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

 private:
    std::filesystem::path previous_, path_;
};

// The file's bytes, empty if it cannot be read.
inline std::string fileBytes(const std::string& name) {
    std::string bytes;
    if (FILE* f = std::fopen(name.c_str(), "rb")) {
        char buffer[4096];
        std::size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) bytes.append(buffer, n);
        std::fclose(f);
    }
    return bytes;
}

}  // namespace solvertest
