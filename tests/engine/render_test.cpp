// The segmentation object (ownership, the palette), rendering a labelling as
// colours, and blending it over the input image.
#include <gtest/gtest.h>

#include <cmath>

#include "engine_test_util.h"

namespace {

using namespace enginetest;
using Labelling = seg::ScopedArray<float, 3>;

// Takes a given cost map over (a sanitizer build sees a double free or a leak
// of it) and borrows the image; the palette is there from the start.
TEST(Object, OwnsTheCostMapBorrowsTheImageAndHasThePalette) {
    Image image(upload(std::vector<float4>(12, make_float4(1, 2, 3, 4)), 4, 3));
    vela::Array<float, 3> costs = seg::deviceArray3D<float>(4, 3, 5);
    {
        ScopedPDseg s(image.a, costs);
        EXPECT_TRUE(s.nLabels == 5 && s.costMap.data == costs.data && s.u.extents.z == 5u && s.uResult.extents.x == 4u);
        const std::vector<float4> palette = download(s.colorCode);
        ASSERT_EQ(palette.size(), 100u);
        const float4 expected[] = {{255, 10, 10, 0}, {0, 0, 75, 0}, {210, 160, 210, 0}, {0, 1, 2, 0}, {59, 60, 61, 0}};
        int i = 0;
        for (int entry : {0, 27, 39, 40, 99}) EXPECT_TRUE(same(palette[entry], expected[i++])) << entry;
    }
    EXPECT_EQ(download(image.a)[11].w, 4.0f) << "the image outlives the object";
}

// 33 x 3 leaves partial 32 x 2 blocks in both directions.
constexpr unsigned int kW = 33, kH = 3;

// A W x H labelling whose pixels all hold `values`, one per label.
Labelling uniform(const std::vector<float>& values, unsigned int w = kW, unsigned int h = kH) {
    const unsigned int n = static_cast<unsigned int>(values.size());
    std::vector<float> host;
    for (float v : values) host.insert(host.end(), w * h, v);
    Labelling d(seg::deviceArray3D<float>(w, h, n));
    vela::arrayCopy(d.a, vela::arrayFromHostMemory(host.data(), make_uint3(w, h, n)));
    return d;
}

// An object with a cost map of `labels` layers, so that rendering is allowed,
// on an image of pixel(0), pixel(1), ...
float4 pixel(unsigned int i) { return make_float4(i % 256, 3 * i % 256, 7, 200); }
struct Rendering {
    Image image;
    ScopedPDseg s;
    explicit Rendering(unsigned int labels) : image(upload(pixels(), kW, kH)), s(image.a) {
        seg::ScopedArray<float, 2> none(upload(std::vector<float>(kW * kH, -1.0f), kW, kH));
        s.labelsToCostMap(none.a, static_cast<int>(labels));
    }
    static std::vector<float4> pixels() {
        std::vector<float4> p(kW * kH);
        for (unsigned int i = 0; i < p.size(); ++i) p[i] = pixel(i);
        return p;
    }
    // Renders and expects every pixel in the one colour.
    void expectColour(Labelling& labelling, bool project, float4 expected, const char* what) {
        s.computeColorRepresentation(labelling.a, project, true);
        for (const float4& c : download(s.colorImage))
            ASSERT_TRUE(same(c, expected)) << what << ": (" << c.x << ", " << c.y << ", " << c.z << ", " << c.w << ")";
    }
};

// Palette colours 0 (255, 10, 10), 1 (200, 190, 0) and 2 (10, 10, 255).
TEST(Render, HardSoftAndProjectedLabellings) {
    Rendering r(2);
    Labelling hard = uniform({0, 0, 1}), soft = uniform({0.5f, 0.5f});
    Labelling unnormalised = uniform({2, 0}), negative = uniform({-1, 0.5f});
    r.expectColour(hard, false, make_float4(10, 10, 255, 0), "label 2");
    r.expectColour(soft, false, make_float4(227.5f, 100, 5, 0), "half label 0, half label 1");
    r.expectColour(unnormalised, true, make_float4(255, 10, 10, 0), "(2, 0) projects onto label 0");
    for (float v : download(unnormalised.a)) ASSERT_TRUE(v == 2.0f || v == 0.0f) << "the labelling was changed";
    r.expectColour(negative, true, make_float4(200, 190, 0, 0), "(-1, 0.5) projects onto label 1");

    vela::device::setLastError(cudaErrorInvalidValue);  // a pending device error surfaces here
    EXPECT_EQ(messageOf([&] { r.s.computeColorRepresentation(hard.a, false, true); }),
              "src/PDseg:1686: cuda error: invalid argument\n");
}

// No cost map: an error line only (and the object is destroyed without one).
// More labels than the palette's 100 or the projection's 128: refused, naming
// both counts.
TEST(Render, RefusesWithoutCostMapOrEnoughColours) {
    Rendering r(2);
    ScopedPDseg bare(r.image.a);
    Labelling two = uniform({1, 0});
    testing::internal::CaptureStderr();
    bare.computeColorRepresentation(two.a, true, true);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR: PDseg::computeColorRepresentation(): No cost map is given\n");

    Labelling palettePlusOne = uniform(std::vector<float>(101, 0.0f), 1, 1);
    std::string message = messageOf([&] { r.s.computeColorRepresentation(palettePlusOne.a, false, true); });
    EXPECT_TRUE(message.find("101 labels") != std::string::npos && message.find("100") != std::string::npos) << message;

    Labelling tooMany = uniform(std::vector<float>(129, 0.0f), 1, 1);
    seg::ScopedArray<float4, 1> colours(seg::deviceArray1D<float4>(129));
    r.s.labelColors = colours.a;
    message = messageOf([&] { r.s.computeColorRepresentation(tooMany.a, true, false); });
    r.s.labelColors = vela::Array<float4, 1>{};
    EXPECT_TRUE(message.find("129 labels") != std::string::npos && message.find("128") != std::string::npos) << message;
}

// The image term first, the colour term fused onto it: alpha 0 gives the input
// and alpha 1 the colour image exactly.
TEST(Overlay, BlendsTheColourImageOverTheInput) {
    Rendering r(3);
    Labelling labelling = uniform({0.25f, 0.75f, 0});
    r.s.computeColorRepresentation(labelling.a, false, true);
    const std::vector<float4> colours = download(r.s.colorImage);
    for (float alpha : {0.0f, 0.4f, 1.0f}) {
        const std::vector<float4> blended = download(r.s.getColorImageOverlay(alpha));
        for (unsigned int p = 0; p < kW * kH; ++p) {
            const float4 c = colours[p], i = pixel(p);
            const float keep = 1.0f - alpha;
            const float4 want = make_float4(std::fma(alpha, c.x, keep * i.x), std::fma(alpha, c.y, keep * i.y),
                                            std::fma(alpha, c.z, keep * i.z), std::fma(alpha, c.w, keep * i.w));
            ASSERT_TRUE(same(blended[p], want)) << "alpha " << alpha << " pixel " << p;
        }
    }
    vela::device::setLastError(cudaErrorInvalidValue);
    EXPECT_EQ(messageOf([&] { r.s.getColorImageOverlay(0.4f); }), "src/ImgSeg:55: cuda error: invalid argument\n");
}

}  // namespace
