#include "vela/device/launch.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/message_of.h"
#include "vela/access.h"
#include "vela/tools.h"

namespace {

using vela::Array;
using vela::device::Thread;

// Counts how often each element of a 3-D array is visited.
struct count_visits_kernel {
    VELA_HD void operator()(const Thread& t, Array<int, 3> a) const {
        const unsigned x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        const unsigned z = t.blockIdx.z * t.blockDim.z + t.threadIdx.z;
        if (x < a.extents.x && y < a.extents.y && z < a.extents.z) vela::at(a, x, y, z) += 1;
    }
};

// Each thread stores a value in block-shared memory; after the barrier it reads
// its right neighbour's (wrapping around) and a tree sum of the whole block.
struct rotate_and_sum_kernel {
    static constexpr int kThreads = 64;
    struct Shared {
        float value[kThreads];
        float sum[kThreads];
    };
    struct Local {
        float mine;
    };
    // Phase 0 loads, phases 1..6 halve the sum, phase 7 writes out.
    static constexpr int phases = 8;

    VELA_HD void operator()(int phase, const Thread& t, Shared& s, Local& l, Array<float, 1> in,
                            Array<float, 1> rotated, Array<float, 1> sums) const {
        const unsigned tid = t.threadIdx.x;
        const unsigned x = t.blockIdx.x * t.blockDim.x + tid;
        if (phase == 0) {
            l.mine = x < in.extents.x ? vela::at(in, x) : 0.0f;
            s.value[tid] = l.mine;
            s.sum[tid] = l.mine;
        } else if (phase < 7) {
            const unsigned half = kThreads >> phase;
            if (tid < half) s.sum[tid] += s.sum[tid + half];
        } else {
            if (x < in.extents.x) vela::at(rotated, x) = s.value[(tid + 1) % kThreads] - l.mine;
            if (tid == 0) vela::at(sums, t.blockIdx.x) = s.sum[0];
        }
    }
};

Array<int, 3> deviceCounts(unsigned w, unsigned h, unsigned d) {
    auto a = vela::internal::decreaseArrayDimension<int, 4, 3>(
        vela::mallocDeviceArray<int>(make_uint4(w, h, d, 1), vela::PITCHED_LAYOUT));
    auto zeros = vela::mallocHostArray<int>(make_uint4(w, h, d, 1), vela::LINEAR_LAYOUT);
    std::fill(zeros.data, zeros.data + w * h * d, 0);
    auto z3 = vela::internal::decreaseArrayDimension<int, 4, 3>(zeros);
    vela::arrayCopy(a, z3);
    vela::freeArray(zeros);
    return a;
}

std::vector<int> toHost(const Array<int, 3>& a) {
    std::vector<int> out(a.extents.x * a.extents.y * a.extents.z);
    auto h = vela::arrayFromHostMemory(out.data(), a.extents);
    vela::arrayCopy(h, a);
    return out;
}

TEST(Launch, EveryElementIsVisitedOnceWithPartialBlocks) {
    for (auto size : {make_uint3(1, 1, 1), make_uint3(33, 5, 3), make_uint3(1000, 1, 1), make_uint3(37, 129, 2)}) {
        auto a = deviceCounts(size.x, size.y, size.z);
        const dim3 block(32, 4, 1);
        const dim3 grid(vela::device::blocksFor(size.x, 32), vela::device::blocksFor(size.y, 4), size.z);
        vela::device::launch<count_visits_kernel>(grid, block, nullptr, a);
        vela::_CHECK_CUDA_ERROR("launch_test", __LINE__);
        for (int visits : toHost(a)) ASSERT_EQ(visits, 1) << size.x << "x" << size.y << "x" << size.z;
        vela::freeArray(a);
    }
}

TEST(Launch, ShapesTheDeviceCannotRunSetTheLastError) {
    auto a = deviceCounts(4, 4, 1);
    const dim3 bad[][2] = {
        {dim3(0, 1, 1), dim3(32, 1, 1)},     // empty grid
        {dim3(1, 1, 1), dim3(0, 1, 1)},      // empty block
        {dim3(1, 1, 1), dim3(1025, 1, 1)},   // too many threads
        {dim3(1, 1, 1), dim3(32, 33, 1)},    // 1056 threads
        {dim3(1, 1, 1), dim3(1, 1, 65)},     // block z over its limit
        {dim3(1, 65536, 1), dim3(1, 1, 1)},  // grid y over its limit
    };
    for (const auto& shape : bad) {
        vela::device::launch<count_visits_kernel>(shape[0], shape[1], nullptr, a);
        EXPECT_EQ(messageOf([] { vela::_CHECK_CUDA_ERROR("src/PDseg", 1483); }),
                  "src/PDseg:1483: cuda error: invalid configuration argument\n");
    }
    for (int visits : toHost(a)) EXPECT_EQ(visits, 0) << "a refused launch runs nothing";
    EXPECT_NO_THROW(vela::_CHECK_CUDA_ERROR("src/PDseg", 1483));
    vela::freeArray(a);
}

TEST(Launch, PhasesSeeEveryThreadsWritesFromThePreviousPhase) {
    const unsigned n = 200;  // four blocks, the last partial
    auto in = vela::internal::decreaseArrayDimension<float, 4, 1>(
        vela::mallocDeviceArray<float>(make_uint4(n, 1, 1, 1), vela::LINEAR_LAYOUT));
    auto rotated = vela::internal::decreaseArrayDimension<float, 4, 1>(
        vela::mallocDeviceArray<float>(make_uint4(n, 1, 1, 1), vela::LINEAR_LAYOUT));
    auto sums = vela::internal::decreaseArrayDimension<float, 4, 1>(
        vela::mallocDeviceArray<float>(make_uint4(4, 1, 1, 1), vela::LINEAR_LAYOUT));
    std::vector<float> values(n);
    for (unsigned i = 0; i < n; ++i) values[i] = static_cast<float>(i * i % 17);
    auto hostIn = vela::internal::decreaseArrayDimension<float, 4, 1>(
        vela::internal::increaseArrayDimension(vela::arrayFromHostMemory(values.data(), make_uint2(n, 1))));
    vela::arrayCopy(in, hostIn);

    vela::device::launch<rotate_and_sum_kernel>(dim3(4), dim3(64), nullptr, in, rotated, sums);
    vela::_CHECK_CUDA_ERROR("launch_test", __LINE__);

    std::vector<float> gotRotated(n), gotSums(4);
    auto hr = vela::internal::decreaseArrayDimension<float, 4, 1>(
        vela::internal::increaseArrayDimension(vela::arrayFromHostMemory(gotRotated.data(), make_uint2(n, 1))));
    auto hs = vela::internal::decreaseArrayDimension<float, 4, 1>(
        vela::internal::increaseArrayDimension(vela::arrayFromHostMemory(gotSums.data(), make_uint2(4, 1))));
    vela::arrayCopy(hr, rotated);
    vela::arrayCopy(hs, sums);

    for (unsigned b = 0; b < 4; ++b) {
        float expected = 0;
        for (unsigned i = b * 64; i < std::min(n, b * 64 + 64); ++i) expected += values[i];
        EXPECT_EQ(gotSums[b], expected) << "block " << b;
    }
    for (unsigned i = 0; i < n; ++i) {
        const unsigned next = (i % 64 == 63) ? i - 63 : i + 1;
        const float neighbour = next < n ? values[next] : 0.0f;
        ASSERT_EQ(gotRotated[i], neighbour - values[i]) << "element " << i;
    }
    vela::freeArray(in);
    vela::freeArray(rotated);
    vela::freeArray(sums);
}

TEST(ErrorCheck, PassesQuietlyWithoutAnError) {
    vela::device::getLastError();
    EXPECT_NO_THROW(vela::_CHECK_CUDA_ERROR("vela/tools", 49));
}

}  // namespace
