// The segmentation object: defaults, step parameters, ownership and the palette.
#include <gtest/gtest.h>

#include <vector>

#include "engine_test_util.h"

namespace {

using enginetest::download;
using enginetest::ScopedPDseg;
using enginetest::upload;

using Image = seg::ScopedArray<float4, 2>;

vela::Array<float4, 2> someImage(unsigned int w, unsigned int h) {
    return upload(std::vector<float4>(w * h, make_float4(1, 2, 3, 4)), w, h);
}

void expectDefaults(const PDseg& s) {
    EXPECT_EQ(s.nLabels, -1);
    EXPECT_EQ(s.nIterations, 100);
    EXPECT_EQ(s.lambda, 10.0f);
    EXPECT_EQ(s.diffusivityType, 0);
    EXPECT_EQ(s.alpha, 0.5f);
    EXPECT_EQ(s.costMapType, 0);
    EXPECT_EQ(s.model, PDseg::WEIGHTED_TV);
}

TEST(Object, FreshAndReinitialisedObjectsHoldTheDefaults) {
    Image image(someImage(5, 3));
    ScopedPDseg s(image.a);
    expectDefaults(s);
    EXPECT_EQ(s.name, "PDseg");
    EXPECT_EQ(s.labelColors.data, nullptr);
    EXPECT_EQ(s.labelColors.extents.x, 0u);
    EXPECT_EQ(s.image.data, image.a.data) << "the image is borrowed, not copied";
    EXPECT_EQ(s.colorImage.extents.x, 5u);
    EXPECT_EQ(s.overlayImage.extents.y, 3u);
    EXPECT_EQ(s.costMap.data, nullptr);

    s.nIterations = 7;
    s.lambda = 1.0f;
    s.diffusivityType = 1;
    s.alpha = 2.0f;
    s.costMapType = 1;
    s.model = PDseg::ANISOTROPIC_TV;
    s.tau = 42.0f;
    s.init();
    expectDefaults(s);
    EXPECT_EQ(s.tau, 42.0f) << "init() leaves the step parameters alone";
}

TEST(Object, StepParametersFollowTheModel) {
    Image image(someImage(2, 2));
    ScopedPDseg s(image.a);
    for (auto m : {PDseg::TV, PDseg::WEIGHTED_TV, PDseg::WEIGHTED_TV_FAST}) {
        s.setAlgorithmParameter(m);
        EXPECT_EQ(s.tau, 0.1f);
        EXPECT_EQ(s.sigma, 1.25f);
        EXPECT_EQ(s.normBound, 8.0f);
    }
    s.setAlgorithmParameter(PDseg::ANISOTROPIC_TV);
    EXPECT_EQ(s.tau, 1.0f);
    EXPECT_EQ(s.sigma, 0.083333336f);
    EXPECT_EQ(s.normBound, 12.0f);
    s.setAlgorithmParameter(PDseg::ANISOTROPIC_EXP_TV);
    EXPECT_EQ(s.tau, 1.0f);
    EXPECT_EQ(s.sigma, 0.05f);
    EXPECT_EQ(s.normBound, 20.0f);
}

TEST(ObjectDeathTest, UndefinedModelEndsTheProcessWithStatusZero) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Image image(someImage(2, 2));
    ScopedPDseg s(image.a);
    const char* message = "ERROR: PDseg::setAlgorithmParameter\\(\\): algorithm parameters not defined for this model";
    EXPECT_EXIT(s.setAlgorithmParameter(static_cast<PDseg::SegmentationModel>(5)), testing::ExitedWithCode(0), message);
    EXPECT_EXIT(s.setAlgorithmParameter(static_cast<PDseg::SegmentationModel>(-1)), testing::ExitedWithCode(0),
                message);
}

// Sanitizer builds catch a double free or a leak of the taken-over cost map.
TEST(Object, TakesTheGivenCostMapOver) {
    Image image(someImage(4, 3));
    vela::Array<float, 3> costs = seg::deviceArray3D<float>(4, 3, 5);
    {
        ScopedPDseg s(image.a, costs);
        EXPECT_EQ(s.nLabels, 5);
        EXPECT_EQ(s.costMap.data, costs.data);
        for (const auto* a : {&s.u, &s.uResult}) {
            EXPECT_NE(a->data, nullptr);
            EXPECT_EQ(a->extents.x, 4u);
            EXPECT_EQ(a->extents.y, 3u);
            EXPECT_EQ(a->extents.z, 5u);
        }
        expectDefaults(ScopedPDseg(image.a));
    }
    // The image is still the caller's and still alive.
    EXPECT_EQ(download(image.a)[11].w, 4.0f);
}

TEST(Object, PaletteMatchesTheFixedTable) {
    // Rows of the table as (R, G, B) per index.
    const float picked[40][3] = {{255, 10, 10},   {200, 190, 0},   {10, 10, 255},   {0, 180, 0},     {255, 0, 255},
                                 {0, 255, 255},   {0, 255, 0},     {180, 0, 0},     {255, 130, 0},   {180, 0, 180},
                                 {0, 0, 130},     {170, 170, 170}, {100, 100, 100}, {240, 100, 80},  {0, 100, 255},
                                 {255, 70, 30},   {10, 10, 10},    {200, 200, 70},  {90, 0, 90},     {10, 100, 50},
                                 {0, 150, 25},    {180, 75, 10},   {70, 70, 255},   {100, 30, 170},  {255, 100, 170},
                                 {30, 0, 200},    {100, 0, 0},     {0, 0, 75},      {100, 255, 100}, {255, 100, 100},
                                 {50, 80, 200},   {120, 180, 120}, {140, 100, 0},   {70, 100, 0},    {70, 140, 140},
                                 {100, 200, 200}, {235, 235, 100}, {180, 200, 0},   {200, 70, 250},  {210, 160, 210}};
    Image image(someImage(1, 1));
    ScopedPDseg s(image.a);
    ASSERT_EQ(s.colorCode.extents.x, 100u);
    ASSERT_NE(s.colorCode.device, vela::kHostDevice);
    std::vector<float4> palette(100);
    auto host = seg::hostView1D(palette.data(), 100);
    vela::arrayCopy(host, s.colorCode);
    for (int i = 0; i < 40; ++i) {
        EXPECT_TRUE(enginetest::sameColour(palette[i], make_float4(picked[i][0], picked[i][1], picked[i][2], 0)))
            << "entry " << i;
    }
    for (int i = 40; i < 100; ++i) {
        const float r = static_cast<float>(i - 40);
        EXPECT_TRUE(enginetest::sameColour(palette[i], make_float4(r, r + 1, r + 2, 0))) << "entry " << i;
    }
    EXPECT_TRUE(enginetest::sameColour(palette[99], make_float4(59, 60, 61, 0)));
}

}  // namespace
