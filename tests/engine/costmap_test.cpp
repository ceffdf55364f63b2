// Cost maps from sparse labels: label indices and colour-coded label images.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "engine_test_util.h"

namespace {

using enginetest::download;
using enginetest::ScopedPDseg;
using enginetest::upload;
using Image = seg::ScopedArray<float4, 2>;

template <class F>
std::string messageOf(F&& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no exception>";
}

// 37 x 35 covers a full and a partial block in both directions.
constexpr unsigned int kW = 37, kH = 35;

Image blankImage(unsigned int w = kW, unsigned int h = kH) {
    return Image(upload(std::vector<float4>(w * h, make_float4(0, 0, 0, 0)), w, h));
}

TEST(LabelsToCostMap, IndicatorPerPixelAndLayer) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const std::vector<float> values = {-0.5f, -1.0f, 0.0f, 0.9f, 1.0f, 2.7f, 3.0f, 17.0f, 1e10f, nan, -0.0f};
    std::vector<float> labels(kW * kH);
    for (std::size_t i = 0; i < labels.size(); ++i) labels[i] = values[(i * 7) % values.size()];
    // The label index each value stands for; -1 none, 99 one beyond the layers.
    auto indexOf = [](float v) { return v < 0 ? -1 : (v < 3.0f ? static_cast<int>(v) : 99); };

    seg::ScopedArray<float, 2> onDevice(upload(labels, kW, kH));
    vela::Array<float, 2> onHost = vela::arrayFromHostMemory(labels.data(), make_uint2(kW, kH));
    for (vela::Array<float, 2>* given : {&onDevice.a, &onHost}) {
        Image image = blankImage();
        ScopedPDseg s(image.a);
        s.labelsToCostMap(*given, 3);
        EXPECT_EQ(s.nLabels, 3);
        for (const auto* a : {&s.costMap, &s.u, &s.uResult}) {
            ASSERT_NE(a->data, nullptr);
            EXPECT_EQ(a->extents.x, kW);
            EXPECT_EQ(a->extents.y, kH);
            EXPECT_EQ(a->extents.z, 3u);
        }
        const std::vector<float> cost = download(s.costMap);
        for (unsigned int l = 0; l < 3; ++l)
            for (unsigned int p = 0; p < kW * kH; ++p) {
                const int k = indexOf(labels[p]);
                const float expected = (k == -1 || k == static_cast<int>(l)) ? 0.0f : 1.0f;
                ASSERT_EQ(cost[l * kW * kH + p], expected) << "value " << labels[p] << " layer " << l << " pixel " << p
                                                           << (given == &onHost ? " (host labels)" : "");
            }
    }
}

TEST(LabelsToCostMap, LabelCountsZeroNegativeAndRebuilt) {
    Image image = blankImage();
    seg::ScopedArray<float, 2> labels(upload(std::vector<float>(kW * kH, 0.0f), kW, kH));
    ScopedPDseg s(image.a);
    s.labelsToCostMap(labels.a, 0);
    EXPECT_EQ(s.nLabels, 0);
    EXPECT_EQ(s.costMap.data, nullptr);
    EXPECT_EQ(s.costMap.extents.x, kW);
    EXPECT_EQ(s.costMap.extents.z, 0u);

    EXPECT_NE(messageOf([&] { s.labelsToCostMap(labels.a, -2); }).find("-2"), std::string::npos);
    EXPECT_EQ(s.nLabels, 0) << "a refused call leaves the object as it was";

    // A second build replaces the arrays (sanitizer builds see a leak otherwise).
    s.labelsToCostMap(labels.a, 2);
    s.labelsToCostMap(labels.a, 4);
    EXPECT_EQ(s.costMap.extents.z, 4u);
    EXPECT_EQ(download(s.costMap)[kW * kH * 3], 1.0f);
}

// Colours: A first met at (5, 0), B at (0, 1); A2 is A with another fourth
// component; everything else is black.
struct LabelPicture {
    static constexpr unsigned int w = 9, h = 3;
    const float4 a{200, 10, 10, 7};
    const float4 a2{200, 10, 10, 99};
    const float4 b{10.5f, 250, 3, 0};
    std::vector<float4> pixels = std::vector<float4>(w * h, make_float4(0, 0, 0, 5));
    LabelPicture() {
        pixels[5] = a;
        pixels[1 * w + 0] = b;
        pixels[1 * w + 6] = a2;
        pixels[2 * w + 8] = b;
        pixels[2 * w + 2] = make_float4(-0.0f, 0, 0, 1);  // still black
    }
    int labelAt(unsigned int p) const {
        if (p == 5 || p == 1 * w + 6) return 0;
        if (p == 1 * w + 0 || p == 2 * w + 8) return 1;
        return -1;
    }
};

