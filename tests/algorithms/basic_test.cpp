#include "vela/algorithms/basic.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <type_traits>
#include <vector>

#include "tests/algorithms/device_buffer.h"

namespace {

using vela::Array;
using vela_test::DeviceBuffer;
using vela_test::messageOf;

// Sizes with partial blocks in x and y, several z and w layers, and one row
// as long as the first edge case of the launch conventions.
const uint4 kShapes[] = {make_uint4(1, 1, 1, 1), make_uint4(130, 3, 2, 2), make_uint4(1000, 1, 1, 1),
                         make_uint4(37, 5, 3, 2)};
const vela::MemLayout kLayouts[] = {vela::PITCHED_LAYOUT, vela::LINEAR_LAYOUT};

std::vector<float> ramp(std::size_t n, float base) {
    std::vector<float> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = base + static_cast<float>(i % 97) * 0.5f;
    return v;
}

std::string shapeText(uint4 e, vela::MemLayout layout) {
    return vela::internal::str_extents(e) + (layout == vela::PITCHED_LAYOUT ? " pitched" : " linear");
}

TEST(Elementwise, ScalarOperationsTouchEveryElementOnceAndNoPadding) {
    for (const uint4 e : kShapes) {
        for (const auto layout : kLayouts) {
            SCOPED_TRACE(shapeText(e, layout));
            DeviceBuffer<float> buf(e, layout);
            const std::vector<float> in = ramp(buf.count(), 1.0f);
            buf.upload(in);
            // A thread visiting twice, or a missed element, shows in the sum.
            vela::add(buf.a, 3.0f, nullptr);
            vela::sub(buf.a, 0.5f, nullptr);
            vela::mul(buf.a, 4.0f, nullptr);
            vela::div(buf.a, 3.0f, nullptr);
            const std::vector<float> out = buf.download();
            for (std::size_t i = 0; i < out.size(); ++i)
                ASSERT_EQ(out[i], (in[i] + 3.0f - 0.5f) * 4.0f / 3.0f) << "element " << i;
            EXPECT_TRUE(buf.paddingIntact());

            vela::set(buf.a, 0.0f);
            for (float v : buf.download()) ASSERT_EQ(v, 0.0f);
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
    const auto bAt = [&](unsigned x, unsigned y, unsigned z, unsigned w) {
        return pv[(((w * 4 + z + 1) * 7) + y + 1) * 40 + x + 2];
    };
    const std::vector<float> av = ramp(a.count(), -5.0f);
    struct Case {
        void (*op)(Array<float, 4>&, const Array<float, 4>&, cudaStream_t);
        float (*ref)(float, float);
    };
    const Case cases[] = {
        {vela::add<float>, [](float p, float q) { return p + q; }},
        {vela::sub<float>, [](float p, float q) { return p - q; }},
        {vela::mul<float>, [](float p, float q) { return p * q; }},
        {vela::div<float>, [](float p, float q) { return p / q; }},
        {vela::set<float>, [](float, float q) { return q; }},
    };
    for (const Case& c : cases) {
        a.upload(av);
        c.op(a.a, b, nullptr);
        const std::vector<float> out = a.download();
        std::size_t i = 0;
        for (unsigned w = 0; w < e.w; ++w)
            for (unsigned z = 0; z < e.z; ++z)
                for (unsigned y = 0; y < e.y; ++y)
                    for (unsigned x = 0; x < e.x; ++x, ++i)
                        ASSERT_EQ(out[i], c.ref(av[i], bAt(x, y, z, w))) << x << "," << y << "," << z << "," << w;
    }
    EXPECT_EQ(parent.download(), pv) << "the operand is only read";

    // An array combined with itself.
    a.upload(av);
    vela::add(a.a, a.a);
    const std::vector<float> twice = a.download();
    for (std::size_t k = 0; k < twice.size(); ++k) ASSERT_EQ(twice[k], 2 * av[k]);
}

TEST(Elementwise, VectorElementsAreCombinedComponentwise) {
    DeviceBuffer<float4> f4(make_uint4(3, 2, 1, 1), vela::PITCHED_LAYOUT);
    f4.upload(std::vector<float4>(6, make_float4(1, 2, 3, 4)));
    vela::mul(f4.a, make_float4(2, 3, 4, 5));
    vela::sub(f4.a, make_float4(1, 1, 1, 1));
    for (const float4& v : f4.download()) {
        EXPECT_EQ(v.x, 1);
        EXPECT_EQ(v.y, 5);
        EXPECT_EQ(v.z, 11);
        EXPECT_EQ(v.w, 19);
    }
    // 12-byte elements do not divide the row pitch: the padding test catches
    // any thread that computes its address with the wrong element size.
    DeviceBuffer<float3> f3(make_uint4(43, 3, 2, 1), vela::PITCHED_LAYOUT);
    f3.upload(std::vector<float3>(f3.count(), make_float3(1, 1, 1)));
    vela::add(f3.a, make_float3(0.5f, 1, 2));
    for (const float3& v : f3.download()) {
        ASSERT_EQ(v.x, 1.5f);
        ASSERT_EQ(v.y, 2);
        ASSERT_EQ(v.z, 3);
    }
    EXPECT_TRUE(f3.paddingIntact());

    DeviceBuffer<float2> n(make_uint4(5, 1, 1, 1), vela::PITCHED_LAYOUT);
    DeviceBuffer<float2> d(make_uint4(5, 1, 1, 1), vela::LINEAR_LAYOUT);
    n.upload(std::vector<float2>(5, make_float2(-7, 9)));
    d.upload(std::vector<float2>(5, make_float2(2, -4)));
    vela::div(n.a, d.a);
    for (const float2& v : n.download()) {
        EXPECT_EQ(v.x, -3.5f);
        EXPECT_EQ(v.y, -2.25f);
    }
}

TEST(Elementwise, IntegerArithmeticTruncatesWrapsAndSurvivesZeroDivisors) {
    DeviceBuffer<int> a(make_uint4(4, 1, 1, 1), vela::PITCHED_LAYOUT);
    a.upload({-7, 7, INT_MIN, INT_MAX});
    vela::div(a.a, 2);
    EXPECT_EQ(a.download(), (std::vector<int>{-3, 3, INT_MIN / 2, INT_MAX / 2}));

    a.upload({INT_MAX, INT_MIN, 5, INT_MIN});
    DeviceBuffer<int> b(make_uint4(4, 1, 1, 1), vela::LINEAR_LAYOUT);
    b.upload({1, -1, 0, -1});
    vela::add(a.a, b.a);
    EXPECT_EQ(a.download(), (std::vector<int>{INT_MIN, INT_MAX, 5, INT_MAX}));
    a.upload({INT_MAX, INT_MIN, 5, INT_MIN});
    vela::div(a.a, b.a);
    EXPECT_EQ(a.download(), (std::vector<int>{INT_MAX, INT_MIN, 0, INT_MIN}));

    DeviceBuffer<double> d(make_uint4(2, 1, 1, 1), vela::PITCHED_LAYOUT);
    d.upload({1.0, -3.0});
    vela::div(d.a, 3.0);
    EXPECT_EQ(d.download(), (std::vector<double>{1.0 / 3.0, -1.0}));
}

// set is instantiated for narrow and odd-sized elements; each must fill its
// elements and nothing else.
template <class T>
class SetTest : public ::testing::Test {};
using SetTypes =
    ::testing::Types<unsigned char, bool, uchar2, uchar3, uchar4, int3, int4, unsigned int, float2, double>;
TYPED_TEST_SUITE(SetTest, SetTypes);

TYPED_TEST(SetTest, FillsAndCopiesOnlyTheElements) {
    using T = TypeParam;
    const uint4 e = make_uint4(131, 3, 2, 2);
    DeviceBuffer<T> a(e, vela::PITCHED_LAYOUT);
    T one{};
    std::memset(static_cast<void*>(&one), 1, sizeof(T));
    if constexpr (std::is_same_v<T, bool>) one = true;
    vela::set(a.a, one);
    for (const T& v : a.download()) ASSERT_EQ(std::memcmp(&v, &one, sizeof(T)), 0);
    EXPECT_TRUE(a.paddingIntact());

    DeviceBuffer<T> b(e, vela::LINEAR_LAYOUT);
    vela::set(b.a, T{});
    vela::set(a.a, b.a);
    const T zero{};
    for (const T& v : a.download()) ASSERT_EQ(std::memcmp(&v, &zero, sizeof(T)), 0);
    EXPECT_TRUE(a.paddingIntact());
}

TEST(Elementwise, ArgumentErrorsHaveTheirExactTexts) {
    DeviceBuffer<float> dev(make_uint4(4, 3, 1, 1), vela::PITCHED_LAYOUT);
    DeviceBuffer<float> host(make_uint4(4, 3, 1, 1), vela::LINEAR_LAYOUT, false);
    DeviceBuffer<float> host2(make_uint4(4, 3, 1, 1), vela::LINEAR_LAYOUT, false);
    DeviceBuffer<float> other(make_uint4(3, 4, 1, 1), vela::PITCHED_LAYOUT);

    EXPECT_EQ(messageOf([&] { vela::mul(host.a, 2.0f); }), "memory of the array must be on the device");
    EXPECT_EQ(messageOf([&] { vela::set(host.a, 2.0f); }), "memory of the array must be on the device");
    EXPECT_EQ(messageOf([&] { vela::add(dev.a, host.a); }), "memory of both arrays must be on the same device");
    EXPECT_EQ(messageOf([&] { vela::add(host.a, host2.a); }), "memory of both arrays must be on the device");
    EXPECT_EQ(messageOf([&] { vela::set(dev.a, other.a); }),
              "extents mismatch\n extents of first operand are (4, 3, 1, 1)  extents of second operand are (3, 4, 1, "
              "1)");
    EXPECT_TRUE(dev.paddingIntact()) << "a refused operation writes nothing";
}

// Reference mirror of a 4-D array held in x-fastest order.
template <class T>
std::vector<T> mirrored(const std::vector<T>& v, uint4 e, int dim) {
    std::vector<T> out(v.size());
    for (unsigned w = 0; w < e.w; ++w)
        for (unsigned z = 0; z < e.z; ++z)
            for (unsigned y = 0; y < e.y; ++y)
                for (unsigned x = 0; x < e.x; ++x) {
                    const unsigned sx = dim == 0 ? e.x - 1 - x : x;
                    const unsigned sy = dim == 1 ? e.y - 1 - y : y;
                    const unsigned sz = dim == 2 ? e.z - 1 - z : z;
                    out[((w * e.z + z) * e.y + y) * e.x + x] = v[((w * e.z + sz) * e.y + sy) * e.x + sx];
                }
    return out;
}

TEST(Flip, MirrorsEachAxisOnHostAndDeviceArrays) {
    // Odd and even extents along each axis, more than one block of threads,
    // and two w slices (the device flips one slice per launch).
    const uint4 shapes[] = {make_uint4(130, 9, 5, 2), make_uint4(64, 8, 4, 2), make_uint4(1, 1, 1, 1),
                            make_uint4(3, 1, 1, 1)};
    void (*flips[])(Array<float, 4>&) = {vela::flipX<float>, vela::flipY<float>, vela::flipZ<float>};
    for (const uint4 e : shapes) {
        for (bool device : {true, false}) {
            for (int dim = 0; dim < 3; ++dim) {
                SCOPED_TRACE(vela::internal::str_extents(e) + (device ? " device" : " host") + " dim " +
                             std::to_string(dim));
                DeviceBuffer<float> a(e, vela::PITCHED_LAYOUT, device);
                std::vector<float> distinct(a.count());
                for (std::size_t i = 0; i < distinct.size(); ++i) distinct[i] = static_cast<float>(i);
                a.upload(distinct);
                flips[dim](a.a);
                EXPECT_EQ(a.download(), mirrored(distinct, e, dim));
                EXPECT_TRUE(a.paddingIntact());
            }
        }
    }
}

TEST(Flip, VectorElementsMoveWhole) {
    DeviceBuffer<uchar4> a(make_uint4(3, 1, 1, 1), vela::PITCHED_LAYOUT);
    a.upload({make_uchar4(1, 2, 3, 4), make_uchar4(5, 6, 7, 8), make_uchar4(9, 10, 11, 12)});
    vela::flipX(a.a);
    const std::vector<uchar4> out = a.download();
    EXPECT_EQ(out[0].x, 9);
    EXPECT_EQ(out[0].w, 12);
    EXPECT_EQ(out[1].x, 5);
    EXPECT_EQ(out[2].y, 2);
}

}  // namespace
