// Cost maps from sparse labels: label indices and colour-coded label images.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>

#include "engine_test_util.h"

namespace {

using namespace enginetest;

// 37 x 35 covers a full and a partial block in both directions.
constexpr unsigned int kW = 37, kH = 35;

TEST(LabelsToCostMap, IndicatorPerPixelAndLayerFromDeviceOrHostLabels) {
    const float values[] = {-0.5f, -1, 0, 0.9f, 1, 2.7f, 3, 1e10f, std::numeric_limits<float>::quiet_NaN(), -0.0f};
    const int index[] = {-1, -1, 0, 0, 1, 2, 99, 99, 99, 0};  // -1: none; 99: beyond the 3 layers
    std::vector<float> labels(kW * kH);
    for (std::size_t p = 0; p < labels.size(); ++p) labels[p] = values[p * 7 % 10];
    seg::ScopedArray<float, 2> onDevice(upload(labels, kW, kH));
    vela::Array<float, 2> onHost = vela::arrayFromHostMemory(labels.data(), make_uint2(kW, kH));
    for (vela::Array<float, 2>* given : {&onDevice.a, &onHost}) {
        Image image(upload(std::vector<float4>(kW * kH), kW, kH));
        ScopedPDseg s(image.a);
        s.labelsToCostMap(*given, 3);
        s.labelsToCostMap(*given, 3);  // rebuilt: the first arrays are released, not leaked
        EXPECT_EQ(s.nLabels, 3);
        EXPECT_EQ(s.u.extents.z, 3u);
        const std::vector<float> cost = download(s.costMap);
        for (unsigned int l = 0; l < 3; ++l)
            for (unsigned int p = 0; p < kW * kH; ++p) {
                const int k = index[p * 7 % 10];
                ASSERT_EQ(cost[l * kW * kH + p], (k == -1 || k == int(l)) ? 0.0f : 1.0f)
                    << "value " << labels[p] << " layer " << l << (given == &onHost ? " (host)" : "");
            }
    }
}

// Colour A first met at (5, 0), B at (0, 1); A2 differs from A only in its
// fourth component; every other pixel is black (-0 included).
struct LabelPicture {
    static constexpr unsigned int w = 9, h = 3;
    const float4 a{200, 10, 10, 7}, a2{200, 10, 10, 99}, b{10.5f, 250, 3, 0};
    std::vector<float4> pixels = std::vector<float4>(w * h, make_float4(0, 0, 0, 5));
    LabelPicture() {
        pixels[5] = a;
        pixels[9] = b;
        pixels[15] = a2;
        pixels[26] = b;
        pixels[20] = make_float4(-0.0f, 0, 0, 1);
    }
    static int label(unsigned int p) { return (p == 5 || p == 15) ? 0 : (p == 9 || p == 26) ? 1 : -1; }
};

TEST(LabelImageToCostMap, NumbersColoursByFirstAppearance) {
    LabelPicture picture;
    Image onDevice(upload(picture.pixels, picture.w, picture.h));
    vela::Array<float4, 2> onHost = vela::arrayFromHostMemory(picture.pixels.data(), make_uint2(picture.w, picture.h));
    for (vela::Array<float4, 2>* given : {&onDevice.a, &onHost}) {
        ScratchDir scratch;
        Image image(upload(std::vector<float4>(picture.w * picture.h), picture.w, picture.h));
        ScopedPDseg s(image.a);
        s.costMapType = given == &onHost ? 1 : 0;  // a host label image always gets the exact match
        testing::internal::CaptureStdout();
        s.labelImageToCostMap(*given);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "depth = 2\ncolors: \n0 -> 200 , 10 , 10\n1 -> 10 , 250 , 3\n");
        EXPECT_FALSE(std::filesystem::exists("layer0.pgm"));
        const std::vector<float4> colours = download(s.labelColors);
        ASSERT_EQ(colours.size(), 2u);
        EXPECT_TRUE(same(colours[0], picture.a)) << "keeps the first pixel's fourth component";
        EXPECT_TRUE(same(colours[1], picture.b));
        const std::vector<float> cost = download(s.costMap);
        for (unsigned int l = 0; l < 2; ++l)
            for (unsigned int p = 0; p < picture.w * picture.h; ++p)
                ASSERT_EQ(cost[l * picture.w * picture.h + p],
                          (picture.label(p) == -1 || picture.label(p) == int(l)) ? 0.0f : 1.0f)
                    << "layer " << l << " pixel " << p;
    }
}

TEST(LabelImageToCostMap, LabelCountsFrom0To128) {
    for (unsigned int n : {0u, 128u, 129u}) {
        std::vector<float4> colours(std::max(n, 1u), make_float4(0, 0, 0, 0));
        for (unsigned int i = 0; i < n; ++i) colours[i] = make_float4(float(i + 1), 0, 0, 0);
        const unsigned int w = static_cast<unsigned int>(colours.size());
        Image labels(upload(colours, w, 1)), image(upload(std::vector<float4>(w), w, 1));
        ScopedPDseg s(image.a);
        testing::internal::CaptureStdout();
        const std::string message = messageOf([&] { s.labelImageToCostMap(labels.a); });
        const std::string out = testing::internal::GetCapturedStdout();
        if (n == 0) {
            EXPECT_EQ(out, "depth = 0\ncolors: \n");
            EXPECT_EQ(s.nLabels, 0);
            EXPECT_EQ(s.costMap.extents.z, 0u);
        } else if (n == 128) {
            const std::vector<float> cost = download(s.costMap);
            EXPECT_EQ(cost[127 * n + 127], 0.0f);
            EXPECT_EQ(cost[127 * n + 126], 1.0f);
        } else {
            EXPECT_NE(message.find("129 labels"), std::string::npos) << message;
            EXPECT_NE(message.find("128"), std::string::npos) << message;
            EXPECT_EQ(s.nLabels, -1);
        }
    }
}

}  // namespace
