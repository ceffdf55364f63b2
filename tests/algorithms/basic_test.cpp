#include "vela/algorithms/basic.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "tests/algorithms/device_buffer.h"

namespace {

using vela::Array;
using vela_test::DeviceBuffer;

std::vector<float> ramp(std::size_t n, float base) {
    std::vector<float> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = base + static_cast<float>(i % 97) * 0.5f;
    return v;
}

// Partial blocks in x and y, several z and w layers (packed into the grid's
// z), a row of 1000, and both layouts.  A thread that visits twice or misses
// an element changes the result; one that strays writes row padding.  The
// second operand is a view into a larger pitched array, read through its
// offset start and its parent's strides.
TEST(Elementwise, OperationsTouchEveryElementOnceAndNoPadding) {
    for (const uint4 e :
         {make_uint4(1, 1, 1, 1), make_uint4(130, 3, 2, 2), make_uint4(1000, 1, 1, 1), make_uint4(37, 5, 3, 2)}) {
        for (const auto layout : {vela::PITCHED_LAYOUT, vela::LINEAR_LAYOUT}) {
            SCOPED_TRACE(vela::internal::str_extents(e) + " layout " + std::to_string(layout));
            const uint4 pe = make_uint4(e.x + 3, e.y + 2, e.z + 1, e.w);
            DeviceBuffer<float> buf(e, layout), parent(pe, vela::PITCHED_LAYOUT);
            const std::vector<float> in = ramp(buf.count(), 1.0f), pv = ramp(parent.count(), 2.0f);
            buf.upload(in);
            parent.upload(pv);
            vela::add(buf.a, 3.0f, nullptr);
            vela::sub(buf.a, 0.5f, nullptr);
            vela::mul(buf.a, 4.0f, nullptr);
            vela::div(buf.a, 3.0f, nullptr);
            vela::div(buf.a, vela::block(parent.a, vela::Range(2, e.x + 1), vela::Range(1, e.y), vela::Range(1, e.z),
                                         vela::Range(0, e.w - 1)));
            const std::vector<float> out = buf.download();
            for (std::size_t i = 0; i < out.size(); ++i) {
                const std::size_t x = i % e.x, y = i / e.x % e.y, z = i / e.x / e.y % e.z, w = i / e.x / e.y / e.z;
                const float b = pv[((w * pe.z + z + 1) * pe.y + y + 1) * pe.x + x + 2];
                ASSERT_EQ(out[i], (in[i] + 3.0f - 0.5f) * 4.0f / 3.0f / b) << i;
            }
            EXPECT_EQ(parent.download(), pv) << "the operand is only read";
            vela::set(buf.a, 0.0f);
            EXPECT_EQ(buf.download(), std::vector<float>(buf.count(), 0.0f));
            EXPECT_TRUE(buf.paddingIntact());
        }
    }
}

TEST(Elementwise, VectorsWorkPerComponentAndIntegersTruncateAndWrap) {
    // 12-byte elements do not divide the row pitch, and one-byte elements
    // leave most of it: a thread using the wrong element size in its address
    // shows in the padding.
    DeviceBuffer<float3> f3(make_uint4(43, 3, 2, 1), vela::PITCHED_LAYOUT);
    f3.upload(std::vector<float3>(f3.count(), make_float3(1, 2, 3)));
    vela::mul(f3.a, make_float3(0.5f, 3, -1));
    for (const float3& v : f3.download()) ASSERT_TRUE(v.x == 0.5f && v.y == 6 && v.z == -3);
    DeviceBuffer<unsigned char> bytes(make_uint4(131, 3, 1, 2), vela::PITCHED_LAYOUT);
    vela::set(bytes.a, static_cast<unsigned char>(7));
    EXPECT_EQ(bytes.download(), std::vector<unsigned char>(bytes.count(), 7));
    EXPECT_TRUE(f3.paddingIntact() && bytes.paddingIntact());

    DeviceBuffer<int> a(make_uint4(4, 1, 1, 1), vela::PITCHED_LAYOUT), b(make_uint4(4, 1, 1, 1), vela::LINEAR_LAYOUT);
    a.upload({-7, 7, INT_MIN, INT_MAX});
    vela::div(a.a, 2);
    EXPECT_EQ(a.download(), (std::vector<int>{-3, 3, INT_MIN / 2, INT_MAX / 2}));
    b.upload({1, -1, 0, -1});
    a.upload({INT_MAX, INT_MIN, 5, 9});
    vela::add(a.a, b.a);
    EXPECT_EQ(a.download(), (std::vector<int>{INT_MIN, INT_MAX, 5, 8}));
    a.upload({INT_MAX, INT_MIN, 5, 9});
    vela::div(a.a, b.a);  // INT_MIN / -1 wraps, x / 0 gives 0
    EXPECT_EQ(a.download(), (std::vector<int>{INT_MAX, INT_MIN, 0, -9}));
}

TEST(Elementwise, ArgumentErrorsHaveTheirExactTexts) {
    const uint4 e = make_uint4(4, 3, 1, 1);
    DeviceBuffer<float> dev(e, vela::PITCHED_LAYOUT), host(e, vela::LINEAR_LAYOUT, false),
        other(make_uint4(3, 4, 1, 1), vela::PITCHED_LAYOUT);
    EXPECT_EQ(messageOf([&] { vela::mul(host.a, 2.0f); }), "memory of the array must be on the device");
    EXPECT_EQ(messageOf([&] { vela::add(dev.a, host.a); }), "memory of both arrays must be on the same device");
    EXPECT_EQ(messageOf([&] { vela::add(host.a, host.a); }), "memory of both arrays must be on the device");
    EXPECT_EQ(messageOf([&] { vela::set(dev.a, other.a); }),
              "extents mismatch\n extents of first operand are (4, 3, 1, 1)  extents of second operand are (3, 4, 1, "
              "1)");
    EXPECT_TRUE(dev.paddingIntact()) << "a refused operation writes nothing";
}

// Odd and even extents, more than one block of threads, two w slices (the
// device flips one slice per launch), and extents of 1.
TEST(Flip, MirrorsEachAxisOnHostAndDeviceArrays) {
    void (*flips[])(Array<float, 4>&) = {vela::flipX<float>, vela::flipY<float>, vela::flipZ<float>};
    for (const uint4 e : {make_uint4(130, 9, 5, 2), make_uint4(64, 8, 4, 2), make_uint4(3, 1, 1, 1)}) {
        const std::size_t steps[] = {1, e.x, e.x * e.y}, sizes[] = {e.x, e.y, e.z};
        for (const bool device : {true, false}) {
            for (int dim = 0; dim < 3; ++dim) {
                SCOPED_TRACE(vela::internal::str_extents(e) + (device ? " device" : " host") + " dim " +
                             std::to_string(dim));
                DeviceBuffer<float> a(e, vela::PITCHED_LAYOUT, device);
                // Element i moves from coordinate c along the axis to n - 1 - c.
                std::vector<float> in(a.count()), expected(a.count());
                for (std::size_t i = 0; i < in.size(); ++i) {
                    const std::size_t step = steps[dim], c = i / step % sizes[dim];
                    in[i] = static_cast<float>(i);
                    expected[i] = static_cast<float>(i - c * step + (sizes[dim] - 1 - c) * step);
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
