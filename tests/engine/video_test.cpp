// Frames that start from the one before: the motion the tracks give, the
// previous frame's layers moved along it, and the state a whole-folder run
// carries from frame to frame.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "engine_test_util.h"
#include "src/video/motion.h"
#include "src/video/motion_cells.h"
#include "src/video/motion_term.h"
#include "src/video/temporal.h"

namespace {

using namespace enginetest;
using video::MotionPoint;

// The motion (mx, my) of pixel (x, y) in the tests' fields: varied, partly
// pointing outside the image.
float2 motionAt(unsigned int x, unsigned int y) {
    return make_float2(1.25f + 0.5f * static_cast<float>(x % 3), -0.75f + 0.25f * static_cast<float>(y % 4));
}

// Bilinear read of layer l of a W x H x L' host array at (sx, sy).
template <class T>
T bilinear(const std::vector<T>& a, unsigned int w, unsigned int h, unsigned int l, float sx, float sy) {
    const unsigned int x0 = static_cast<unsigned int>(sx), y0 = static_cast<unsigned int>(sy);
    const unsigned int x1 = std::min(x0 + 1, w - 1), y1 = std::min(y0 + 1, h - 1);
    const float fx = sx - x0, fy = sy - y0;
    auto at = [&](unsigned int x, unsigned int y) { return a[(static_cast<std::size_t>(l) * h + y) * w + x]; };
    auto mix = [&](float a00, float a10, float a01, float a11) {
        return (1 - fx) * (1 - fy) * a00 + fx * (1 - fy) * a10 + (1 - fx) * fy * a01 + fx * fy * a11;
    };
    if constexpr (std::is_same_v<T, float>) {
        return mix(at(x0, y0), at(x1, y0), at(x0, y1), at(x1, y1));
    } else {
        return make_float2(mix(at(x0, y0).x, at(x1, y0).x, at(x0, y1).x, at(x1, y1).x),
                           mix(at(x0, y0).y, at(x1, y0).y, at(x0, y1).y, at(x1, y1).y));
    }
}

// 37 x 11: two blocks across and two down, both partial.
TEST(MoveLayers, EachLayerIsReadAtThePixelsOriginLikeAPlainLoop) {
    const unsigned int w = 37, h = 11, before = 3, now = 3;
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<float> previous(w * h * before);
    std::vector<float2> previousDual(w * h * before);
    for (float& v : previous) v = unit(rng);
    for (float2& v : previousDual) v = make_float2(unit(rng) - 0.5f, unit(rng) - 0.5f);
    std::vector<float2> field(w * h);
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) field[y * w + x] = motionAt(x, y);
    const std::vector<int> from = {2, -1, 0};  // layer 1 is a label the frame before lacked

    seg::ScopedArray<float, 3> prev(seg::deviceArray3D<float>(w, h, before)), out(seg::deviceArray3D<float>(w, h, now));
    seg::ScopedArray<float2, 3> prevDual(seg::deviceArray3D<float2>(w, h, before)),
        outDual(seg::deviceArray3D<float2>(w, h, now));
    vela::arrayCopy(prev.a, vela::arrayFromHostMemory(previous.data(), make_uint3(w, h, before)));
    vela::arrayCopy(prevDual.a, vela::arrayFromHostMemory(previousDual.data(), make_uint3(w, h, before)));
    seg::ScopedArray<float2, 2> motion(upload(field, w, h));

    for (bool normalise : {false, true}) {
        video::moveLayers(out.a, prev.a, motion.a, from, normalise, 0.25f);
        const std::vector<float> moved = download(out.a);
        int outside = 0;
        for (unsigned int y = 0; y < h; ++y)
            for (unsigned int x = 0; x < w; ++x) {
                const float sx = x - motionAt(x, y).x, sy = y - motionAt(x, y).y;
                const bool inside = sx >= 0 && sy >= 0 && sx <= w - 1 && sy <= h - 1;
                outside += !inside;
                std::vector<float> want(now);
                float sum = 0;
                for (unsigned int k = 0; k < now; ++k) {
                    want[k] = !inside ? 0.25f : from[k] < 0 ? 0.0f : bilinear(previous, w, h, from[k], sx, sy);
                    sum += want[k];
                }
                for (unsigned int k = 0; k < now; ++k) {
                    const float expected = normalise ? want[k] / sum : want[k];
                    ASSERT_NEAR(moved[(k * h + y) * w + x], expected, 1e-5)
                        << "pixel " << x << ", " << y << ", layer " << k << (normalise ? ", normalised" : "");
                }
            }
        EXPECT_GT(outside, 0);  // the border case is met
    }

