#include "vela/algorithms/reduction.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "tests/algorithms/device_buffer.h"

namespace {

using vela_test::DeviceBuffer;

template <class T>
class MinMaxTest : public ::testing::Test {};
using ReducedTypes = ::testing::Types<int, unsigned char, float, double>;
TYPED_TEST_SUITE(MinMaxTest, ReducedTypes);

// One tile, a second tile holding one element, partial tiles each way, exact
// multiples of the tile and a full frame; the extremes first, last and
// anywhere.  Values avoid the 0xA5 padding mark read as T (165, about -1.5e9,
// or a tiny negative), so a read of row padding shows.
TYPED_TEST(MinMaxTest, FindsTheExtremesWhereverTheyLie) {
    using T = TypeParam;
    std::mt19937 rng(7);
    for (const uint2 s : {make_uint2(1, 1), make_uint2(33, 1), make_uint2(1, 33), make_uint2(32, 32),
                          make_uint2(33, 33), make_uint2(70, 45), make_uint2(640, 480)}) {
        for (const auto layout : {vela::PITCHED_LAYOUT, vela::LINEAR_LAYOUT}) {
            DeviceBuffer<T> a(make_uint4(s.x, s.y, 1, 1), layout);
            const std::size_t n = a.count();
            for (const std::size_t minAt : {std::size_t{0}, n - 1, n / 3}) {
                SCOPED_TRACE(vela::internal::str_extents(s) + " min at " + std::to_string(minAt));
                std::vector<T> v(n);
                for (auto& e : v) e = static_cast<T>(4 + rng() % 116);
                v[n - 1 - minAt] = T(120);
                v[minAt] = T(3);
                a.upload(v);
                EXPECT_EQ(vela::Min(a.a2, nullptr), T(3));
                EXPECT_EQ(vela::Max(a.a2, nullptr), T(n > 1 ? 120 : 3));
            }
        }
    }
}

TEST(MinMax, PairsIgnoreNaNsAmongFiniteValues) {
    DeviceBuffer<float> f(make_uint4(70, 40, 1, 1), vela::PITCHED_LAYOUT);
    std::vector<float> v(f.count(), 1.0f);
    for (std::size_t k = 0; k < v.size(); k += 7) v[k] = NAN;                   // includes element (0, 0)
    for (unsigned k = 0; k < 32 * 32; ++k) v[k / 32 * 70 + 32 + k % 32] = NAN;  // one whole tile
    v[v.size() - 1] = -3.5f;
    v[71] = 7.0f;
    f.upload(v);
    const float2 r = vela::MinMax(f.a2, nullptr);
    EXPECT_TRUE(r.x == -3.5f && r.y == 7.0f && vela::Min(f.a2, nullptr) == -3.5f);
    DeviceBuffer<double> d(make_uint4(3, 1, 1, 1), vela::PITCHED_LAYOUT);
    d.upload({NAN, 4.0, NAN});
    EXPECT_EQ(vela::Max(d.a2, nullptr), 4.0);
}

// Shared tile slots of threads outside the array keep whatever an earlier
// block left there; a large earlier array makes such stale values stand out.
TEST(MinMax, PartialTilesNeverReadSlotsOutsideTheArray) {
    DeviceBuffer<int> big(make_uint4(256, 256, 1, 1), vela::PITCHED_LAYOUT);
    big.upload(std::vector<int>(big.count(), 1000));
    for (const uint2 s : {make_uint2(33, 1), make_uint2(33, 33), make_uint2(5, 3), make_uint2(100, 37)}) {
        ASSERT_EQ(vela::MinMax(big.a2, nullptr).y, 1000);
        DeviceBuffer<int> small(make_uint4(s.x, s.y, 1, 1), vela::LINEAR_LAYOUT);
        small.upload(std::vector<int>(small.count(), 10));
        EXPECT_EQ(vela::MinMax(small.a2, nullptr).y, 10) << vela::internal::str_extents(s);
    }
    DeviceBuffer<float> host(make_uint4(4, 4, 1, 1), vela::LINEAR_LAYOUT, false);
    EXPECT_EQ(messageOf([&] { vela::Min(host.a2, nullptr); }), "memory of the array must be on the device");
}

}  // namespace
