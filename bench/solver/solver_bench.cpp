// One solver iteration on a 640 x 480 frame: model 1 (the dual and the primal
// step) and model 2 (the fused step), for 2 to 32 labels.
//
// Counters:
//   ns/px/label  time per pixel, label and iteration
//   MB/iter      bytes one iteration must move: every array it reads read
//                once, every array it writes written once (model 1:
//                36 L + 4 bytes per pixel, model 2: 28 L + 4)
//   vs_copy      measured time / time to move MB/iter by a plain copy, both
//                counted as bytes read plus bytes written; the copy runs in the
//                same process between two buffers the size of the working set
//                (on the host backend with the same OpenMP threads)
//
// The fields start from 10 iterations of the model on a synthetic frame, so
// the simplex projections meet the value patterns of a real solve.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "src/engine_arrays.h"
#include "src/solver/edge_weights.h"
#include "src/solver/ops.h"
#include "vela/algorithms/basic.h"
#include "vela/device/runtime.h"
#include "vela/tools.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned int kWidth = 640;
constexpr unsigned int kHeight = 480;
constexpr double kPixels = static_cast<double>(kWidth) * kHeight;

template <class T>
void upload(const vela::Array<T, 3>& dst, std::vector<T>& values) {
    auto d = dst;
    vela::arrayCopy(d, vela::arrayFromHostMemory(values.data(), d.extents));
}

// The solver's arrays for one frame: blocky regions with noise, labels on 5%
// of the pixels, weights from the standard diffusivity.
struct Frame {
    unsigned int L;
    vela::Array<float, 3> u, ubar, f;
    vela::Array<float2, 3> p;
    vela::Array<float, 2> g;

    explicit Frame(unsigned int labels) : L(labels) {
        std::mt19937 rng(7);
        std::uniform_real_distribution<float> noise(-8.0f, 8.0f);
        auto regionOf = [&](unsigned int x, unsigned int y) { return (x / 97 + 3 * (y / 83)) % L; };
        std::vector<float4> image(kWidth * kHeight);
        for (unsigned int y = 0; y < kHeight; ++y)
            for (unsigned int x = 0; x < kWidth; ++x) {
                const float base = 30.0f + 200.0f * static_cast<float>(regionOf(x, y)) / static_cast<float>(L);
                image[y * kWidth + x] = make_float4(base + noise(rng), 255 - base + noise(rng), base + noise(rng), 255);
            }
        for (auto& px : image) px = make_float4(px.x / 255, px.y / 255, px.z / 255, 1);
        std::vector<float> cost(static_cast<std::size_t>(kWidth) * kHeight * L, 0.0f);
        for (unsigned int y = 0; y < kHeight; ++y)
            for (unsigned int x = 0; x < kWidth; ++x) {
                if (rng() % 20 != 0) continue;
                for (unsigned int l = 0; l < L; ++l)
                    cost[(static_cast<std::size_t>(l) * kHeight + y) * kWidth + x] = l == regionOf(x, y) ? 0.0f : 1.0f;
            }
        u = seg::deviceArray3D<float>(kWidth, kHeight, L);
        ubar = seg::deviceArray3D<float>(kWidth, kHeight, L);
        f = seg::deviceArray3D<float>(kWidth, kHeight, L);
        p = seg::deviceArray3D<float2>(kWidth, kHeight, L);
        g = seg::deviceArray2D<float>(kWidth, kHeight);
        upload(f, cost);
        vela::Array<float4, 2> colour = seg::deviceArray2D<float4>(kWidth, kHeight);
        vela::arrayCopy(colour, vela::arrayFromHostMemory(image.data(), make_uint2(kWidth, kHeight)));
        seg::imageDiffusivity_STD(g, colour);
        vela::freeArray(colour);
        auto u4 = vela::internal::increaseArrayDimension(u);
        auto ubar4 = vela::internal::increaseArrayDimension(ubar);
        auto p4 = vela::internal::increaseArrayDimension(p);
        vela::set(u4, 1.0f / static_cast<float>(L));
        vela::set(ubar4, 0.0f);
        vela::set(p4, make_float2(0, 0));
    }
    ~Frame() {
        vela::freeArray(u);
        vela::freeArray(ubar);
        vela::freeArray(f);
        vela::freeArray(p);
        vela::freeArray(g);
    }