    video::moveLayers(outDual.a, prevDual.a, motion.a, from);
    const std::vector<float2> movedDual = download(outDual.a);
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            const float sx = x - motionAt(x, y).x, sy = y - motionAt(x, y).y;
            const bool inside = sx >= 0 && sy >= 0 && sx <= w - 1 && sy <= h - 1;
            for (unsigned int k = 0; k < now; ++k) {
                const float2 want =
                    inside && from[k] >= 0 ? bilinear(previousDual, w, h, from[k], sx, sy) : make_float2(0.0f, 0.0f);
                const float2 got = movedDual[(k * h + y) * w + x];
                ASSERT_NEAR(got.x, want.x, 1e-5);
                ASSERT_NEAR(got.y, want.y, 1e-5);
            }
        }

    EXPECT_THROW(video::moveLayers(out.a, prev.a, motion.a, {0, 1}, false, 0.0f), std::runtime_error);
}

std::vector<float4> texture(unsigned int w, unsigned int h, unsigned int seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> value(0.0f, 255.0f);
    std::vector<float4> image(w * h);
    for (float4& c : image) c = make_float4(value(rng), value(rng), value(rng), 0.0f);
    return image;
}

std::vector<MotionPoint> gridOfPoints(unsigned int x0, unsigned int x1, unsigned int h, float2 m, int label) {
    std::vector<MotionPoint> points;
    for (unsigned int y = 4; y < h; y += 8)
        for (unsigned int x = x0 + 4; x < x1; x += 8)
            points.push_back({float(x), float(y), float(x) - m.x, float(y) - m.y, label});
    return points;
}

float2 motionOfPixel(const std::vector<float2>& field, unsigned int w, unsigned int x, unsigned int y) {
    return field[y * w + x];
}

