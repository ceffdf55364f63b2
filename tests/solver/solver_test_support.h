// What the solver tests share: host grids in label-major order, their device
// round trips, seeded random contents, and comparison with tolerance.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "src/PDseg.h"
#include "src/engine_arrays.h"
#include "src/frame.h"

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

// A pitched device copy of a grid, 2-D (N = 2, one layer) or 3-D.
template <int N, class T>
vela::Array<T, N> toDevice(Grid<T> g) {
    auto d = vela::mallocDeviceArray<T>(make_uint4(g.W, g.H, g.L, 1), vela::PITCHED_LAYOUT);
    vela::arrayCopy(
        d, vela::internal::increaseArrayDimension(vela::arrayFromHostMemory(g.data.data(), make_uint3(g.W, g.H, g.L))));
    return vela::internal::decreaseArrayDimension<T, 4, N>(d);
}
template <int N, class T>
seg::ScopedArray<T, N> upload(const Grid<T>& g) {
    return seg::ScopedArray<T, N>(toDevice<N>(g));
}

template <class T, int N>
Grid<T> toHost(const vela::Array<T, N>& a) {
    Grid<T> g(a.extents.x, a.extents.y, N == 3 ? vela::internal::component(a.extents, 2) : 1);
    auto view = vela::arrayFromHostMemory(g.data.data(), make_uint3(g.W, g.H, g.L));
    auto dst = vela::internal::increaseArrayDimension(view);
    vela::arrayCopy(dst, vela::internal::increaseArrayDimension(a));
    return g;
}

// The tests' random numbers come from one stream.  A test whose assertions
// hold for its particular noise restarts it, so that what it draws does not
// depend on which tests ran before it (a filter on the command line).
inline std::mt19937& randomEngine() {
    static std::mt19937 engine(20240611u);
    return engine;
}
inline void restartRandom(unsigned int seed) { randomEngine().seed(seed); }

inline float uniform(float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(randomEngine()); }

// Every component of every element uniform in [lo, hi).
template <class T = float>
Grid<T> randomGrid(unsigned int w, unsigned int h, unsigned int l, float lo, float hi) {
    Grid<T> g(w, h, l);
    for (auto& v : g.data)
        for (std::size_t c = 0; c < sizeof(T) / sizeof(float); ++c) reinterpret_cast<float*>(&v)[c] = uniform(lo, hi);
    return g;
}

// Element by element, component by component, within abs + |want| * rel; on
// failure the number of mismatches and the first of them.
template <class T>
::testing::AssertionResult near(const Grid<T>& got, const Grid<T>& want, float abs = 1e-6f, float rel = 1e-5f) {
    if (got.W != want.W || got.H != want.H || got.L != want.L) return ::testing::AssertionFailure() << "shapes differ";
    const std::size_t k = sizeof(T) / sizeof(float);
    const float *a = reinterpret_cast<const float*>(got.data.data()),
                *b = reinterpret_cast<const float*>(want.data.data());
    std::size_t bad = 0, first = 0;
    for (std::size_t i = 0; i < want.data.size() * k; ++i)
        if (!(std::fabs(a[i] - b[i]) <= abs + std::fabs(b[i]) * rel) && bad++ == 0) first = i;
    if (bad == 0) return ::testing::AssertionSuccess();
    const std::size_t e = first / k;
    return ::testing::AssertionFailure() << bad << " mismatches, the first at (" << e % want.W << ", "
                                         << e / want.W % want.H << ", " << e / want.W / want.H << ")[" << first % k
                                         << "]: got " << a[first] << ", want " << b[first];
}

template <class T>
bool sameBytes(const Grid<T>& a, const Grid<T>& b) {
    return a.data.size() == b.data.size() && std::memcmp(a.data.data(), b.data.data(), a.data.size() * sizeof(T)) == 0;
}

// The solver object that releases its colour tables too, as a frame does.
using ScopedPDseg = FrameSolver;

// Runs the enclosing scope in a fresh temporary directory, removed afterwards:
// the tensor models write "imageGradient.ppm" into the working directory.
struct ScratchDir {
    std::filesystem::path previous = std::filesystem::current_path(),
                          path = std::filesystem::temp_directory_path() / ("solver_test_" + std::to_string(getpid()));
    ScratchDir() {
        std::filesystem::create_directory(path);
        std::filesystem::current_path(path);
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::current_path(previous, ignored);
        std::filesystem::remove_all(path, ignored);
    }
};

inline std::string fileBytes(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace solvertest
