#include "vela/algorithms/basic.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "tests/algorithms/device_buffer.h"

namespace {

using vela::Array;
using vela_test::DeviceBuffer;
using vela_test::messageOf;

std::vector<float> ramp(std::size_t n, float base) {
    std::vector<float> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = base + static_cast<float>(i % 97) * 0.5f;
    return v;
}

// Partial blocks in x and y, several z and w layers (packed into the grid's
// z), a row of 1000, and both layouts.  A thread that visits twice or misses
// an element changes the result; one that strays writes row padding.
TEST(Elementwise, ScalarOperationsTouchEveryElementOnceAndNoPadding) {
    for (const uint4 e :
         {make_uint4(1, 1, 1, 1), make_uint4(130, 3, 2, 2), make_uint4(1000, 1, 1, 1), make_uint4(37, 5, 3, 2)}) {
        for (const auto layout : {vela::PITCHED_LAYOUT, vela::LINEAR_LAYOUT}) {
            SCOPED_TRACE(vela::internal::str_extents(e) + " layout " + std::to_string(layout));
            DeviceBuffer<float> buf(e, layout);
            const std::vector<float> in = ramp(buf.count(), 1.0f);
            buf.upload(in);
            vela::add(buf.a, 3.0f, nullptr);
            vela::sub(buf.a, 0.5f, nullptr);
            vela::mul(buf.a, 4.0f, nullptr);
            vela::div(buf.a, 3.0f, nullptr);
            const std::vector<float> out = buf.download();
            for (std::size_t i = 0; i < out.size(); ++i) ASSERT_EQ(out[i], (in[i] + 3.0f - 0.5f) * 4.0f / 3.0f) << i;
            vela::set(buf.a, 0.0f);
            EXPECT_EQ(buf.download(), std::vector<float>(buf.count(), 0.0f));
            EXPECT_TRUE(buf.paddingIntact());
        }
    }
}

TEST(Elementwise, ArrayOperationsReadTheSecondArrayThroughItsOwnStrides) {
    const uint4 e = make_uint4(37, 5, 3, 2);
    DeviceBuffer<float> a(e, vela::LINEAR_LAYOUT);
    // b is a view into a larger pitched array: offset start, parent's strides.
    DeviceBuffer<float> parent(make_uint4(40, 7, 4, 2), vela::PITCHED_LAYOUT);
    const std::vector<float> pv = ramp(parent.count(), 2.0f);
    parent.upload(pv);
    const Array<float, 4> b =
        vela::block(parent.a, vela::Range(2, 38), vela::Range(1, 5), vela::Range(1, 3), vela::Range(0, 1));
    const std::vector<float> av = ramp(a.count(), -5.0f);
    a.upload(av);
    vela::div(a.a, b);
    const std::vector<float> out = a.download();
    std::size_t i = 0;
    for (unsigned w = 0; w < e.w; ++w)
        for (unsigned z = 0; z < e.z; ++z)
            for (unsigned y = 0; y < e.y; ++y)
                for (unsigned x = 0; x < e.x; ++x, ++i)
                    ASSERT_EQ(out[i], av[i] / pv[(((w * 4 + z + 1) * 7) + y + 1) * 40 + x + 2]) << i;
    EXPECT_EQ(parent.download(), pv) << "the operand is only read";

    vela::add(a.a, a.a);  // an array combined with itself
    const std::vector<float> twice = a.download();
    for (std::size_t k = 0; k < twice.size(); ++k) ASSERT_EQ(twice[k], 2 * out[k]);
}

TEST(Elementwise, VectorsWorkPerComponentAndIntegersTruncateAndWrap) {
    // 12-byte elements do not divide the row pitch: a thread using the wrong
    // element size in its address shows in the padding.
    DeviceBuffer<float3> f3(make_uint4(43, 3, 2, 1), vela::PITCHED_LAYOUT);
    f3.upload(std::vector<float3>(f3.count(), make_float3(1, 2, 3)));
    vela::mul(f3.a, make_float3(0.5f, 3, -1));
    for (const float3& v : f3.download()) ASSERT_TRUE(v.x == 0.5f && v.y == 6 && v.z == -3);
    EXPECT_TRUE(f3.paddingIntact());
    DeviceBuffer<bool> flags(make_uint4(131, 3, 1, 2), vela::PITCHED_LAYOUT);  // one-byte elements
    vela::set(flags.a, true);
    EXPECT_EQ(flags.download(), std::vector<bool>(flags.count(), true));
    EXPECT_TRUE(flags.paddingIntact());

    DeviceBuffer<int> a(make_uint4(4, 1, 1, 1), vela::PITCHED_LAYOUT);
    a.upload({-7, 7, INT_MIN, INT_MAX});
    vela::div(a.a, 2);
    EXPECT_EQ(a.download(), (std::vector<int>{-3, 3, INT_MIN / 2, INT_MAX / 2}));
    DeviceBuffer<int> b(make_uint4(4, 1, 1, 1), vela::LINEAR_LAYOUT);
    b.upload({1, -1, 0, -1});
    a.upload({INT_MAX, INT_MIN, 5, 9});
    vela::add(a.a, b.a);
    EXPECT_EQ(a.download(), (std::vector<int>{INT_MIN, INT_MAX, 5, 8}));
    a.upload({INT_MAX, INT_MIN, 5, 9});
    vela::div(a.a, b.a);  // INT_MIN / -1 wraps, x / 0 gives 0
    EXPECT_EQ(a.download(), (std::vector<int>{INT_MAX, INT_MIN, 0, -9}));
}

TEST(Elementwise, ArgumentErrorsHaveTheirExactTexts) {
    DeviceBuffer<float> dev(make_uint4(4, 3, 1, 1), vela::PITCHED_LAYOUT);
    DeviceBuffer<float> host(make_uint4(4, 3, 1, 1), vela::LINEAR_LAYOUT, false);
    DeviceBuffer<float> other(make_uint4(3, 4, 1, 1), vela::PITCHED_LAYOUT);
    EXPECT_EQ(messageOf([&] { vela::mul(host.a, 2.0f); }), "memory of the array must be on the device");
    EXPECT_EQ(messageOf([&] { vela::add(dev.a, host.a); }), "memory of both arrays must be on the same device");
    EXPECT_EQ(messageOf([&] { vela::add(host.a, host.a); }), "memory of both arrays must be on the device");
    EXPECT_EQ(messageOf([&] { vela::set(dev.a, other.a); }),
              "extents mismatch\n extents of first operand are (4, 3, 1, 1)  extents of second operand are (3, 4, 1, "
              "1)");
    EXPECT_TRUE(dev.paddingIntact()) << "a refused operation writes nothing";
}

TEST(Flip, MirrorsEachAxisOnHostAndDeviceArrays) {
    // Odd and even extents, more than one block of threads, two w slices
    // (the device flips one slice per launch), and extents of 1.
    void (*flips[])(Array<float, 4>&) = {vela::flipX<float>, vela::flipY<float>, vela::flipZ<float>};
    for (const uint4 e : {make_uint4(130, 9, 5, 2), make_uint4(64, 8, 4, 2), make_uint4(3, 1, 1, 1)}) {
        for (const bool device : {true, false}) {
            for (int dim = 0; dim < 3; ++dim) {
                SCOPED_TRACE(vela::internal::str_extents(e) + (device ? " device" : " host") + " dim " +
                             std::to_string(dim));
                DeviceBuffer<float> a(e, vela::PITCHED_LAYOUT, device);
                std::vector<float> in(a.count()), expected(a.count());
                for (std::size_t i = 0; i < in.size(); ++i) in[i] = static_cast<float>(i);
                std::size_t i = 0;
                for (unsigned w = 0; w < e.w; ++w)
                    for (unsigned z = 0; z < e.z; ++z)
                        for (unsigned y = 0; y < e.y; ++y)
                            for (unsigned x = 0; x < e.x; ++x, ++i) {
                                const unsigned sx = dim == 0 ? e.x - 1 - x : x;
                                const unsigned sy = dim == 1 ? e.y - 1 - y : y;
                                const unsigned sz = dim == 2 ? e.z - 1 - z : z;
                                expected[i] = in[((w * e.z + sz) * e.y + sy) * e.x + sx];
                            }
                a.upload(in);
                flips[dim](a.a);
                EXPECT_EQ(a.download(), expected);
                EXPECT_TRUE(a.paddingIntact());
            }
        }
    }
}

}  // namespace