// Points moving alike give that motion wherever they reach, and no motion
// beyond; objects moving apart each get their own motion up to their edges.
TEST(Motion, FromTheTracksPointsDenselyAndObjectByObject) {
    {
        const unsigned int w = 64, h = 48;
        seg::ScopedArray<float2, 2> field(seg::deviceArray2D<float2>(w, h));
        video::denseMotion(field.a, gridOfPoints(0, w, h, make_float2(3, -2), 0));
        for (const float2& m : download(field.a)) {
            ASSERT_NEAR(m.x, 3.0f, 1e-4);
            ASSERT_NEAR(m.y, -2.0f, 1e-4);
        }
    }
    {
        const unsigned int w = 200, h = 100;
        seg::ScopedArray<float2, 2> field(seg::deviceArray2D<float2>(w, h));
        video::denseMotion(field.a, {{5, 5, 3, 4, 0}});
        const std::vector<float2> m = download(field.a);
        EXPECT_NEAR(motionOfPixel(m, w, 5, 5).x, 2.0f, 1e-4);
        EXPECT_EQ(motionOfPixel(m, w, 190, 90).x, 0.0f);  // out of every point's reach
        EXPECT_EQ(motionOfPixel(m, w, 190, 90).y, 0.0f);
    }
    {
        // Label 7 on the left half moving left, label 3 on the right half
        // moving right: the frame before's relaxed labelling in two layers.
        const unsigned int w = 96, h = 64;
        std::vector<float> before(w * h * 2);
        for (unsigned int y = 0; y < h; ++y)
            for (unsigned int x = 0; x < w; ++x) {
                before[y * w + x] = x < 48 ? 1.0f : 0.0f;
                before[(h + y) * w + x] = x < 48 ? 0.0f : 1.0f;
            }
        std::vector<MotionPoint> points = gridOfPoints(0, 44, h, make_float2(-4, 0), 7);
        const std::vector<MotionPoint> right = gridOfPoints(52, w, h, make_float2(4, 0), 3);
        points.insert(points.end(), right.begin(), right.end());
        seg::ScopedArray<float, 3> previous(seg::deviceArray3D<float>(w, h, 2));
        vela::arrayCopy(previous.a, vela::arrayFromHostMemory(before.data(), make_uint3(w, h, 2)));
        seg::ScopedArray<float2, 2> field(seg::deviceArray2D<float2>(w, h));
        seg::ScopedArray<float, 2> support(seg::deviceArray2D<float>(w, h));
        const Image flat(upload(std::vector<float4>(w * h, make_float4(90, 90, 90, 0)), w, h));
        const video::TrackMotion tracks(w, h, points, {7, 3});
        video::objectMotion(field.a, tracks, previous.a, {7, 3}, flat.a, flat.a, support.a);
        const std::vector<float2> m = download(field.a);
        const std::vector<float> s = download(support.a);
        for (unsigned int y : {2u, 30u, 61u}) {
            EXPECT_NEAR(motionOfPixel(m, w, 40, y).x, -4.0f, 1e-3) << "row " << y;  // came from 44: label 7
            EXPECT_NEAR(motionOfPixel(m, w, 56, y).x, 4.0f, 1e-3) << "row " << y;   // came from 52: label 3
            EXPECT_EQ(s[y * w + 40], 1.0f);
            EXPECT_EQ(s[y * w + 56], 1.0f);
            // Uncovered between them: neither object lands there, all points'
            // mean, and no support.
            EXPECT_LT(std::abs(motionOfPixel(m, w, 48, y).x), 4.0f - 1e-3) << "row " << y;
            EXPECT_EQ(s[y * w + 48], 0.0f);
        }
        EXPECT_THROW(video::objectMotion(field.a, tracks, previous.a, {7}, flat.a, flat.a, support.a),
                     std::runtime_error);
    }
    {
        // Label 3, a textured square, moves 4 px right over the still
        // background of label 7.  At its leading edge both labels find
        // themselves at their origins; the pixels show the square, so its
        // motion wins.
        const unsigned int w = 96, h = 64, x0 = 30, x1 = 60;
        std::vector<float> before(w * h * 2);
        const std::vector<float4> ground = texture(w, h, 3), square = texture(w, h, 4);
        std::vector<float4> imageBefore(w * h), imageNow(w * h);
        for (unsigned int y = 0; y < h; ++y)
            for (unsigned int x = 0; x < w; ++x) {
                const bool inBefore = x >= x0 && x < x1, inNow = x >= x0 + 4 && x < x1 + 4;
                before[y * w + x] = inBefore ? 0.0f : 1.0f;
                before[(h + y) * w + x] = inBefore ? 1.0f : 0.0f;
                imageBefore[y * w + x] = inBefore ? square[y * w + x] : ground[y * w + x];
                imageNow[y * w + x] = inNow ? square[y * w + x - 4] : ground[y * w + x];
            }
        std::vector<MotionPoint> points = gridOfPoints(0, 24, h, make_float2(0, 0), 7);
        const std::vector<MotionPoint> still = gridOfPoints(72, w, h, make_float2(0, 0), 7);
        const std::vector<MotionPoint> moving = gridOfPoints(x0 + 4, x1, h, make_float2(4, 0), 3);
        points.insert(points.end(), still.begin(), still.end());
        points.insert(points.end(), moving.begin(), moving.end());
        seg::ScopedArray<float, 3> previous(seg::deviceArray3D<float>(w, h, 2));
        vela::arrayCopy(previous.a, vela::arrayFromHostMemory(before.data(), make_uint3(w, h, 2)));
        const Image now(upload(imageNow, w, h)), then(upload(imageBefore, w, h));
        seg::ScopedArray<float2, 2> field(seg::deviceArray2D<float2>(w, h));
        seg::ScopedArray<float, 2> support(seg::deviceArray2D<float>(w, h));
        video::objectMotion(field.a, video::TrackMotion(w, h, points, {3, 7}), previous.a, {7, 3}, now.a, then.a,
                            support.a);
        const std::vector<float2> m = download(field.a);
        for (unsigned int y : {10u, 30u, 50u})
            for (unsigned int x = x1; x < x1 + 3; ++x)
                EXPECT_NEAR(motionOfPixel(m, w, x, y).x, 4.0f, 0.05f) << "pixel " << x << ", " << y;
    }
}

