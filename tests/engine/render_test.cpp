// Rendering a labelling as colours and blending it over the input image.
#include <gtest/gtest.h>

#include <cmath>

#include "engine_test_util.h"

namespace {

using namespace enginetest;
using Labelling = seg::ScopedArray<float, 3>;

// 33 x 3 leaves partial 32 x 2 blocks in both directions.
constexpr unsigned int kW = 33, kH = 3;

// A W x H labelling whose pixels all hold `values`, one per label.
Labelling uniform(const std::vector<float>& values, unsigned int w = kW, unsigned int h = kH) {
    const unsigned int n = static_cast<unsigned int>(values.size());
    std::vector<float> host(w * h * n);
    for (unsigned int l = 0; l < n; ++l) std::fill_n(host.begin() + l * w * h, w * h, values[l]);
    Labelling d(seg::deviceArray3D<float>(w, h, n));
    vela::arrayCopy(d.a, vela::arrayFromHostMemory(host.data(), make_uint3(w, h, n)));
    return d;
}

// An object with a cost map of `labels` layers, so that rendering is allowed.
struct Rendering {
    std::vector<float4> pixels;
    Image image;
    ScopedPDseg s;
    explicit Rendering(unsigned int labels) : pixels(makePixels()), image(upload(pixels, kW, kH)), s(image.a) {
        seg::ScopedArray<float, 2> none(upload(std::vector<float>(kW * kH, -1.0f), kW, kH));
        s.labelsToCostMap(none.a, static_cast<int>(labels));
    }
    static std::vector<float4> makePixels() {
        std::vector<float4> p(kW * kH);
        for (unsigned int i = 0; i < p.size(); ++i) p[i] = make_float4(i % 256, 3 * i % 256, 7, 200);
        return p;
    }
    void expectColour(float4 expected, const char* what) {
        for (const float4& c : download(s.colorImage))
            ASSERT_TRUE(same(c, expected)) << what << ": (" << c.x << ", " << c.y << ", " << c.z << ", " << c.w << ")";
    }
};

TEST(Render, HardSoftAndProjectedLabellings) {
    Rendering r(2);
    Labelling hard = uniform({0, 0, 1});
    r.s.computeColorRepresentation(hard.a, false, true);
    r.expectColour(make_float4(10, 10, 255, 0), "label 2");
    Labelling soft = uniform({0.5f, 0.5f});
    r.s.computeColorRepresentation(soft.a, false, true);
    r.expectColour(make_float4(227.5f, 100, 5, 0), "half label 0, half label 1");

    Labelling unnormalised = uniform({2, 0});
    r.s.computeColorRepresentation(unnormalised.a, true, true);
    r.expectColour(make_float4(255, 10, 10, 0), "(2, 0) projects onto label 0");
    for (float v : download(unnormalised.a)) ASSERT_TRUE(v == 2.0f || v == 0.0f) << "the labelling was changed";
    Labelling negative = uniform({-1, 0.5f});
    r.s.computeColorRepresentation(negative.a, true, true);
    r.expectColour(make_float4(200, 190, 0, 0), "(-1, 0.5) projects onto label 1");

    vela::device::setLastError(cudaErrorInvalidValue);  // a pending device error surfaces here
    EXPECT_EQ(messageOf([&] { r.s.computeColorRepresentation(hard.a, false, true); }),
              "src/PDseg:1686: cuda error: invalid argument\n");
}

TEST(Render, RefusesWithoutCostMapOrEnoughColours) {
    Rendering r(2);
    testing::internal::CaptureStderr();
    r.s.nLabels = -1;
    Labelling two = uniform({1, 0});
    r.s.computeColorRepresentation(two.a, true, true);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR: PDseg::computeColorRepresentation(): No cost map is given\n");
    r.s.nLabels = 2;

    Labelling palettePlusOne = uniform(std::vector<float>(101, 0.0f), 1, 1);
    std::string message = messageOf([&] { r.s.computeColorRepresentation(palettePlusOne.a, false, true); });
    EXPECT_NE(message.find("101 labels"), std::string::npos) << message;
    EXPECT_NE(message.find("100"), std::string::npos) << message;

    Labelling tooMany = uniform(std::vector<float>(129, 0.0f), 1, 1);
    seg::ScopedArray<float4, 1> colours(seg::deviceArray1D<float4>(129));
    r.s.labelColors = colours.a;
    message = messageOf([&] { r.s.computeColorRepresentation(tooMany.a, true, false); });
    r.s.labelColors = vela::Array<float4, 1>{};
    EXPECT_NE(message.find("129 labels"), std::string::npos) << message;
    EXPECT_NE(message.find("128"), std::string::npos) << message;
}

TEST(Overlay, BlendsTheColourImageOverTheInput) {
    Rendering r(3);
    Labelling labelling = uniform({0.25f, 0.75f, 0});
    r.s.computeColorRepresentation(labelling.a, false, true);
    const std::vector<float4> colours = download(r.s.colorImage);
    for (float alpha : {0.0f, 0.4f, 1.0f}) {
        const std::vector<float4> blended = download(r.s.getColorImageOverlay(alpha));
        for (unsigned int p = 0; p < kW * kH; ++p) {
            const float4 c = colours[p], i = r.pixels[p];
            const float keep = 1.0f - alpha;
            const float4 want = make_float4(std::fma(alpha, c.x, keep * i.x), std::fma(alpha, c.y, keep * i.y),
                                            std::fma(alpha, c.z, keep * i.z), std::fma(alpha, c.w, keep * i.w));
            ASSERT_TRUE(same(blended[p], want)) << "alpha " << alpha << " pixel " << p;
            ASSERT_TRUE(alpha != 0.0f || same(blended[p], i)) << "alpha 0 is the input";
            ASSERT_TRUE(alpha != 1.0f || same(blended[p], c)) << "alpha 1 is the colour image";
        }
    }
    vela::device::setLastError(cudaErrorInvalidValue);
    EXPECT_EQ(messageOf([&] { r.s.getColorImageOverlay(0.4f); }), "src/ImgSeg:55: cuda error: invalid argument\n");
}

}  // namespace
