#include "vela/algorithms/conversion.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
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
template <class T>
Array<T, 3> as3d(const Array<T, 4>& a) {
    return vela::internal::decreaseArrayDimension<T, 4, 3>(a);
}

float4 pixel(unsigned x, unsigned y) {
    return make_float4(static_cast<float>(x), static_cast<float>(y), static_cast<float>(x + y) + 0.25f,
                       static_cast<float>(x * y) + 0.5f);
}

// Odd sizes leave partial 32 x 4 blocks; both layouts on either side, and the
// host fallback when both arrays are host arrays.
TEST(ImageConversion, FloatImagesRoundTripThroughPlanesOnEveryLayout) {
    const uint2 sizes[] = {make_uint2(1, 1), make_uint2(33, 5), make_uint2(70, 9)};
    for (const uint2 s : sizes) {
        for (const bool device : {true, false}) {
            for (const auto layout : {vela::PITCHED_LAYOUT, vela::LINEAR_LAYOUT}) {
                for (const unsigned planes : {3u, 4u}) {
                    SCOPED_TRACE(vela::internal::str_extents(s) + (device ? " device " : " host ") +
                                 std::to_string(layout) + " planes " + std::to_string(planes));
                    DeviceBuffer<float4> image(make_uint4(s.x, s.y, 1, 1), layout, device);
                    DeviceBuffer<float> planar(make_uint4(s.x, s.y, planes, 1), layout, device);
                    DeviceBuffer<float4> back(make_uint4(s.x, s.y, 1, 1), layout, device);
                    std::vector<float4> in;
                    for (unsigned y = 0; y < s.y; ++y)
                        for (unsigned x = 0; x < s.x; ++x) in.push_back(pixel(x, y));
                    image.upload(in);

                    auto out3 = as3d(planar.a);
                    vela::convert(out3, as2d(image.a), nullptr);
                    const std::vector<float> p = planar.download();
                    const std::size_t n = static_cast<std::size_t>(s.x) * s.y;
                    for (std::size_t i = 0; i < n; ++i) {
                        ASSERT_EQ(p[i], in[i].x);
                        ASSERT_EQ(p[n + i], in[i].y);
                        ASSERT_EQ(p[2 * n + i], in[i].z);
                        if (planes == 4) {
                            ASSERT_EQ(p[3 * n + i], in[i].w);
                        }
                    }
                    EXPECT_TRUE(planar.paddingIntact());

                    auto out2 = as2d(back.a);
                    vela::convert(out2, as3d(planar.a), -9.0f, nullptr);
                    const std::vector<float4> b = back.download();
                    for (std::size_t i = 0; i < n; ++i) {
                        ASSERT_EQ(b[i].x, in[i].x);
                        ASSERT_EQ(b[i].z, in[i].z);
                        // alpha only stands in for a missing fourth plane
                        ASSERT_EQ(b[i].w, planes == 4 ? in[i].w : -9.0f);
                    }
                    EXPECT_TRUE(back.paddingIntact());
                }
            }
        }
    }
}

TEST(ImageConversion, ByteImagesKeepTheirPlanesAndAlpha) {
    DeviceBuffer<uchar4> image(make_uint4(35, 2, 1, 1), vela::PITCHED_LAYOUT);
    DeviceBuffer<unsigned char> planar(make_uint4(35, 2, 3, 1), vela::PITCHED_LAYOUT);
    std::vector<uchar4> in;
    for (unsigned i = 0; i < 70; ++i)
        in.push_back(make_uchar4(static_cast<unsigned char>(i), static_cast<unsigned char>(2 * i),
                                 static_cast<unsigned char>(255 - i), 7));
    image.upload(in);
    auto p3 = as3d(planar.a);
    vela::convert(p3, as2d(image.a), nullptr);
    const std::vector<unsigned char> p = planar.download();
    for (unsigned i = 0; i < 70; ++i) {
        ASSERT_EQ(p[i], in[i].x);
        ASSERT_EQ(p[70 + i], in[i].y);
        ASSERT_EQ(p[140 + i], in[i].z);
    }
    EXPECT_TRUE(planar.paddingIntact());

    auto i2 = as2d(image.a);
    vela::convert(i2, as3d(planar.a), static_cast<unsigned char>(200), nullptr);
    const std::vector<uchar4> b = image.download();
    for (unsigned i = 0; i < 70; ++i) {
        ASSERT_EQ(b[i].z, in[i].z);
        ASSERT_EQ(b[i].w, 200);
    }
}