TEST(Motion, ColourDifferenceIsSmallAlongTheMotionAndLargeAcrossACut) {
    const unsigned int w = 40, h = 30;
    const std::vector<float4> before = texture(w, h, 1);
    std::vector<float4> now(w * h);
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) now[y * w + x] = before[((y + h - 1) % h) * w + (x + w - 2) % w];
    Image a(upload(now, w, h)), b(upload(before, w, h)), other(upload(texture(w, h, 2), w, h));
    seg::ScopedArray<float2, 2> moving(upload(std::vector<float2>(w * h, make_float2(2, 1)), w, h));
    seg::ScopedArray<float2, 2> still(upload(std::vector<float2>(w * h, make_float2(0, 0)), w, h));
    const double along = video::movedColourDifference(a.a, b.a, moving.a);
    EXPECT_LT(along, 15.0);  // only the two borders the motion uncovers differ
    EXPECT_GT(video::movedColourDifference(a.a, b.a, still.a), video::kCutDifference);
    EXPECT_GT(video::movedColourDifference(other.a, b.a, moving.a), video::kCutDifference);
    EXPECT_EQ(video::movedColourDifference(b.a, b.a, still.a), 0.0);

    // Pixel by pixel: changed only where the motion uncovers the borders, or
    // where it brings no label (support below one half).
    std::vector<float> support(w * h, 1.0f);
    support[15 * w + 20] = 0.25f;
    seg::ScopedArray<float, 2> supportArray(upload(support, w, h)), changed(seg::deviceArray2D<float>(w, h));
    video::changedPixels(changed.a, a.a, b.a, moving.a, supportArray.a, 20.0f);
    const std::vector<float> c = download(changed.a);
    for (unsigned int y = 1; y < h; ++y)
        for (unsigned int x = 2; x < w; ++x)
            ASSERT_EQ(c[y * w + x], x == 20 && y == 15 ? 1.0f : 0.0f) << x << ", " << y;
    video::changedPixels(changed.a, other.a, b.a, moving.a, supportArray.a, 20.0f);
    float changedCount = 0.0f;
    for (float v : download(changed.a)) changedCount += v;
    EXPECT_GT(changedCount, 0.5f * w * h);
}

// A square of one colour on another, at column `left`; seeds of label 0 on the
// background and label 1 inside the square.
struct SquareFrame {
    static constexpr unsigned int w = 48, h = 32, size = 12;
    std::vector<float4> image = std::vector<float4>(w * h);
    std::vector<float> seeds = std::vector<float>(w * h, -1.0f);
    explicit SquareFrame(unsigned int left, bool inverted = false) {
        for (unsigned int y = 0; y < h; ++y)
            for (unsigned int x = 0; x < w; ++x) {
                const bool in = x >= left && x < left + size && y >= 10 && y < 10 + size;
                const float v = (in != inverted) ? 200.0f : 40.0f;
                image[y * w + x] = make_float4(v, v * 0.5f, 255.0f - v, 0.0f);
            }
        seeds[2 * w + 2] = 0;
        seeds[(h - 3) * w + (w - 3)] = 0;
        seeds[(10 + size / 2) * w + left + size / 2] = 1;
    }
};

// The tracks of SquareFrame: one on the square (track label 9), two on the
// background (track label 4).
std::vector<MotionPoint> squareMotion(unsigned int from, unsigned int to) {
    return {{float(to + 6), 16, float(from + 6), 16, 9}, {2, 2, 2, 2, 4}, {45, 29, 45, 29, 4}};
}

struct VideoRun {
    SegmentationSettings settings;
    video::Carry carry;
    VideoRun() {
        settings.lambda = 100.0f;
        settings.maxiter = 200;
        settings.temporal = 1;
    }
    // Segments one frame; returns the hard labelling's layer 1 and the cost map.
    std::vector<float> frame(const SquareFrame& f, const std::vector<MotionPoint>& motion, std::vector<int> ids,
                             std::vector<float>* costs = nullptr) {
        Image image(upload(f.image, f.w, f.h));
        seg::ScopedArray<float, 2> labels(upload(f.seeds, f.w, f.h));
        const FrameSeeds seeds{labels.a, ids, motion};
        if (costs) {
            ScopedPDseg prepared(image.a);
            prepareFrame(prepared, seeds, settings, carry);
            *costs = download(prepared.costMap);
        }
        ScopedPDseg s(image.a);
        carry = segmentFrame(s, seeds, settings, std::move(carry));
        const std::vector<float> u = download(s.u);
        return std::vector<float>(u.begin() + f.w * f.h, u.end());
    }
};