TEST(LabelImageToCostMap, NumbersColoursByFirstAppearanceOnDeviceAndHost) {
    LabelPicture picture;
    const std::string listing = "depth = 2\ncolors: \n0 -> 200 , 10 , 10\n1 -> 10 , 250 , 3\n";
    Image onDevice(upload(picture.pixels, picture.w, picture.h));
    vela::Array<float4, 2> onHost = vela::arrayFromHostMemory(picture.pixels.data(), make_uint2(picture.w, picture.h));
    for (vela::Array<float4, 2>* given : {&onDevice.a, &onHost}) {
        const bool host = given == &onHost;
        enginetest::ScratchDir scratch;
        Image image = blankImage(picture.w, picture.h);
        ScopedPDseg s(image.a);
        s.costMapType = host ? 1 : 0;  // a host label image always gets the exact match
        testing::internal::CaptureStdout();
        s.labelImageToCostMap(*given);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), listing);
        EXPECT_FALSE(std::filesystem::exists("layer0.pgm"));

        ASSERT_EQ(s.nLabels, 2);
        ASSERT_EQ(s.labelColors.extents.x, 2u);
        std::vector<float4> colours(2);
        auto hostColours = seg::hostView1D(colours.data(), 2);
        vela::arrayCopy(hostColours, s.labelColors);
        EXPECT_TRUE(enginetest::sameColour(colours[0], picture.a)) << "keeps the first pixel's fourth component";
        EXPECT_TRUE(enginetest::sameColour(colours[1], picture.b));

        const std::vector<float> cost = download(s.costMap);
        const unsigned int n = picture.w * picture.h;
        for (unsigned int l = 0; l < 2; ++l)
            for (unsigned int p = 0; p < n; ++p) {
                const int k = picture.labelAt(p);
                ASSERT_EQ(cost[l * n + p], (k == -1 || k == static_cast<int>(l)) ? 0.0f : 1.0f)
                    << "layer " << l << " pixel " << p << (host ? " (host)" : "");
            }
    }
}

TEST(LabelImageToCostMap, BlackImageHasNoLabels) {
    Image labels = blankImage();
    Image image = blankImage();
    ScopedPDseg s(image.a);
    testing::internal::CaptureStdout();
    s.labelImageToCostMap(labels.a);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "depth = 0\ncolors: \n");
    EXPECT_EQ(s.nLabels, 0);
    EXPECT_EQ(s.costMap.extents.z, 0u);
    EXPECT_EQ(s.labelColors.data, nullptr);
}

// n distinct colours, one per pixel of an n x 1 image.
std::vector<float4> distinctColours(unsigned int n) {
    std::vector<float4> c(n);
    for (unsigned int i = 0; i < n; ++i) c[i] = make_float4(static_cast<float>(i + 1), 0, 0, 0);
    return c;
}

TEST(LabelImageToCostMap, HoldsUpTo128Colours) {
    for (unsigned int n : {128u, 129u, 300u}) {
        Image labels(upload(distinctColours(n), n, 1));
        Image image = blankImage(n, 1);
        ScopedPDseg s(image.a);
        testing::internal::CaptureStdout();
        const std::string message = messageOf([&] { s.labelImageToCostMap(labels.a); });
        testing::internal::GetCapturedStdout();
        if (n == 128) {
            EXPECT_EQ(message, "<no exception>");
            const std::vector<float> cost = download(s.costMap);
            EXPECT_EQ(cost[127 * n + 127], 0.0f);
            EXPECT_EQ(cost[127 * n + 126], 1.0f);
        } else {
            EXPECT_NE(message.find(std::to_string(n)), std::string::npos) << message;
            EXPECT_NE(message.find("128"), std::string::npos) << message;
            EXPECT_EQ(s.nLabels, -1);
        }
    }
}

TEST(LabelImageToCostMapDeathTest, UnknownCostMapTypeEndsTheProcessWithStatusZero) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    LabelPicture picture;
    Image labels(upload(picture.pixels, picture.w, picture.h));
    Image image = blankImage(picture.w, picture.h);
    ScopedPDseg s(image.a);
    s.costMapType = 2;
    EXPECT_EXIT(s.labelImageToCostMap(labels.a), testing::ExitedWithCode(0),
                "This choice of creating the cost map does not exist!");
}

}  // namespace