TEST(ImageConversion, NormalisedBytesAndFloatsConvertBothWays) {
    DeviceBuffer<uchar4> bytes(make_uint4(2, 1, 1, 1), vela::PITCHED_LAYOUT);
    bytes.upload({make_uchar4(255, 0, 128, 255), make_uchar4(1, 2, 3, 4)});
    DeviceBuffer<float> f(make_uint4(2, 1, 3, 1), vela::PITCHED_LAYOUT);
    auto f3 = as3d(f.a);
    vela::convert<float>(f3, as2d(bytes.a), true, nullptr);
    EXPECT_EQ(f.download(),
              (std::vector<float>{1.0f, 1.0f / 255.0f, 0.0f, 2.0f / 255.0f, 128.0f / 255.0f, 3.0f / 255.0f}));
    DeviceBuffer<double> d(make_uint4(2, 1, 4, 1), vela::LINEAR_LAYOUT);
    auto d3 = as3d(d.a);
    vela::convert<double>(d3, as2d(bytes.a), false, nullptr);
    EXPECT_EQ(d.download(), (std::vector<double>{255, 1, 0, 2, 128, 3, 255, 4}));

    // Planes to bytes, normalised: clamp, scale, round half away from zero.
    DeviceBuffer<float> planes(make_uint4(3, 1, 4, 1), vela::PITCHED_LAYOUT);
    planes.upload({0.5f, 1.7f, -0.2f, NAN, 0.998f, 0.0f, 0.25f, 1.0f, 0.1f, 9, 9, 9});
    DeviceBuffer<uchar4> out(make_uint4(3, 1, 1, 1), vela::PITCHED_LAYOUT);
    auto o2 = as2d(out.a);
    vela::convert<float>(o2, as3d(planes.a), true, 17, nullptr);
    std::vector<uchar4> r = out.download();
    EXPECT_EQ(r[0].x, 128);  // 127.5 rounds up
    EXPECT_EQ(r[0].y, 0);    // NaN
    EXPECT_EQ(r[0].z, 64);   // 63.75
    EXPECT_EQ(r[1].x, 255);
    EXPECT_EQ(r[1].y, 254);  // 254.49
    EXPECT_EQ(r[2].x, 0);
    EXPECT_EQ(r[2].z, 26);  // 25.5
    for (const uchar4& v : r) EXPECT_EQ(v.w, 17) << "the fourth plane is not used";

    // Not normalised: truncation toward zero, low byte.
    planes.upload({12.7f, 256.0f, -1.0f, 255.9f, 300.5f, -0.5f, 0, 0, 0, 0, 0, 0});
    vela::convert<float>(o2, as3d(planes.a), false, 0, nullptr);
    r = out.download();
    EXPECT_EQ(r[0].x, 12);
    EXPECT_EQ(r[1].x, 0);
    EXPECT_EQ(r[2].x, 255);
    EXPECT_EQ(r[0].y, 255);
    EXPECT_EQ(r[1].y, 44);
    EXPECT_EQ(r[2].y, 0);
}

TEST(ImageConversion, ChecksDevicesAndExtentsWithExactTexts) {
    DeviceBuffer<float4> image(make_uint4(640, 480, 1, 1), vela::PITCHED_LAYOUT);
    DeviceBuffer<float4> hostImage(make_uint4(640, 480, 1, 1), vela::LINEAR_LAYOUT, false);
    DeviceBuffer<float> two(make_uint4(640, 480, 2, 1), vela::PITCHED_LAYOUT);
    DeviceBuffer<float> three(make_uint4(640, 480, 3, 1), vela::PITCHED_LAYOUT);
    DeviceBuffer<float4> small(make_uint4(64, 48, 1, 1), vela::PITCHED_LAYOUT);
    const std::string toPlanar =
        "void vela::convert(vela::Array<float, 3>&, const vela::Array<float4, 2>&, cudaStream_t)";
    const std::string toImage =
        "void vela::convert(vela::Array<float4, 2>&, const vela::Array<float, 3>&, float, cudaStream_t)";
    auto t2 = as3d(two.a);
    auto t3 = as3d(three.a);
    auto img = as2d(image.a);
    auto sm = as2d(small.a);

    EXPECT_EQ(
        messageOf([&] { vela::convert(t3, as2d(hostImage.a), nullptr); }),
        toPlanar +
            ":  arrays 'out' and 'in' must be on the same device.\n 'out' is on device 0\n 'in' is on device HOST");
    EXPECT_EQ(messageOf([&] { vela::convert(t2, img, nullptr); }),
              toPlanar +
                  ":   wrong 'out' array extents. 'in'  extents are (640, 480) 'out' extents are (640, 480, 2) "
                  "expected extents for 'out' are (640, 480, 3 or 4)");
    EXPECT_EQ(messageOf([&] { vela::convert(img, t2, 1.0f, nullptr); }),
              toImage + ":   wrong 'in' array extents. 'in'  extents are (640, 480, 2) expected extents.z == 3 or 4 ");
    EXPECT_EQ(messageOf([&] { vela::convert(sm, t3, 1.0f, nullptr); }),
              toImage +
                  ":   wrong 'out' array extents. 'in'  extents are (640, 480, 3) 'out' extents are (64, 48) "
                  "expected extents for 'out' are (640, 480)");

    DeviceBuffer<uchar4> bytes(make_uint4(640, 480, 1, 1), vela::PITCHED_LAYOUT);
    auto b2 = as2d(bytes.a);
    EXPECT_EQ(messageOf([&] {
                  vela::convert<double>(b2,
                                        as3d(DeviceBuffer<double>(make_uint4(640, 480, 5, 1), vela::PITCHED_LAYOUT).a),
                                        true, 0, nullptr);
              }),
              "void vela::convert(vela::Array<uchar4, 2>&, const vela::Array<T, 3>&, bool, unsigned char, "
              "cudaStream_t) [with T = double]:   wrong 'in' array extents. 'in'  extents are (640, 480, 5) expected "
              "extents.z == 3 or 4 ");
    EXPECT_TRUE(three.paddingIntact()) << "nothing is written on a refused conversion";
}