// A textured square (track label 3) moves 4 px right over a still textured
// background (7); in the bottom rows both are flat.  Label 9 has no tracks.
TEST(MotionTerm, ALabelCostsWhereItsMotionDoesNotBringThePixelsColour) {
    const unsigned int w = 64, h = 48, x0 = 20, x1 = 40, flatRows = 40;
    const std::vector<float4> ground = texture(w, h, 5), square = texture(w, h, 6);
    std::vector<float4> before(w * h), now(w * h);
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            const bool inBefore = x >= x0 && x < x1, inNow = x >= x0 + 4 && x < x1 + 4;
            const bool flat = y >= flatRows;
            const float4 squareColour = flat ? make_float4(200, 40, 40, 0) : square[y * w + x - (inNow ? 4 : 0)];
            const float4 groundColour = flat ? make_float4(40, 40, 200, 0) : ground[y * w + x];
            before[y * w + x] = inBefore ? (flat ? squareColour : square[y * w + x]) : groundColour;
            now[y * w + x] = inNow ? squareColour : groundColour;
        }
    std::vector<MotionPoint> points = gridOfPoints(0, x0, h, make_float2(0, 0), 7);
    for (const auto& part :
         {gridOfPoints(x1 + 8, w, h, make_float2(0, 0), 7), gridOfPoints(x0 + 4, x1 + 4, h, make_float2(4, 0), 3)})
        points.insert(points.end(), part.begin(), part.end());
    const Image imageNow(upload(now, w, h)), imageBefore(upload(before, w, h));
    std::vector<float> seeds(w * h, -1.0f);
    seeds[20 * w + 30] = 0.0f;  // a (wrong) seed of label 7 inside the square
    seg::ScopedArray<float, 2> labels(upload(seeds, w, h));
    seg::ScopedArray<float, 3> cost(seg::deviceArray3D<float>(w, h, 3));
    const std::vector<float> zeros(w * h * 3, 0.0f);
    vela::arrayCopy(cost.a, vela::arrayFromHostMemory(const_cast<float*>(zeros.data()), make_uint3(w, h, 3)));

    const video::TrackMotion tracks(w, h, points, {3, 7, 9});
    video::addMotionCost(cost.a, tracks, {7, 3, 9}, imageNow.a, imageBefore.a, labels.a, 2.0f);
    const std::vector<float> c = download(cost.a);
    auto at = [&](unsigned int x, unsigned int y, unsigned int k) { return c[(k * h + y) * w + x]; };
    for (unsigned int y : {8u, 20u, 32u}) {
        // Inside the square: its own motion brings the colour, the still
        // background's does not.
        EXPECT_EQ(at(32, y, 1), 0.0f) << "row " << y;
        EXPECT_GT(at(32, y, 0), 1.0f) << "row " << y;
        // Background beside it: the other way round.
        EXPECT_EQ(at(50, y, 0), 0.0f) << "row " << y;
        EXPECT_GT(at(50, y, 1), 1.0f) << "row " << y;
        // Uncovered behind it: neither motion brings the colour.
        EXPECT_EQ(at(21, y, 0), 0.0f) << "row " << y;
        EXPECT_EQ(at(21, y, 1), 0.0f) << "row " << y;
    }
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            ASSERT_EQ(at(x, y, 2), 0.0f) << "a label without tracks, pixel " << x << ", " << y;
            // Flat: the square's motion brings the colour of the pixels it
            // uncovers, but by chance (a pixel away from its edges, whose
            // patch holds only one colour).
            if (y > flatRows && (x < x0 + 3 || x > x1 + 5)) {
                ASSERT_EQ(at(x, y, 0) + at(x, y, 1), 0.0f) << "flat, pixel " << x << ", " << y;
            }
        }
    EXPECT_EQ(at(30, 20, 0) + at(30, 20, 1), 0.0f);  // the seed keeps its costs

    EXPECT_THROW(video::addMotionCost(cost.a, tracks, {7, 3}, imageNow.a, imageBefore.a, labels.a, 1.0f),
                 std::runtime_error);
}