    void iterate(int model) const {
        if (model == 1) {
            seg::weighted_tv_iteration(p, u, ubar, f, g, 1.25f, 0.1f, 10.0f);
        } else {
            seg::update_fast(u, f, p, g, 0.1f, 1.25f, 10.0f);
        }
    }
};

// Seconds per byte moved (read + written) by a plain copy between two buffers
// of `bytes` each: the best of 20 runs, so that a busy machine disturbs it least.
double copySecondsPerByte(std::size_t bytes) {
    double best = 1e30;
    if (vela::device::usesCuda()) {
        const unsigned int n = static_cast<unsigned int>(bytes / sizeof(float));
        auto a = vela::mallocDeviceArray<float>(make_uint4(n, 1, 1, 1), vela::LINEAR_LAYOUT);
        auto b = vela::mallocDeviceArray<float>(make_uint4(n, 1, 1, 1), vela::LINEAR_LAYOUT);
        vela::set(a, 0.0f);
        for (int run = 0; run < 20; ++run) {
            const auto start = Clock::now();
            vela::arrayCopy(b, a);
            vela::device::synchronize();
            best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
        }
        vela::freeArray(a);
        vela::freeArray(b);
    } else {
        std::vector<char> a(bytes, 1), b(bytes, 0);
        for (int run = 0; run < 20; ++run) {
            const auto start = Clock::now();
#pragma omp parallel
            {
                const std::size_t parts = static_cast<std::size_t>(omp_get_num_threads());
                const std::size_t me = static_cast<std::size_t>(omp_get_thread_num());
                const std::size_t begin = bytes * me / parts, end = bytes * (me + 1) / parts;
                std::memcpy(b.data() + begin, a.data() + begin, end - begin);
            }
            best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
        }
        benchmark::DoNotOptimize(b.data());
    }
    return best / (2.0 * static_cast<double>(bytes));
}

void BM_Iteration(benchmark::State& state) {
    const int model = static_cast<int>(state.range(0));
    const unsigned int L = static_cast<unsigned int>(state.range(1));
    seg::setHostSweep(state.range(2) == 0 ? seg::HostSweep::Rows : seg::HostSweep::Threads);
    Frame frame(L);
    for (int i = 0; i < 10; ++i) frame.iterate(model);
    vela::device::synchronize();

    const double bytesPerPixel = model == 1 ? 36.0 * L + 4 : 28.0 * L + 4;
    const double workingSetPerPixel = model == 1 ? 20.0 * L + 4 : 16.0 * L + 4;
    const double copySeconds = copySecondsPerByte(static_cast<std::size_t>(workingSetPerPixel * kPixels));

    const auto start = Clock::now();
    for (auto _ : state) {
        frame.iterate(model);
        vela::device::synchronize();
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count() / state.iterations();
    vela::_CHECK_CUDA_ERROR("solver_bench", __LINE__);
    seg::setHostSweep(seg::HostSweep::Rows);

    const double bytes = bytesPerPixel * kPixels;
    state.counters["ns/px/label"] = seconds * 1e9 / (kPixels * L);
    state.counters["MB/iter"] = bytes / 1e6;
    state.counters["vs_copy"] = seconds / (bytes * copySeconds);
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes) * state.iterations());
    state.SetLabel(vela::device::backendName(vela::device::backend()));
}

void iterationArguments(benchmark::internal::Benchmark* b) {
    b->ArgNames({"model", "L", "per_thread"});
    for (int model : {1, 2})
        for (int L : {2, 4, 8, 16, 32}) b->Args({model, L, 0});
    // Model 1 through the per-thread kernel bodies on the host, for comparison.
    for (int L : {4, 16}) b->Args({1, L, 1});
}
BENCHMARK(BM_Iteration)->Apply(iterationArguments)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
