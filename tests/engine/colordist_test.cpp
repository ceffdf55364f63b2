// Colour-distance cost maps: the spatially varying colour distribution and the
// plain distances to given colours.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "engine_test_util.h"
#include "src/PDseg_colordist.h"

namespace {

using enginetest::download;
using enginetest::ScopedPDseg;
using enginetest::upload;
using Image = seg::ScopedArray<float4, 2>;

const double kOnLabelCost = -std::log(1.001);
const double kNothingNearCost = -std::log(0.001);

// The cost of label colour c at (x, y), straight from its definition.
double referenceCost(const std::vector<float4>& labels, const std::vector<float4>& image, int w, int h, int x, int y,
                     float4 c) {
    auto isL = [&](int i, int j) {
        const float4 p = labels[j * w + i];
        return p.x == c.x && p.y == c.y && p.z == c.z;
    };
    const int x0 = std::max(0, x - 500), x1 = std::min(w, x + 501);
    const int y0 = std::max(0, y - 500), y1 = std::min(h, y + 501);
    double nearest = 1e9;
    for (int j = y0; j < y1; ++j)
        for (int i = x0; i < x1; ++i)
            if (isL(i, j)) nearest = std::min(nearest, double(i - x) * (i - x) + double(j - y) * (j - y));
    if (nearest <= 1e-4) return kOnLabelCost;
    const double s = std::sqrt(nearest) * 10 + 3, spread = 2 * s * s;
    const float4 here = image[y * w + x];
    double num = 0, den = 0;
    for (int j = y0; j < y1; ++j)
        for (int i = x0; i < x1; ++i) {
            if (!isL(i, j)) continue;
            const float4 p = image[j * w + i];
            const double dr = here.x - p.x, dg = here.y - p.y, db = here.z - p.z;
            const double ws = std::exp(-(double(i - x) * (i - x) + double(j - y) * (j - y)) / spread);
            num += ws * std::exp(-(dr * dr + dg * dg + db * db) / 5832.0);
            den += ws;
        }
    const double q = den < 1e-5 ? 0.001 : num / den + 0.001;
    return -std::log(q);
}

// Runs the spatially varying map directly and returns the costs, (l * H + y) * W + x.
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

void expectMatchesReference(const std::vector<float4>& labels, const std::vector<float4>& image, unsigned int w,
                            unsigned int h, const std::vector<float4>& colours) {
    const std::vector<float> cost = spatialCosts(labels, image, w, h, colours);
    int mismatches = 0;
    for (unsigned int l = 0; l < colours.size(); ++l)
        for (unsigned int y = 0; y < h; ++y)
            for (unsigned int x = 0; x < w; ++x) {
                const double expected = referenceCost(labels, image, w, h, x, y, colours[l]);
                const float got = cost[(l * h + y) * w + x];
                if (std::abs(got - expected) > 1e-5 + 1e-5 * std::abs(expected) && ++mismatches <= 5)
                    ADD_FAILURE() << "label " << l << " at (" << x << ", " << y << "): " << got << " vs " << expected;
            }
    EXPECT_EQ(mismatches, 0);
}

// A textured image and a label image with strokes of three colours, plus
// pixels whose colour is no label's.
struct Scene {
    unsigned int w, h;
    std::vector<float4> image, labels;
    std::vector<float4> colours = {make_float4(255, 0, 0, 0), make_float4(0, 255, 0, 0), make_float4(0, 0, 255, 9)};
    Scene(unsigned int width, unsigned int height) : w(width), h(height), image(w * h), labels(w * h) {
        for (unsigned int y = 0; y < h; ++y)
            for (unsigned int x = 0; x < w; ++x) {
                image[y * w + x] = make_float4((x * 37 + y * 11) % 256, (x * x + 3 * y) % 256, (x * y) % 256, 1);
                float4 l = make_float4(0, 0, 0, 0);
                if (y == 2 && x > 3 && x < 12) l = colours[0];
                if (x == w - 3 && y > h / 2) l = colours[1];
                if ((x + y) % 17 == 0 && y > 5) l = colours[2];
                if (x == 1 && y == h - 1) l = make_float4(7, 7, 7, 0);
                labels[y * w + x] = l;
            }
    }
};

TEST(SpatiallyVaryingCostMap, MatchesTheDefinitionOnOddSizes) {
    for (auto size : {make_uint2(37, 35), make_uint2(5, 70), make_uint2(1, 1)}) {
        Scene scene(size.x, size.y);
        expectMatchesReference(scene.labels, scene.image, scene.w, scene.h, scene.colours);
    }
}

TEST(SpatiallyVaryingCostMap, BlackLabelColourCountsEveryUnlabelledPixel) {
    Scene scene(33, 20);
    scene.colours.push_back(make_float4(0, 0, 0, 0));
    expectMatchesReference(scene.labels, scene.image, scene.w, scene.h, scene.colours);
}

TEST(SpatiallyVaryingCostMap, KnownValues) {
    // One row: l-pixels at x = 0 (colour as the query pixel) and x = 44
    // (differing by 54 in red); the query pixel x = 4 is 4 away from the nearest,
    // so s = 43 and D = 2 * 43^2.
    const unsigned int w = 50;
    std::vector<float4> image(w, make_float4(100, 50, 20, 0)), labels(w, make_float4(0, 0, 0, 0));
    const float4 red = make_float4(255, 0, 0, 0), absent = make_float4(1, 2, 3, 0);
    labels[0] = red;
    labels[44] = red;
    image[44].x += 54;
    const std::vector<float> cost = spatialCosts(labels, image, w, 1, {red, absent});
    const double spread = 2.0 * 43 * 43;
    const double near = std::exp(-16 / spread), far = std::exp(-1600 / spread);
    const double q = (near + far * std::exp(-0.5)) / (near + far) + 0.001;
    EXPECT_NEAR(cost[4], -std::log(q), 1e-6);
    EXPECT_NEAR(cost[0], kOnLabelCost, 1e-7);
    EXPECT_NEAR(cost[44], kOnLabelCost, 1e-7);
    for (unsigned int x = 0; x < w; ++x) EXPECT_NEAR(cost[w + x], kNothingNearCost, 1e-5) << "absent colour at " << x;
}

TEST(SpatiallyVaryingCostMap, NeighbourhoodEndsAt500) {
    const unsigned int w = 520;
    std::vector<float4> image(w, make_float4(10, 10, 10, 0)), labels(w, make_float4(0, 0, 0, 0));
    const float4 red = make_float4(255, 0, 0, 0);
    labels[0] = red;
    const std::vector<float> cost = spatialCosts(labels, image, w, 1, {red});
    EXPECT_LT(cost[500], 0.01f) << "500 columns away is inside";
    EXPECT_NEAR(cost[501], kNothingNearCost, 1e-5) << "501 columns away is outside";
    EXPECT_NEAR(cost[519], kNothingNearCost, 1e-5);
}

// Images wider or taller than a neighbourhood: each block sees only part of
// the image, and l-pixels sit right at the neighbourhood edges of block corners.
TEST(SpatiallyVaryingCostMap, MatchesTheDefinitionBeyondOneNeighbourhood) {
    const float4 a = make_float4(255, 0, 0, 0), b = make_float4(0, 255, 0, 0);
    for (bool wide : {true, false}) {
        const unsigned int w = wide ? 1100 : 2, h = wide ? 2 : 1100;
        std::vector<float4> labels(w * h, make_float4(0, 0, 0, 0)), image(w * h);
        for (unsigned int p = 0; p < w * h; ++p) image[p] = make_float4(p % 200, (p * 7) % 256, 40, 0);
        auto put = [&](unsigned int along, unsigned int across, float4 c) {
            labels[wide ? across * w + along : along * w + across] = c;
        };
        put(24, 0, a);
        put(524, 1, a);
        put(555, 0, b);
        put(1075, 1, b);
        put(1099, 0, a);
        expectMatchesReference(labels, image, w, h, {a, b});
    }
}

TEST(SpatiallyVaryingCostMap, RefusesArgumentsItCannotServe) {
    Scene scene(4, 4);
    Image labels(upload(scene.labels, 4, 4)), image(upload(scene.image, 4, 4)), small(upload(scene.image, 3, 4));
    seg::ScopedArray<float4, 1> colours(seg::deviceArray1D<float4>(2));
    seg::ScopedArray<float, 3> three(seg::deviceArray3D<float>(4, 4, 3)), many(seg::deviceArray3D<float>(4, 4, 129));
    EXPECT_THROW(seg::spatiallyVaryColorDistCostMap(three.a, labels.a, image.a, colours.a), std::runtime_error)
        << "fewer colours than layers";
    EXPECT_THROW(seg::spatiallyVaryColorDistCostMap(three.a, labels.a, small.a, colours.a), std::runtime_error);
    try {
        seg::spatiallyVaryColorDistCostMap(many.a, labels.a, image.a, colours.a);
        ADD_FAILURE() << "129 labels accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("129"), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("128"), std::string::npos) << e.what();
    }
}

std::string line(const char* format, float value) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

TEST(SpatiallyVaryingCostMap, ThroughTheLabelImagePrintsTheTracedPixelAndWritesLayer0) {
    // Pixel (231, 261) carries label 0 and is 5 away from label 1 (at +3, +4).
    const unsigned int w = 240, h = 270;
    std::vector<float4> labels(w * h, make_float4(0, 0, 0, 0)), pixels(w * h, make_float4(30, 60, 90, 0));
    labels[261 * w + 231] = make_float4(255, 0, 0, 0);
    labels[265 * w + 234] = make_float4(0, 255, 0, 0);
    Image dLabels(upload(labels, w, h)), dImage(upload(pixels, w, h));
    enginetest::ScratchDir scratch;
    ScopedPDseg s(dImage.a);
    s.costMapType = 1;
    testing::internal::CaptureStdout();
    s.labelImageToCostMap(dLabels.a);
    std::fflush(stdout);
    const std::string out = testing::internal::GetCapturedStdout();

    const float spread = 2.0f * 53.0f * 53.0f;  // s = 10 * 5 + 3
    const std::string expected = std::string("depth = 2\ncolors: \n0 -> 255 , 0 , 0\n1 -> 0 , 255 , 0\n") +
                                 "use spatially varying color distribution to create the cost map\n" +
                                 line("mindist= %f\n", 0.0f) + line("count= %f\n", 1.0f) +
                                 line("mindist= %f\n", 25.0f) + line("count= %f\n", std::exp(-25.0f / spread));
    EXPECT_EQ(out, expected);
    EXPECT_TRUE(std::filesystem::exists(scratch.path() / "layer0.pgm"));

    const std::vector<float> cost = download(s.costMap);
    EXPECT_NEAR(cost[261 * w + 231], kOnLabelCost, 1e-7);
    EXPECT_NEAR(cost[w * h + 261 * w + 231], -std::log(1.001), 1e-6) << "same colour as the only label-1 pixel";
    EXPECT_NEAR(cost[0], -std::log(1.001), 1e-6) << "uniform image: every l-pixel matches";
}

TEST(ImageToCostMap, EuclideanDistanceToEachColour) {
    const unsigned int w = 3, h = 2;
    std::vector<float4> pixels = {make_float4(0, 0, 0, 0),     make_float4(255, 255, 255, 0), make_float4(1, 2, 3, 4),
                                  make_float4(10, 20, 30, 40), make_float4(0, 0, 0, 9),       make_float4(4, 6, 3, 0)};
    Image image(upload(pixels, w, h));
    std::vector<float4> colours = {make_float4(255, 255, 255, 0), make_float4(1, 2, 3, 100)};
    ScopedPDseg s(image.a);
    s.imageToCostMap(image.a, colours.data(), 2);
    EXPECT_EQ(s.nLabels, 2);
    const std::vector<float> cost = download(s.costMap);
    EXPECT_NEAR(cost[0], std::sqrt(3.0f) * 255.0f, 1e-3);
    EXPECT_EQ(cost[1], 0.0f);
    EXPECT_EQ(cost[w * h + 2], 0.0f) << "the fourth component is ignored";
    EXPECT_EQ(cost[w * h + 5], 5.0f);  // (3, 4, 0)
    EXPECT_EQ(download(s.u).size(), w * h * 2);

    s.imageToCostMap(image.a, nullptr, 0);
    EXPECT_EQ(s.nLabels, 0);
    EXPECT_THROW(s.imageToCostMap(image.a, nullptr, 3), std::runtime_error);
}

}  // namespace
