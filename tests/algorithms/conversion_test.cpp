#include "vela/algorithms/conversion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "tests/algorithms/device_buffer.h"

namespace {

using vela_test::DeviceBuffer;

// Odd sizes leave partial 32 x 4 blocks; both layouts, and the host loops
// when both arrays are host arrays.
TEST(ImageConversion, FloatImagesRoundTripThroughThreeOrFourPlanes) {
    for (const uint2 s : {make_uint2(1, 1), make_uint2(70, 9)}) {
        for (int variant = 0; variant < 8; ++variant) {
            const bool device = variant & 1;
            const auto layout = variant & 2 ? vela::PITCHED_LAYOUT : vela::LINEAR_LAYOUT;
            const unsigned planes = variant & 4 ? 4 : 3;
            SCOPED_TRACE(vela::internal::str_extents(s) + " variant " + std::to_string(variant));
            DeviceBuffer<float4> image(make_uint4(s.x, s.y, 1, 1), layout, device);
            DeviceBuffer<float> planar(make_uint4(s.x, s.y, planes, 1), layout, device);
            const std::size_t n = image.count();
            // Plane k of pixel i holds k * n + i.
            std::vector<float4> in(n);
            for (std::size_t i = 0; i < n; ++i) in[i] = make_float4(i, n + i, 2 * n + i, 3 * n + i);
            image.upload(in);
            vela::convert(planar.a3, image.a2, nullptr);
            const std::vector<float> p = planar.download();
            for (std::size_t k = 0; k < p.size(); ++k) ASSERT_EQ(p[k], k);
            EXPECT_TRUE(planar.paddingIntact());

            image.mark();
            vela::convert(image.a2, planar.a3, -9.0f, nullptr);  // alpha stands in for a missing plane
            for (float4& v : in) v.w = planes == 4 ? v.w : -9.0f;
            EXPECT_EQ(std::memcmp(image.download().data(), in.data(), n * sizeof(float4)), 0);
            EXPECT_TRUE(image.paddingIntact());
        }
    }
}

TEST(ImageConversion, BytesConvertPlainNormalisedAndRounded) {
    DeviceBuffer<uchar4> bytes(make_uint4(35, 1, 1, 1), vela::PITCHED_LAYOUT);
    std::vector<uchar4> in(35, make_uchar4(1, 2, 3, 4));
    in[0] = make_uchar4(255, 0, 128, 255);
    bytes.upload(in);
    DeviceBuffer<unsigned char> planes(make_uint4(35, 1, 3, 1), vela::PITCHED_LAYOUT);
    vela::convert(planes.a3, bytes.a2, nullptr);
    vela::convert(bytes.a2, planes.a3, static_cast<unsigned char>(200), nullptr);
    EXPECT_TRUE(bytes.download()[34].z == 3 && bytes.download()[0].z == 128 && bytes.download()[0].w == 200);

    DeviceBuffer<float> f(make_uint4(35, 1, 3, 1), vela::PITCHED_LAYOUT);
    vela::convert<float>(f.a3, bytes.a2, true, nullptr);
    EXPECT_TRUE(f.download()[0] == 1.0f && f.download()[35] == 0.0f && f.download()[70] == 128.0f / 255.0f);
    DeviceBuffer<double> d(make_uint4(35, 1, 4, 1), vela::LINEAR_LAYOUT);
    vela::convert<double>(d.a3, bytes.a2, false, nullptr);
    EXPECT_EQ(d.download()[3 * 35 + 1], 200.0);

    // Planes to bytes: clamp, scale and round half away from zero, or
    // truncate and keep the low byte.  The fourth byte is alpha either way.
    DeviceBuffer<float> p(make_uint4(7, 1, 3, 1), vela::PITCHED_LAYOUT);
    p.upload({0.5f, 1.7f, -0.2f, NAN, 0.998f, 0.1f, 0.25f, 12.7f, 256.0f, -1.0f, 255.9f, 300.5f, -0.5f, 0});
    DeviceBuffer<uchar4> out(make_uint4(7, 1, 1, 1), vela::PITCHED_LAYOUT);
    const unsigned char normalised[] = {128, 255, 0, 0, 254, 26, 64}, truncated[] = {12, 0, 255, 255, 44, 0, 0};
    vela::convert<float>(out.a2, p.a3, true, 17, nullptr);
    for (int i = 0; i < 7; ++i) EXPECT_TRUE(out.download()[i].x == normalised[i] && out.download()[i].w == 17) << i;
    vela::convert<float>(out.a2, p.a3, false, 0, nullptr);
    for (int i = 0; i < 7; ++i) EXPECT_EQ(out.download()[i].y, truncated[i]) << i;
    EXPECT_TRUE(out.paddingIntact());
}

TEST(ImageConversion, ChecksDevicesAndExtentsWithExactTexts) {
    const uint4 e = make_uint4(8, 6, 1, 1);
    DeviceBuffer<float4> image(e, vela::PITCHED_LAYOUT), hostImage(e, vela::LINEAR_LAYOUT, false),
        small(make_uint4(4, 3, 1, 1), vela::PITCHED_LAYOUT);
    DeviceBuffer<float> two(make_uint4(8, 6, 2, 1), vela::PITCHED_LAYOUT),
        three(make_uint4(8, 6, 3, 1), vela::PITCHED_LAYOUT);
    const std::string toPlanes =
        "void vela::convert(vela::Array<float, 3>&, const vela::Array<float4, 2>&, cudaStream_t):  ";
    const std::string toImage =
        "void vela::convert(vela::Array<float4, 2>&, const vela::Array<float, 3>&, float, cudaStream_t):  ";
    EXPECT_EQ(
        messageOf([&] { vela::convert(three.a3, hostImage.a2, nullptr); }),
        toPlanes + "arrays 'out' and 'in' must be on the same device.\n 'out' is on device 0\n 'in' is on device HOST");
    EXPECT_EQ(messageOf([&] { vela::convert(two.a3, image.a2, nullptr); }),
              toPlanes +
                  " wrong 'out' array extents. 'in'  extents are (8, 6) 'out' extents are (8, 6, 2) expected "
                  "extents for 'out' are (8, 6, 3 or 4)");
    EXPECT_EQ(messageOf([&] { vela::convert(image.a2, two.a3, 1.0f, nullptr); }),
              toImage + " wrong 'in' array extents. 'in'  extents are (8, 6, 2) expected extents.z == 3 or 4 ");
    EXPECT_EQ(messageOf([&] { vela::convert(small.a2, three.a3, 1.0f, nullptr); }),
              toImage +
                  " wrong 'out' array extents. 'in'  extents are (8, 6, 3) 'out' extents are (4, 3) expected "
                  "extents for 'out' are (8, 6)");
    EXPECT_TRUE(three.paddingIntact() && small.paddingIntact()) << "a refused conversion writes nothing";
}

// Plain casts per component: truncation toward zero, low bytes, no scaling;
// over all four dimensions on the device, and on the host for host arrays.
TEST(TypeConversion, CastsEveryComponentWithoutScaling) {
    DeviceBuffer<float4> f(make_uint4(130, 3, 2, 2), vela::PITCHED_LAYOUT);
    DeviceBuffer<int4> i(make_uint4(130, 3, 2, 2), vela::LINEAR_LAYOUT);
    std::vector<float4> values(f.count());
    for (std::size_t k = 0; k < values.size(); ++k) values[k] = make_float4(k * 0.75f - 300.0f, -2.5f, 1.5f, k);
    f.upload(values);
    vela::convert(i.a, f.a, nullptr);
    const std::vector<int4> iv = i.download();
    for (std::size_t k = 0; k < values.size(); ++k)
        ASSERT_TRUE(iv[k].x == static_cast<int>(values[k].x) && iv[k].y == -2 && iv[k].z == 1 && iv[k].w == int(k));

    DeviceBuffer<float> fs(make_uint4(5, 1, 1, 1), vela::PITCHED_LAYOUT);
    DeviceBuffer<unsigned char> us(make_uint4(5, 1, 1, 1), vela::PITCHED_LAYOUT);
    fs.upload({12.7f, 256.0f, 511.9f, -3.0f, 1e12f});
    vela::convert(us.a, fs.a, nullptr);
    EXPECT_EQ(us.download(), (std::vector<unsigned char>{12, 0, 255, 0, 255}));
    EXPECT_TRUE(us.paddingIntact());

    const uint4 one = make_uint4(1, 1, 1, 1);
    DeviceBuffer<int2> i2(one, vela::PITCHED_LAYOUT, false), wrong(make_uint4(1, 2, 1, 1), vela::PITCHED_LAYOUT);
    DeviceBuffer<float2> f2(one, vela::PITCHED_LAYOUT, false), dev(one, vela::PITCHED_LAYOUT);
    i2.upload({make_int2(16777217, -3)});
    vela::convert(f2.a, i2.a, nullptr);
    EXPECT_TRUE(f2.download()[0].x == 16777216.0f && f2.download()[0].y == -3.0f);

    const std::string sig =
        "void vela::convert(vela::Array<Tout, 4>&, const vela::Array<Tin, 4>&, cudaStream_t) [with Tout = float2; Tin "
        "= int2]:  ";
    EXPECT_EQ(
        messageOf([&] { vela::convert(dev.a, i2.a, nullptr); }),
        sig + "arrays 'out' and 'in' must be on the same device.\n 'out' is on device 0\n 'in' is on device HOST");
    EXPECT_EQ(messageOf([&] { vela::convert(dev.a, wrong.a, nullptr); }),
              sig +
                  " wrong 'out' array extents. 'in'  extents are (1, 2, 1, 1) 'out' extents are (1, 1, 1, 1) "
                  "expected are the same extents. ");
}

}  // namespace
