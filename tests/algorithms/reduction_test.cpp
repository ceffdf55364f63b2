#include "vela/algorithms/reduction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "tests/algorithms/device_buffer.h"

namespace {

using vela::Array;
using vela_test::DeviceBuffer;
using vela_test::messageOf;

template <class T>
Array<T, 2> as2d(const Array<T, 4>& a) {
    return vela::internal::decreaseArrayDimension<T, 4, 2>(a);
}

// One tile, a second tile holding a single element, partial tiles in both
// directions, exact multiples of the tile, and a full frame.
const uint2 kSizes[] = {make_uint2(1, 1),   make_uint2(33, 1),  make_uint2(1, 33),  make_uint2(32, 32),
                        make_uint2(33, 33), make_uint2(70, 45), make_uint2(64, 96), make_uint2(640, 480)};

// Values in [lo, hi] with the extremes placed at `minAt` and `maxAt`.  The
// padding mark of the device buffers lies outside [lo, hi] for every type
// tested, so a read of row padding shows in the result.
template <class T>
std::vector<T> values(std::size_t n, T lo, T hi, std::size_t minAt, std::size_t maxAt, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.25, 0.75);
    std::vector<T> v(n);
    for (auto& e : v) e = static_cast<T>(static_cast<double>(lo) + u(rng) * (static_cast<double>(hi) - lo));
    v[maxAt] = hi;
    v[minAt] = lo;
    return v;
}

template <class T>
class MinMaxTest : public ::testing::Test {};
using ReducedTypes = ::testing::Types<int, unsigned char, float, double>;
TYPED_TEST_SUITE(MinMaxTest, ReducedTypes);

TYPED_TEST(MinMaxTest, FindsTheExtremesWhereverTheyLie) {
    using T = TypeParam;
    // 0xA5 padding: 165 as a byte, about -1.5e9 as int, a tiny negative float
    // or double; the ranges below keep clear of each.
    const T lo = std::is_same_v<T, unsigned char> ? T(3) : T(1);
    const T hi = std::is_same_v<T, unsigned char> ? T(120) : T(1000);
    for (const uint2 s : kSizes) {
        for (const auto layout : {vela::PITCHED_LAYOUT, vela::LINEAR_LAYOUT}) {
            DeviceBuffer<T> a(make_uint4(s.x, s.y, 1, 1), layout);
            const std::size_t n = a.count();
            // first and last element, then two arbitrary positions
            const std::size_t places[][2] = {{0, n - 1}, {n - 1, 0}, {n / 3, (2 * n) / 3}};
            for (const auto& p : places) {
                SCOPED_TRACE(vela::internal::str_extents(s) + " min at " + std::to_string(p[0]) + " max at " +
                             std::to_string(p[1]));
                a.upload(values<T>(n, lo, hi, p[0], p[1], s.x * 31 + s.y));
                auto a2 = as2d(a.a);
                EXPECT_EQ(vela::Min(a2, nullptr), lo);
                EXPECT_EQ(vela::Max(a2, nullptr), n > 1 ? hi : lo);  // one element holds the minimum
            }
        }
    }
}

TEST(MinMax, PairsHoldTheMinimumAndMaximum) {
    DeviceBuffer<float> f(make_uint4(70, 45, 1, 1), vela::PITCHED_LAYOUT);
    std::vector<float> v(f.count(), 2.0f);
    v[1234] = -3.5f;
    v[3149] = 7.0f;
    f.upload(v);
    auto f2 = as2d(f.a);
    const float2 r = vela::MinMax(f2, nullptr);
    EXPECT_EQ(r.x, -3.5f);
    EXPECT_EQ(r.y, 7.0f);

    DeviceBuffer<int> i(make_uint4(33, 1, 1, 1), vela::PITCHED_LAYOUT);
    std::vector<int> iv(33, 5);
    iv[32] = -40;  // alone in the second tile
    i.upload(iv);
    auto i2 = as2d(i.a);
    const int2 ri = vela::MinMax(i2);
    EXPECT_EQ(ri.x, -40);
    EXPECT_EQ(ri.y, 5);

    DeviceBuffer<unsigned char> u(make_uint4(1, 1, 1, 1), vela::PITCHED_LAYOUT);
    u.upload({42});
    auto u2 = as2d(u.a);
    const uchar2 ru = vela::MinMax(u2);
    EXPECT_EQ(ru.x, 42);
    EXPECT_EQ(ru.y, 42);
}

TEST(MinMax, NaNsAmongFiniteValuesAreIgnored) {
    DeviceBuffer<float> f(make_uint4(70, 40, 1, 1), vela::PITCHED_LAYOUT);
    std::vector<float> v(f.count(), 1.0f);
    for (std::size_t k = 0; k < v.size(); k += 7) v[k] = NAN;  // includes element (0, 0)
    for (unsigned y = 0; y < 32; ++y)
        for (unsigned x = 32; x < 64; ++x) v[y * 70 + x] = NAN;  // one whole tile
    v[69 * 1 + 70 * 39] = -2.0f;                                 // last element
    v[71] = 9.0f;
    f.upload(v);
    auto f2 = as2d(f.a);
    EXPECT_EQ(vela::Min(f2, nullptr), -2.0f);
    EXPECT_EQ(vela::Max(f2, nullptr), 9.0f);
    const float2 r = vela::MinMax(f2, nullptr);
    EXPECT_EQ(r.x, -2.0f);
    EXPECT_EQ(r.y, 9.0f);

    DeviceBuffer<double> d(make_uint4(3, 1, 1, 1), vela::PITCHED_LAYOUT);
    d.upload({NAN, 4.0, NAN});
    auto d2 = as2d(d.a);
    EXPECT_EQ(vela::Min(d2, nullptr), 4.0);
}

// Shared tile slots of threads outside the array keep whatever an earlier
// block left there; a large earlier array makes such stale values stand out.
TEST(MinMax, PartialTilesNeverReadSlotsOutsideTheArray) {
    DeviceBuffer<int> big(make_uint4(256, 256, 1, 1), vela::PITCHED_LAYOUT);
    big.upload(std::vector<int>(big.count(), 1000));
    auto b2 = as2d(big.a);
    for (const uint2 s : {make_uint2(33, 33), make_uint2(5, 3), make_uint2(100, 37)}) {
        ASSERT_EQ(vela::Max(b2, nullptr), 1000);
        DeviceBuffer<int> small(make_uint4(s.x, s.y, 1, 1), vela::LINEAR_LAYOUT);
        small.upload(std::vector<int>(small.count(), 10));
        auto s2 = as2d(small.a);
        EXPECT_EQ(vela::Max(s2, nullptr), 10) << vela::internal::str_extents(s);
    }
}

TEST(MinMax, HostArraysAreRefused) {
    DeviceBuffer<float> host(make_uint4(4, 4, 1, 1), vela::LINEAR_LAYOUT, false);
    auto h2 = as2d(host.a);
    EXPECT_EQ(messageOf([&] { vela::Min(h2, nullptr); }), "memory of the array must be on the device");
    EXPECT_EQ(messageOf([&] { vela::MinMax(h2, nullptr); }), "memory of the array must be on the device");
}

}  // namespace