TEST(VideoCarry, CarriesAMovingSquareAndStartsAfreshAtACut) {
    VideoRun run;
    const SquareFrame first(10), second(13), cut(13, true);
    run.frame(first, {}, {4, 9});
    EXPECT_FALSE(run.carry.continued);

    std::vector<float> costs;
    const std::vector<float> square = run.frame(second, squareMotion(10, 13), {4, 9}, &costs);
    EXPECT_TRUE(run.carry.continued);
    const unsigned int w = SquareFrame::w, h = SquareFrame::h;
    // The square, to within a pixel of its edges (where the edge weights lie
    // between two pixels).
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            const bool in = x >= 14 && x < 24 && y >= 11 && y < 21;
            const bool out = x < 12 || x >= 26 || y < 9 || y >= 23;
            if (in || out) {
                ASSERT_EQ(square[y * w + x], in ? 1.0f : 0.0f) << x << ", " << y;
            }
        }
    // The seeds keep their own costs; elsewhere the moved labelling adds up to
    // temporalWeight to the labels the frame before did not have there.
    const unsigned int seedInside = 16 * w + 19, deepInside = 12 * w + 15, background = 28 * w + 40;
    EXPECT_EQ(costs[seedInside], 1.0f);
    EXPECT_EQ(costs[w * h + seedInside], 0.0f);
    EXPECT_NEAR(costs[deepInside], run.settings.temporalWeight, 1e-3);
    EXPECT_NEAR(costs[w * h + deepInside], 0.0f, 1e-3);
    EXPECT_NEAR(costs[background], 0.0f, 1e-3);
    EXPECT_NEAR(costs[w * h + background], run.settings.temporalWeight, 1e-3);

    // The labels swap their ids: each layer follows its track label, so the
    // square, label id 9, is now layer 0.
    std::vector<float> swapped;
    const std::vector<float> layer1 = run.frame(second, squareMotion(13, 13), {9, 4}, &swapped);
    EXPECT_TRUE(run.carry.continued);
    EXPECT_NEAR(swapped[deepInside], 0.0f, 1e-3);
    EXPECT_NEAR(swapped[w * h + deepInside], run.settings.temporalWeight, 1e-3);
    EXPECT_EQ(layer1[deepInside], 0.0f);

    run.frame(cut, squareMotion(13, 13), {9, 4});
    EXPECT_FALSE(run.carry.continued);
    run.frame(second, {}, {4, 9});  // no track continues
    EXPECT_FALSE(run.carry.continued);
    run.frame(second, squareMotion(13, 13), {4, 9});
    EXPECT_TRUE(run.carry.continued);
    run.carry = {};
    run.frame(second, squareMotion(13, 13), {4, 9});
    EXPECT_FALSE(run.carry.continued);
}

// With the walker term, a continued frame keeps the walker's probabilities
// moved from the frame before where they hold and solves only near the
// square's edges: fewer iterations, the same square.
TEST(VideoCarry, TheWalkerSolvesAgainOnlyWhereTheFrameBeforeMayNotHold) {
    VideoRun run;
    run.settings.dataTerm = DataTerm::WALKER;
    run.settings.walkerIterations = 1000;
    run.settings.walkerTolerance = 1e-4f;
    run.settings.temporalWalkerTolerance = 1e-4f;
    run.settings.temporalWalkerRadius = 2;
    run.frame(SquareFrame(10), {}, {4, 9});
    const int cold = run.carry.walkerIterations;
    const std::vector<float> square = run.frame(SquareFrame(13), squareMotion(10, 13), {4, 9});
    ASSERT_TRUE(run.carry.continued);
    EXPECT_GT(run.carry.walkerIterations, 0);
    EXPECT_LT(run.carry.walkerIterations, cold);
    const unsigned int w = SquareFrame::w;
    for (unsigned int y = 0; y < SquareFrame::h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            const bool in = x >= 14 && x < 24 && y >= 11 && y < 21;
            const bool out = x < 12 || x >= 26 || y < 9 || y >= 23;
            if (in || out) {
                ASSERT_EQ(square[y * w + x], in ? 1.0f : 0.0f) << x << ", " << y;
            }
        }
}

}  // namespace
