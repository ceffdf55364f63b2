// Colour-distance cost maps: the spatially varying colour distribution and the
// plain distances to given colours.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "engine_test_util.h"
#include "src/PDseg_colordist.h"

namespace {

using namespace enginetest;

// The cost of label colour c at (x, y), straight from its definition.
double referenceCost(const std::vector<float4>& labels, const std::vector<float4>& image, int w, int h, int x, int y,
                     float4 c) {
    const int x0 = std::max(0, x - 500), x1 = std::min(w, x + 501), y0 = std::max(0, y - 500),
              y1 = std::min(h, y + 501);
    auto isL = [&](int i, int j) {
        const float4 p = labels[j * w + i];
        return p.x == c.x && p.y == c.y && p.z == c.z;
    };
    double nearest = 1e9, num = 0, den = 0;
    for (int j = y0; j < y1; ++j)
        for (int i = x0; i < x1; ++i)
            if (isL(i, j)) nearest = std::min(nearest, double(i - x) * (i - x) + double(j - y) * (j - y));
    if (nearest <= 1e-4) return -std::log(1.001);
    const double s = std::sqrt(nearest) * 10 + 3;
    for (int j = y0; j < y1; ++j)
        for (int i = x0; i < x1; ++i) {
            if (!isL(i, j)) continue;
            const float4 p = image[j * w + i], q = image[y * w + x];
            const double c2 = (q.x - p.x) * (q.x - p.x) + (q.y - p.y) * (q.y - p.y) + (q.z - p.z) * (q.z - p.z);
            const double ws = std::exp(-(double(i - x) * (i - x) + double(j - y) * (j - y)) / (2 * s * s));
            num += ws * std::exp(-c2 / 5832.0);
            den += ws;
        }
    return -std::log(den < 1e-5 ? 0.001 : num / den + 0.001);
}

std::vector<float> spatialCosts(const std::vector<float4>& labels, const std::vector<float4>& image, unsigned int w,
                                unsigned int h, std::vector<float4> colours) {
    Image dLabels(upload(labels, w, h)), dImage(upload(image, w, h));
    const unsigned int n = static_cast<unsigned int>(colours.size());
    seg::ScopedArray<float4, 1> dColours(seg::deviceArray1D<float4>(n));
    vela::arrayCopy(dColours.a, seg::hostView1D(colours.data(), n));
    seg::ScopedArray<float, 3> cost(seg::deviceArray3D<float>(w, h, n));
    seg::spatiallyVaryColorDistCostMap(cost.a, dLabels.a, dImage.a, dColours.a);
    vela::_CHECK_CUDA_ERROR("colordist_test", __LINE__);
    return download(cost.a);
}

// Odd sizes; images wider or taller than a neighbourhood, with l-pixels at the
// neighbourhood edges of block corners; a colour no pixel has; a black label
// colour, which makes every unlabelled pixel an l-pixel.
TEST(SpatiallyVaryingCostMap, MatchesTheDefinition) {
    const float4 a = make_float4(255, 0, 0, 0), b = make_float4(0, 255, 0, 0), absent = make_float4(1, 2, 3, 0);
    for (uint2 size : {make_uint2(37, 35), make_uint2(1, 1), make_uint2(1100, 2), make_uint2(2, 1100)}) {
        for (bool withBlack : {false, true}) {
            const unsigned int w = size.x, h = size.y, n = w * h;
            if (withBlack && n > 2000) continue;  // the reference is quadratic
            std::vector<float4> labels(n, make_float4(0, 0, 0, 0)), image(n);
            for (unsigned int p = 0; p < n; ++p) {
                image[p] = make_float4(p * 37 % 256, p * p % 251, 40, 1);
                if (p % 97 == 24 || p == n - 1) labels[p] = a;
                if (p % 113 == 50 || p % 500 == 24) labels[p] = b;
                if (p % 89 == 3) labels[p] = make_float4(7, 7, 7, 0);
            }
            std::vector<float4> colours = {a, b, absent};
            if (withBlack) colours.push_back(make_float4(0, 0, 0, 0));
            const std::vector<float> cost = spatialCosts(labels, image, w, h, colours);
            int bad = 0;
            for (unsigned int l = 0; l < colours.size(); ++l)
                for (unsigned int p = 0; p < n; ++p) {
                    const double want = referenceCost(labels, image, w, h, p % w, p / w, colours[l]);
                    if (std::abs(cost[l * n + p] - want) > 1e-5 * (1 + std::abs(want)) && ++bad < 5)
                        ADD_FAILURE() << w << "x" << h << " label " << l << " pixel " << p << ": " << cost[l * n + p]
                                      << " vs " << want;
                }
            EXPECT_EQ(bad, 0);
        }
    }
}

TEST(SpatiallyVaryingCostMap, KnownValuesAndLabelLimit) {
    // l-pixels at x = 0 (the query pixel's colour) and x = 44 (54 more red);
    // query x = 4 is 4 from the nearest, so s = 43.
    std::vector<float4> image(50, make_float4(100, 50, 20, 0)), labels(50, make_float4(0, 0, 0, 0));
    const float4 red = make_float4(255, 0, 0, 0);
    labels[0] = labels[44] = red;
    image[44].x += 54;
    const std::vector<float> cost = spatialCosts(labels, image, 50, 1, {red});
    const double near = std::exp(-16 / (2.0 * 43 * 43)), far = std::exp(-1600 / (2.0 * 43 * 43));
    EXPECT_NEAR(cost[4], -std::log((near + far * std::exp(-0.5)) / (near + far) + 0.001), 1e-6);
    EXPECT_NEAR(cost[0], -std::log(1.001), 1e-7);

    Image dLabels(upload(labels, 50, 1));
    seg::ScopedArray<float4, 1> colours(seg::deviceArray1D<float4>(129));
    seg::ScopedArray<float, 3> many(seg::deviceArray3D<float>(50, 1, 129));
    const std::string message =
        messageOf([&] { seg::spatiallyVaryColorDistCostMap(many.a, dLabels.a, dLabels.a, colours.a); });
    EXPECT_NE(message.find("129 labels"), std::string::npos) << message;
}

TEST(SpatiallyVaryingCostMap, FromALabelImageTracesPixel231_261AndWritesLayer0) {
    // (231, 261) carries label 0 and is 5 from the only label-1 pixel.
    const unsigned int w = 240, h = 270;
    std::vector<float4> labels(w * h, make_float4(0, 0, 0, 0));
    labels[261 * w + 231] = make_float4(255, 0, 0, 0);
    labels[265 * w + 234] = make_float4(0, 255, 0, 0);
    Image dLabels(upload(labels, w, h)), dImage(upload(std::vector<float4>(w * h, make_float4(30, 60, 90, 0)), w, h));
    ScratchDir scratch;
    ScopedPDseg s(dImage.a);
    s.costMapType = 1;
    testing::internal::CaptureStdout();
    s.labelImageToCostMap(dLabels.a);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "depth = 2\ncolors: \n0 -> 255 , 0 , 0\n1 -> 0 , 255 , 0\n"
              "use spatially varying color distribution to create the cost map\n"
              "mindist= 0.000000\ncount= 1.000000\nmindist= 25.000000\ncount= 0.995560\n");  // exp(-25 / (2 * 53^2))
    EXPECT_TRUE(std::filesystem::exists("layer0.pgm"));
    EXPECT_NEAR(download(s.costMap)[w * h + 261 * w + 231], -std::log(1.001), 1e-6);
}

TEST(ImageToCostMap, EuclideanDistanceToEachColour) {
    Image image(
        upload(std::vector<float4>{make_float4(0, 0, 0, 0), make_float4(1, 2, 3, 4), make_float4(4, 6, 3, 0)}, 3, 1));
    std::vector<float4> colours = {make_float4(255, 255, 255, 0), make_float4(1, 2, 3, 100)};
    ScopedPDseg s(image.a);
    s.imageToCostMap(image.a, colours.data(), 2);
    EXPECT_EQ(s.nLabels, 2);
    const std::vector<float> cost = download(s.costMap);
    EXPECT_NEAR(cost[0], 441.673f, 1e-3);
    EXPECT_EQ(cost[4], 0.0f) << "the fourth component is ignored";
    EXPECT_EQ(cost[5], 5.0f);
}

}  // namespace
