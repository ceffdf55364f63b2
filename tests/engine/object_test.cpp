// The segmentation object: defaults, step parameters, ownership and the palette.
#include <gtest/gtest.h>

#include "engine_test_util.h"

namespace {

using namespace enginetest;

void expectDefaults(const PDseg& s) {
    EXPECT_EQ(s.nLabels, -1);
    EXPECT_EQ(s.nIterations, 100);
    EXPECT_EQ(s.lambda, 10.0f);
    EXPECT_EQ(s.diffusivityType, 0);
    EXPECT_EQ(s.alpha, 0.5f);
    EXPECT_EQ(s.costMapType, 0);
    EXPECT_EQ(s.model, PDseg::WEIGHTED_TV);
}

TEST(Object, DefaultsStepParametersAndPalette) {
    Image image(upload(std::vector<float4>(6), 3, 2));
    ScopedPDseg s(image.a);  // destroyed without a cost map
    expectDefaults(s);
    EXPECT_EQ(s.labelColors.data, nullptr);
    s.nIterations = 7;
    s.costMapType = 1;
    s.model = PDseg::ANISOTROPIC_TV;
    s.init();
    expectDefaults(s);

    const float rows[5][3] = {
        {8, 0.1f, 1.25f}, {8, 0.1f, 1.25f}, {8, 0.1f, 1.25f}, {12, 1, 0.083333336f}, {20, 1, 0.05f}};
    for (int m = 0; m < 5; ++m) {
        s.setAlgorithmParameter(static_cast<PDseg::SegmentationModel>(m));
        EXPECT_EQ(s.normBound, rows[m][0]) << m;
        EXPECT_EQ(s.tau, rows[m][1]) << m;
        EXPECT_EQ(s.sigma, rows[m][2]) << m;
    }

    const std::vector<float4> palette = download(s.colorCode);
    ASSERT_EQ(palette.size(), 100u);
    const float4 expected[] = {{255, 10, 10, 0}, {0, 0, 75, 0}, {210, 160, 210, 0}, {0, 1, 2, 0}, {59, 60, 61, 0}};
    int i = 0;
    for (int entry : {0, 27, 39, 40, 99}) EXPECT_TRUE(same(palette[entry], expected[i++])) << entry;
}

TEST(ObjectDeathTest, UndefinedModelEndsTheProcessWithStatusZero) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Image image(upload(std::vector<float4>(1), 1, 1));
    ScopedPDseg s(image.a);
    for (int m : {5, -1})
        EXPECT_EXIT(s.setAlgorithmParameter(static_cast<PDseg::SegmentationModel>(m)), testing::ExitedWithCode(0),
                    "ERROR: PDseg::setAlgorithmParameter\\(\\): algorithm parameters not defined for this model");
}

// Sanitizer builds catch a double free or a leak of the taken-over cost map.
TEST(Object, TakesTheGivenCostMapOverAndBorrowsTheImage) {
    Image image(upload(std::vector<float4>(12, make_float4(1, 2, 3, 4)), 4, 3));
    vela::Array<float, 3> costs = seg::deviceArray3D<float>(4, 3, 5);
    {
        ScopedPDseg s(image.a, costs);
        EXPECT_EQ(s.nLabels, 5);
        EXPECT_EQ(s.costMap.data, costs.data);
        EXPECT_EQ(s.u.extents.z, 5u);
        EXPECT_EQ(s.uResult.extents.x, 4u);
    }
    EXPECT_EQ(download(image.a)[11].w, 4.0f) << "the image outlives the object";
}

}  // namespace
