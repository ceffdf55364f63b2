// Cost maps from sparse labels: label indices, colour-coded label images, the
// spatially varying colour distribution and plain distances to given colours;
// and cost maps from given per-label probabilities.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>

#include "engine_test_util.h"
#include "src/PDseg_colour_costs.h"
#include "src/dataterms/probability_cost.h"

namespace {

using namespace enginetest;

// Layer l of an indicator cost map: 0 where label(p) is -1 (none) or l, 1
// elsewhere.
template <class Label>
void expectIndicator(const std::vector<float>& cost, unsigned int pixels, unsigned int layers, Label label) {
    ASSERT_EQ(cost.size(), pixels * layers);
    for (unsigned int l = 0; l < layers; ++l)
        for (unsigned int p = 0; p < pixels; ++p)
            ASSERT_EQ(cost[l * pixels + p], label(p) == -1 || label(p) == int(l) ? 0.0f : 1.0f)
                << "layer " << l << ", pixel " << p;
}

// 37 x 35 covers a full and a partial block in both directions.  Labels below
// 0 mark no label; a value names the layer it truncates to, none past L.
TEST(LabelsToCostMap, IndicatorPerPixelAndLayerFromDeviceOrHostLabels) {
    const unsigned int w = 37, h = 35;
    const float values[] = {-0.5f, -1, 0, 0.9f, 1, 2.7f, 3, 1e10f, std::numeric_limits<float>::quiet_NaN(), -0.0f};
    const int index[] = {-1, -1, 0, 0, 1, 2, 99, 99, 99, 0};  // -1: none; 99: beyond the 3 layers
    std::vector<float> labels(w * h);
    for (std::size_t p = 0; p < labels.size(); ++p) labels[p] = values[p * 7 % 10];
    seg::ScopedArray<float, 2> onDevice(upload(labels, w, h));
    vela::Array<float, 2> onHost = vela::arrayFromHostMemory(labels.data(), make_uint2(w, h));
    for (vela::Array<float, 2>* given : {&onDevice.a, &onHost}) {
        Image image(upload(std::vector<float4>(w * h), w, h));
        ScopedPDseg s(image.a);
        s.labelsToCostMap(*given, 3);
        s.labelsToCostMap(*given, 3);  // rebuilt: the first arrays are released, not leaked
        EXPECT_TRUE(s.nLabels == 3 && s.u.extents.z == 3u);
        SCOPED_TRACE(given == &onHost ? "host labels" : "device labels");
        expectIndicator(download(s.costMap), w * h, 3, [&](unsigned int p) { return index[p * 7 % 10]; });
    }
}

// Colour A first met at (5, 0), B at (0, 1); A2 differs from A only in its
// fourth component, and the table keeps A's; every other pixel is black (-0
// included).
TEST(LabelImageToCostMap, NumbersColoursByFirstAppearance) {
    const unsigned int w = 9, h = 3;
    const float4 a{200, 10, 10, 7}, b{10.5f, 250, 3, 0};
    std::vector<float4> pixels(w * h, make_float4(0, 0, 0, 5));
    pixels[5] = a;
    pixels[9] = pixels[26] = b;
    pixels[15] = make_float4(200, 10, 10, 99);
    pixels[20] = make_float4(-0.0f, 0, 0, 1);
    auto label = [](unsigned int p) { return (p == 5 || p == 15) ? 0 : (p == 9 || p == 26) ? 1 : -1; };
    Image onDevice(upload(pixels, w, h));
    vela::Array<float4, 2> onHost = vela::arrayFromHostMemory(pixels.data(), make_uint2(w, h));
    for (vela::Array<float4, 2>* given : {&onDevice.a, &onHost}) {
        ScratchDir scratch;
        Image image(upload(std::vector<float4>(w * h), w, h));
        ScopedPDseg s(image.a);
        s.costMapType = given == &onHost ? 1 : 0;  // a host label image always gets the exact match
        testing::internal::CaptureStdout();
        s.labelImageToCostMap(*given);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "depth = 2\ncolors: \n0 -> 200 , 10 , 10\n1 -> 10 , 250 , 3\n");
        EXPECT_FALSE(std::filesystem::exists("layer0.pgm"));
        const std::vector<float4> colours = download(s.labelColors);
        EXPECT_TRUE(colours.size() == 2 && same(colours[0], a) && same(colours[1], b)) << "first pixels' colours";
        expectIndicator(download(s.costMap), w * h, 2, label);
    }
}