// Every listed pair, componentwise, against the plain cast rules.
TEST(TypeConversion, CastsEveryComponentWithoutScaling) {
    const uint4 e = make_uint4(130, 3, 2, 2);
    DeviceBuffer<float4> f(e, vela::PITCHED_LAYOUT);
    DeviceBuffer<int4> i(e, vela::LINEAR_LAYOUT);
    DeviceBuffer<uchar4> u(e, vela::PITCHED_LAYOUT);
    std::vector<float4> values(f.count());
    for (std::size_t k = 0; k < values.size(); ++k) {
        const float v = static_cast<float>(k) * 0.75f - 300.0f;
        values[k] = make_float4(v, -v, v * 3.0f, 1.5f);
    }
    f.upload(values);
    vela::convert(i.a, f.a, nullptr);
    vela::convert(u.a, i.a, nullptr);
    const std::vector<int4> iv = i.download();
    const std::vector<uchar4> uv = u.download();
    for (std::size_t k = 0; k < values.size(); ++k) {
        ASSERT_EQ(iv[k].x, static_cast<int>(values[k].x));
        ASSERT_EQ(iv[k].y, static_cast<int>(values[k].y));
        ASSERT_EQ(iv[k].w, 1);
        ASSERT_EQ(uv[k].x, static_cast<unsigned char>(iv[k].x & 0xff));
        ASSERT_EQ(uv[k].z, static_cast<unsigned char>(iv[k].z & 0xff));
    }
    EXPECT_TRUE(i.paddingIntact());
    EXPECT_TRUE(u.paddingIntact());

    // Back to floats exactly.
    vela::convert(f.a, u.a, nullptr);
    const std::vector<float4> fv = f.download();
    for (std::size_t k = 0; k < values.size(); ++k) ASSERT_EQ(fv[k].x, static_cast<float>(uv[k].x));

    // Scalars: float to bytes keeps the low byte of the unsigned truncation.
    DeviceBuffer<float> fs(make_uint4(5, 1, 1, 1), vela::PITCHED_LAYOUT);
    DeviceBuffer<unsigned char> us(make_uint4(5, 1, 1, 1), vela::PITCHED_LAYOUT);
    fs.upload({12.7f, 256.0f, 511.9f, 0.0f, 1e12f});
    vela::convert(us.a, fs.a, nullptr);
    EXPECT_EQ(us.download(), (std::vector<unsigned char>{12, 0, 255, 0, 255}));

    DeviceBuffer<int2> i2(make_uint4(2, 1, 1, 1), vela::PITCHED_LAYOUT, false);
    DeviceBuffer<float2> f2(make_uint4(2, 1, 1, 1), vela::PITCHED_LAYOUT, false);
    i2.upload({make_int2(INT_MAX, -3), make_int2(16777217, 0)});
    vela::convert(f2.a, i2.a, nullptr);  // host arrays convert on the host
    const std::vector<float2> h = f2.download();
    EXPECT_EQ(h[0].x, 2147483648.0f);
    EXPECT_EQ(h[0].y, -3.0f);
    EXPECT_EQ(h[1].x, 16777216.0f);
}

TEST(TypeConversion, ChecksDevicesAndExtentsWithExactTexts) {
    DeviceBuffer<float> f(make_uint4(4, 3, 2, 1), vela::PITCHED_LAYOUT);
    DeviceBuffer<int> i(make_uint4(4, 3, 1, 2), vela::PITCHED_LAYOUT);
    DeviceBuffer<int> h(make_uint4(4, 3, 2, 1), vela::LINEAR_LAYOUT, false);
    const std::string sig =
        "void vela::convert(vela::Array<Tout, 4>&, const vela::Array<Tin, 4>&, cudaStream_t) [with Tout = int; Tin "
        "= float]";
    EXPECT_EQ(
        messageOf([&] { vela::convert(h.a, f.a, nullptr); }),
        sig + ":  arrays 'out' and 'in' must be on the same device.\n 'out' is on device HOST\n 'in' is on device 0");
    EXPECT_EQ(messageOf([&] { vela::convert(i.a, f.a, nullptr); }),
              sig +
                  ":   wrong 'out' array extents. 'in'  extents are (4, 3, 2, 1) 'out' extents are (4, 3, 1, 2) "
                  "expected are the same extents. ");
    EXPECT_TRUE(i.paddingIntact());
}

}  // namespace
