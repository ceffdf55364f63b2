#include "vela/algorithms/reduction.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "tests/algorithms/device_buffer.h"

namespace {

using vela::Array;
using vela_test::DeviceBuffer;

template <class T>
Array<T, 2> as2d(const Array<T, 4>& a) {
    return vela::internal::decreaseArrayDimension<T, 4, 2>(a);
}

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
    const int lo = 3, hi = 120;
    std::mt19937 rng(7);
    for (const uint2 s : {make_uint2(1, 1), make_uint2(33, 1), make_uint2(1, 33), make_uint2(32, 32),
                          make_uint2(33, 33), make_uint2(70, 45), make_uint2(640, 480)}) {
        for (const auto layout : {vela::PITCHED_LAYOUT, vela::LINEAR_LAYOUT}) {
            DeviceBuffer<T> a(make_uint4(s.x, s.y, 1, 1), layout);
            const std::size_t n = a.count();
            for (const std::size_t minAt : {std::size_t{0}, n - 1, n / 3}) {
                const std::size_t maxAt = n - 1 - minAt;
                std::vector<T> v(n);
                for (auto& e : v) e = static_cast<T>(lo + 1 + static_cast<int>(rng() % (hi - lo - 1)));
                v[maxAt] = T(hi);
                v[minAt] = T(lo);
                a.upload(v);
                auto a2 = as2d(a.a);
                SCOPED_TRACE(vela::internal::str_extents(s) + " min at " + std::to_string(minAt));
                EXPECT_EQ(vela::Min(a2, nullptr), T(lo));
                EXPECT_EQ(vela::Max(a2, nullptr), T(n > 1 ? hi : lo));
            }
        }
    }
}

TEST(MinMax, PairsIgnoreNaNsAmongFiniteValues) {
    DeviceBuffer<float> f(make_uint4(70, 40, 1, 1), vela::PITCHED_LAYOUT);
    std::vector<float> v(f.count(), 1.0f);
    for (std::size_t k = 0; k < v.size(); k += 7) v[k] = NAN;  // includes element (0, 0)
    for (unsigned y = 0; y < 32; ++y)
        for (unsigned x = 32; x < 64; ++x) v[y * 70 + x] = NAN;  // one whole tile
    v[v.size() - 1] = -3.5f;
    v[71] = 7.0f;
    f.upload(v);
    auto f2 = as2d(f.a);
    const float2 r = vela::MinMax(f2, nullptr);
    EXPECT_TRUE(r.x == -3.5f && r.y == 7.0f && vela::Min(f2, nullptr) == -3.5f);
    DeviceBuffer<double> d(make_uint4(3, 1, 1, 1), vela::PITCHED_LAYOUT);
    d.upload({NAN, 4.0, NAN});
    auto d2 = as2d(d.a);
    EXPECT_EQ(vela::Max(d2, nullptr), 4.0);
}

// Shared tile slots of threads outside the array keep whatever an earlier
// block left there; a large earlier array makes such stale values stand out.
TEST(MinMax, PartialTilesNeverReadSlotsOutsideTheArray) {
    DeviceBuffer<int> big(make_uint4(256, 256, 1, 1), vela::PITCHED_LAYOUT);
    big.upload(std::vector<int>(big.count(), 1000));
    auto b2 = as2d(big.a);
    for (const uint2 s : {make_uint2(33, 1), make_uint2(33, 33), make_uint2(5, 3), make_uint2(100, 37)}) {
        ASSERT_EQ(vela::MinMax(b2, nullptr).y, 1000);
        DeviceBuffer<int> small(make_uint4(s.x, s.y, 1, 1), vela::LINEAR_LAYOUT);
        small.upload(std::vector<int>(small.count(), 10));
        auto s2 = as2d(small.a);
        EXPECT_EQ(vela::MinMax(s2, nullptr).y, 10) << vela::internal::str_extents(s);
    }
    DeviceBuffer<float> host(make_uint4(4, 4, 1, 1), vela::LINEAR_LAYOUT, false);
    auto h2 = as2d(host.a);
    EXPECT_EQ(vela_test::messageOf([&] { vela::Min(h2, nullptr); }), "memory of the array must be on the device");
}

}  // namespace