TEST(LabelImageToCostMap, LabelCountsFrom0To128) {
    for (unsigned int n : {0u, 128u, 129u}) {
        std::vector<float4> colours(std::max(n, 1u), make_float4(0, 0, 0, 0));
        for (unsigned int i = 0; i < n; ++i) colours[i].x = float(i + 1);
        const unsigned int w = static_cast<unsigned int>(colours.size());
        Image labels(upload(colours, w, 1)), image(upload(std::vector<float4>(w), w, 1));
        ScopedPDseg s(image.a);
        testing::internal::CaptureStdout();
        const std::string message = messageOf([&] { s.labelImageToCostMap(labels.a); });
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_TRUE(n != 0 || (out == "depth = 0\ncolors: \n" && s.nLabels == 0 && s.costMap.extents.z == 0u)) << out;
        if (n == 128) expectIndicator(download(s.costMap), n, n, [](unsigned int p) { return int(p); });
        EXPECT_TRUE(n != 129 || (message.find("129 labels") != std::string::npos &&
                                 message.find("128") != std::string::npos && s.nLabels == -1))
            << message;
    }
}

// The cost of label colour c at (x, y), straight from its definition: the
// l-pixels within 500 in both directions, weighted by distance (on the scale
// of the nearest) and by colour similarity.
double referenceCost(const std::vector<float4>& labels, const std::vector<float4>& image, int w, int h, int x, int y,
                     float4 c) {
    std::vector<std::pair<int, int>> lPixels;
    for (int j = std::max(0, y - 500); j < std::min(h, y + 501); ++j)
        for (int i = std::max(0, x - 500); i < std::min(w, x + 501); ++i) {
            const float4 p = labels[j * w + i];
            if (p.x == c.x && p.y == c.y && p.z == c.z) lPixels.emplace_back(i, j);
        }
    auto d2 = [&](std::pair<int, int> q) {
        return double(q.first - x) * (q.first - x) + double(q.second - y) * (q.second - y);
    };
    double nearest = 1e9, num = 0, den = 0;
    for (auto q : lPixels) nearest = std::min(nearest, d2(q));
    if (nearest <= 1e-4) return -std::log(1.001);
    const double s = std::sqrt(nearest) * 10 + 3;
    for (auto q : lPixels) {
        const float4 p = image[q.second * w + q.first], here = image[y * w + x];
        const double c2 =
            (here.x - p.x) * (here.x - p.x) + (here.y - p.y) * (here.y - p.y) + (here.z - p.z) * (here.z - p.z);
        const double ws = std::exp(-d2(q) / (2 * s * s));
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
    for (uint2 size : {make_uint2(37, 35), make_uint2(1, 1), make_uint2(1100, 2), make_uint2(2, 1100)})
        for (bool black : {false, true}) {
            const unsigned int w = size.x, h = size.y, n = w * h;
            if (black && n > 2000) continue;  // the reference is quadratic
            std::vector<float4> labels(n, make_float4(0, 0, 0, 0)), image(n);
            for (unsigned int p = 0; p < n; ++p) {
                image[p] = make_float4(p * 37 % 256, p * p % 251, 40, 1);
                if (p % 97 == 24 || p == n - 1) labels[p] = a;
                if (p % 113 == 50 || p % 500 == 24) labels[p] = b;
                if (p % 89 == 3) labels[p] = make_float4(7, 7, 7, 0);
            }
            std::vector<float4> colours = {a, b, absent};
            if (black) colours.push_back(make_float4(0, 0, 0, 0));
            const std::vector<float> cost = spatialCosts(labels, image, w, h, colours);
            for (unsigned int l = 0; l < colours.size(); ++l)
                for (unsigned int p = 0; p < n; ++p) {
                    const double want = referenceCost(labels, image, w, h, p % w, p / w, colours[l]);
                    ASSERT_NEAR(cost[l * n + p], want, 1e-5 * (1 + std::abs(want)))
                        << w << " x " << h << ", label " << l << ", pixel " << p;
                }
        }
}

TEST(SpatiallyVaryingCostMap, KnownValuesAndLabelLimit) {
    // l-pixels at x = 0 (the query pixel's colour) and x = 44 (54 more red);
    // query x = 4 is 4 from the nearest, so s = 43; x = 600 has no l-pixel
    // within 500.
    std::vector<float4> image(601, make_float4(100, 50, 20, 0)), labels(601, make_float4(0, 0, 0, 0));
    const float4 red = make_float4(255, 0, 0, 0);
    labels[0] = labels[44] = red;
    image[44].x += 54;
    const std::vector<float> cost = spatialCosts(labels, image, 601, 1, {red});
    const double near = std::exp(-16 / (2.0 * 43 * 43)), far = std::exp(-1600 / (2.0 * 43 * 43));
    EXPECT_NEAR(cost[4], -std::log((near + far * std::exp(-0.5)) / (near + far) + 0.001), 1e-6);
    EXPECT_NEAR(cost[0], -std::log(1.001), 1e-7);
    EXPECT_NEAR(cost[600], -std::log(0.001), 1e-5);

    Image dLabels(upload(labels, 601, 1));
    seg::ScopedArray<float4, 1> colours(seg::deviceArray1D<float4>(129));
    seg::ScopedArray<float, 3> many(seg::deviceArray3D<float>(601, 1, 129));
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

TEST(ImageToCostMap, EuclideanDistanceToEachColourIgnoringTheFourthComponent) {
    Image image(upload(std::vector<float4>{{0, 0, 0, 0}, {1, 2, 3, 4}, {4, 6, 3, 0}}, 3, 1));
    std::vector<float4> colours = {{255, 255, 255, 0}, {1, 2, 3, 100}};
    ScopedPDseg s(image.a);
    s.imageToCostMap(image.a, colours.data(), 2);
    const std::vector<float> cost = download(s.costMap);
    EXPECT_TRUE(s.nLabels == 2 && std::abs(cost[0] - 441.673f) < 1e-3f && cost[4] == 0.0f && cost[5] == 5.0f);
}

// Against a plain loop in double: each pixel normalised by its sum, all-zero
// pixels even, unusable values (negative, NaN, infinite) read as 0, and sums
// near the float limit that would overflow if added directly.  37 x 35 covers a
// full and a partial block in both directions.
TEST(ProbabilitiesToCost, NormalisesEachPixelAsAPlainLoopDoes) {
    const unsigned int w = 37, h = 35, n = w * h;
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    const float big = std::numeric_limits<float>::max();
    const float patterns[][3] = {{0.2f, 0.3f, 0.5f}, {2, 6, 0},   {0, 0, 0},     {1e-30f, 0, 3e-30f},
                                 {-1, 0.5f, 0.5f},   {nan, 1, 3}, {inf, 1, 1},   {big, big, 0},
                                 {0, -0.0f, 0},      {7, 7, 7},   {0, 0, 1e-40f}};
    const unsigned int kinds = sizeof patterns / sizeof patterns[0];
    for (unsigned int layers : {1u, 3u}) {
        std::vector<float> given(n * layers);
        for (unsigned int p = 0; p < n; ++p)
            for (unsigned int l = 0; l < layers; ++l) given[l * n + p] = patterns[p * 5 % kinds][l];
        seg::ScopedArray<float, 3> probabilities(seg::deviceArray3D<float>(w, h, layers));
        vela::arrayCopy(probabilities.a, vela::arrayFromHostMemory(given.data(), w, h, layers));
        seg::ScopedArray<float, 3> cost(seg::deviceArray3D<float>(w, h, layers));
        probabilitiesToCost(cost.a, probabilities.a);
        const std::vector<float> got = download(cost.a);
        for (unsigned int p = 0; p < n; ++p) {
            double sum = 0;
            auto usable = [&](unsigned int l) {
                const double v = given[l * n + p];
                return std::isfinite(v) && v > 0 ? v : 0.0;
            };
            for (unsigned int l = 0; l < layers; ++l) sum += usable(l);
            for (unsigned int l = 0; l < layers; ++l) {
                const double q = sum > 0 ? usable(l) / sum : 1.0 / layers;
                const double want = std::log(q + 0.001) / std::log(0.001);
                ASSERT_NEAR(got[l * n + p], want, 1e-5 + 1e-5 * std::abs(want))
                    << "pixel " << p << " (pattern " << p * 5 % kinds << "), layer " << l << " of " << layers;
            }
        }
    }
    seg::ScopedArray<float, 3> a(seg::deviceArray3D<float>(4, 3, 2)), b(seg::deviceArray3D<float>(4, 3, 3));
    EXPECT_THROW(probabilitiesToCost(a.a, b.a), std::invalid_argument);
}

}  // namespace
