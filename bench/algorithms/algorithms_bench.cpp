// Throughput of the array algorithms on one 640 x 480 frame: the conversion of
// a colour image into planes, the same conversion on host arrays (the frame
// loader's path), and an elementwise multiplication by a scalar.  Bytes
// processed count every byte read and written.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>

#include "vela/algorithms/basic.h"
#include "vela/algorithms/conversion.h"
#include "vela/device/runtime.h"
#include "vela/tools.h"

namespace {

constexpr unsigned int kWidth = 640;
constexpr unsigned int kHeight = 480;
constexpr std::int64_t kPixels = static_cast<std::int64_t>(kWidth) * kHeight;

template <class T, int N>
vela::Array<T, N> narrow(const vela::Array<T, 4>& a) {
    return vela::internal::decreaseArrayDimension<T, 4, N>(a);
}

void BM_ConvertFloat4ImageToPlanes(benchmark::State& state) {
    auto image = vela::mallocDeviceArray<float4>(make_uint4(kWidth, kHeight, 1, 1), vela::PITCHED_LAYOUT);
    auto planes = vela::mallocDeviceArray<float>(make_uint4(kWidth, kHeight, 3, 1), vela::PITCHED_LAYOUT);
    auto in = narrow<float4, 2>(image);
    auto out = narrow<float, 3>(planes);
    for (auto _ : state) {
        vela::convert(out, in, nullptr);
        vela::device::synchronize();
    }
    state.SetBytesProcessed(state.iterations() * kPixels * (sizeof(float4) + 3 * sizeof(float)));
    vela::freeArray(image);
    vela::freeArray(planes);
}
BENCHMARK(BM_ConvertFloat4ImageToPlanes)->Unit(benchmark::kMicrosecond);

void BM_ConvertHostPlanesToFloat4Image(benchmark::State& state) {
    auto planes = vela::mallocHostArray<float>(make_uint4(kWidth, kHeight, 3, 1), vela::LINEAR_LAYOUT);
    auto image = vela::mallocHostArray<float4>(make_uint4(kWidth, kHeight, 1, 1), vela::LINEAR_LAYOUT);
    std::fill(planes.data, planes.data + 3 * kPixels, 1.0f);
    auto in = narrow<float, 3>(planes);
    auto out = narrow<float4, 2>(image);
    for (auto _ : state) {
        vela::convert(out, in, 255.0f, nullptr);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kPixels * (3 * sizeof(float) + sizeof(float4)));
    vela::freeArray(planes);
    vela::freeArray(image);
}
BENCHMARK(BM_ConvertHostPlanesToFloat4Image)->Unit(benchmark::kMicrosecond);

void BM_MulByScalar(benchmark::State& state) {
    auto a = vela::mallocDeviceArray<float>(make_uint4(kWidth, kHeight, 1, 1), vela::PITCHED_LAYOUT);
    vela::set(a, 1.0f);
    for (auto _ : state) {
        vela::mul(a, 1.0001f, nullptr);
        vela::device::synchronize();
    }
    state.SetBytesProcessed(state.iterations() * kPixels * 2 * sizeof(float));
    vela::freeArray(a);
}
BENCHMARK(BM_MulByScalar)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
