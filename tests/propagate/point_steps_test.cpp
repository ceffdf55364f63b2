#include "src/propagate/point_steps.h"

#include <gtest/gtest.h>

#include <vector>

#include "src/engine_arrays.h"

namespace {

using propagate::countPointsInCells;
using propagate::countRadii;
using propagate::followPoints;
using propagate::imposeLayers;
using propagate::labelsAtPoints;
using propagate::uniformRadius;

template <class T>
vela::ScopedArray<T, 1> upload(std::vector<T> values) {
    return seg::deviceCopy(seg::hostView1D(values.data(), static_cast<unsigned int>(values.size())));
}

template <class T>
vela::ScopedArray<T, 2> upload(std::vector<T> values, unsigned int w, unsigned int h) {
    return seg::deviceCopy(vela::arrayFromHostMemory(values.data(), make_uint2(w, h)));
}

// A host view of p shaped as `a`.
template <class T>
vela::Array<T, 1> hostLike(T* p, const vela::Array<T, 1>& a) {
    return seg::hostView1D(p, a.extents.x);
}
template <class T, int N>
vela::Array<T, N> hostLike(T* p, const vela::Array<T, N>& a) {
    return vela::arrayFromHostMemory(p, a.extents);
}

// The first n elements of a device array.
template <class T, int N>
std::vector<T> download(const vela::Array<T, N>& a, std::size_t n) {
    std::vector<T> values(n);
    vela::Array<T, N> host = hostLike(values.data(), a);
    vela::arrayCopy(host, a);
    return values;
}

// Moves `points` along the fields, which are `forward` and `backward` at every
// pixel but where `edit` changes them.
struct Followed {
    std::vector<float2> moved;
    std::vector<int> kept;
};
template <class Edit>
Followed follow(const std::vector<float2>& points, float2 forward, float2 backward, Edit edit) {
    const unsigned int w = 32, h = 24, n = static_cast<unsigned int>(points.size());
    std::vector<float2> f(w * h, forward), b(w * h, backward);
    edit(f, b, w);
    const auto fd = upload(f, w, h), bd = upload(b, w, h);
    const auto from = upload(points);
    vela::ScopedArray<float2, 1> moved(seg::deviceArray1D<float2>(n));
    vela::ScopedArray<int, 1> kept(seg::deviceArray1D<int>(n));
    followPoints(from.a, n, fd.a, bd.a, moved.a, kept.a);
    return {download(moved.a, n), download(kept.a, n)};
}

TEST(FollowPoints, MovesAlongTheFlowAndEndsWhereItLeavesTheFrameOrTheFlowsDisagree) {
    const std::vector<float2> points = {{5.5f, 5.5f}, {30.5f, 5.5f}, {10.25f, 20.75f}};
    const Followed shift = follow(points, {2.0f, 1.0f}, {-2.0f, -1.0f}, [](auto&, auto&, unsigned int) {});
    EXPECT_FLOAT_EQ(shift.moved[0].x, 7.5f);
    EXPECT_FLOAT_EQ(shift.moved[0].y, 6.5f);
    EXPECT_FLOAT_EQ(shift.moved[2].x, 12.25f);
    EXPECT_FLOAT_EQ(shift.moved[2].y, 21.75f);
    // The second lands past the right edge; the others stay.
    EXPECT_EQ(shift.kept, std::vector<int>({1, 0, 1}));

    // Where the backward flow does not lead back (the point's landing place
    // belongs to something else: an occlusion) the track ends.
    const Followed hidden = follow(points, {2.0f, 1.0f}, {-2.0f, -1.0f}, [](auto&, auto& b, unsigned int w) {
        for (unsigned int y = 0; y < 24; ++y)
            for (unsigned int x = 0; x < 10; ++x) b[y * w + x] = {3.0f, 0.0f};
    });
    EXPECT_EQ(hidden.kept, std::vector<int>({0, 0, 1}));

    // Beside a motion edge (the flow changes at column 6) the track ends,
    // though it lands where forward and backward agree.
    const Followed edge =
        follow({{6.5f, 5.5f}, {20.5f, 10.5f}}, {1.0f, 0.0f}, {-1.0f, 0.0f}, [](auto& f, auto& b, unsigned int w) {
            for (unsigned int y = 0; y < 24; ++y)
                for (unsigned int x = 0; x < 6; ++x) {
                    f[y * w + x] = {1.0f, 4.0f};
                    b[y * w + x] = {-1.0f, -4.0f};
                }
        });
    EXPECT_FLOAT_EQ(edge.moved[0].x, 7.5f);
    EXPECT_EQ(edge.kept, std::vector<int>({0, 1}));

    // A wire 2 px wide (columns 10 and 11) moving 1 px a frame over a still
    // background: the flow changes on either side of every wire pixel, yet
    // the wire keeps its tracks; the still point beside it, about to be
    // covered, ends.
    const Followed wire = follow({{10.5f, 5.5f}, {11.5f, 8.5f}, {9.5f, 5.5f}}, {0.0f, 0.0f}, {0.0f, 0.0f},
                                 [](auto& f, auto& b, unsigned int w) {
                                     for (unsigned int y = 0; y < 24; ++y)
                                         for (unsigned int x = 10; x < 12; ++x) {
                                             f[y * w + x] = {1.0f, 0.0f};
                                             b[y * w + x + 1] = {-1.0f, 0.0f};
                                         }
                                 });
    EXPECT_EQ(wire.kept, std::vector<int>({1, 1, 0}));
}

TEST(UniformRadius, IsTheLargestUniformSquareAndAPointIsSureWhereItReachesItsLabelsMargin) {
    // Columns 0-5 label 1, 6-11 label 2, with an open pixel at (10, 1), and a
    // one-pixel line of label 3 along row 5.
    const unsigned int w = 12, h = 7;
    std::vector<int> labels(w * h);
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) labels[y * w + x] = y == 5 ? 3 : x < 6 ? 1 : 2;
    labels[1 * w + 10] = -1;
    const auto device = upload(labels, w, h);
    vela::ScopedArray<int, 2> rows(seg::deviceArray2D<int>(w, h)), radius(seg::deviceArray2D<int>(w, h));
    uniformRadius(device.a, 2, rows.a, radius.a);
    const std::vector<int> got = download(radius.a, w * h);
    // Row 3: the radius grows away from the boundary at column 6 and from
    // the line two rows below; the frame's edge is no boundary.
    const std::vector<int> row3(got.begin() + 3 * w, got.begin() + 4 * w);
    EXPECT_EQ(row3, std::vector<int>({1, 1, 1, 1, 1, 0, 0, 1, 1, 1, 1, 1}));
    const std::vector<int> row0(got.begin(), got.begin() + w);
    EXPECT_EQ(row0, std::vector<int>({2, 2, 2, 2, 1, 0, 0, 1, 1, 0, 0, 0}));
    EXPECT_EQ(got[1 * w + 10], -1);
    EXPECT_EQ(got[5 * w + 3], 0);

    // Per label, the pixels at each radius, a larger one in the last column.
    vela::ScopedArray<int, 2> counts(seg::deviceArray2D<int>(2, 256));
    countRadii(device.a, radius.a, counts.a);
    const std::vector<int> c = download(counts.a, 2 * 256);
    EXPECT_EQ(c[3 * 2 + 0], 12);  // the line: all at radius 0
    EXPECT_EQ(c[3 * 2 + 1], 0);
    EXPECT_EQ(c[1 * 2 + 0] + c[1 * 2 + 1], 36);
    EXPECT_EQ(c[1 * 2 + 1], 20);  // rows 0-3 of columns 0-4, at radius 1 or 2

    // At points: sure where the radius lies in the label's range (the line's
    // least radius is 0, so it is sure everywhere); outside the frame,
    // nothing.
    std::vector<int2> radii(256, make_int2(2, 2));
    radii[3] = make_int2(0, 0);
    const std::vector<float2> points = {{0.5f, 0.5f}, {6.5f, 3.5f}, {3.2f, 5.9f}, {12.0f, 1.0f}, {3.5f, 3.5f}};
    const auto pointsOnDevice = upload(points);
    auto sureAt = [&](const std::vector<int2>& ranges) {
        const auto rangesOnDevice = upload(ranges);
        vela::ScopedArray<int2, 1> found(seg::deviceArray1D<int2>(5));
        labelsAtPoints(pointsOnDevice.a, 5, device.a, radius.a, rangesOnDevice.a, found.a);
        return download(found.a, 5);
    };
    const std::vector<int2> at = sureAt(radii);
    EXPECT_EQ(at[0].x, 1);
    EXPECT_EQ(at[1].x, -1);
    EXPECT_EQ(at[1].y, 2);
    EXPECT_EQ(at[2].x, 3);
    EXPECT_EQ(at[3].x, -1);
    EXPECT_EQ(at[3].y, -1);
    EXPECT_EQ(at[4].x, -1);  // radius 1, below label 1's least
    // A label sure only up to radius 1 (a thin one, where label 1 would be a
    // spill): its wide part is not sure.
    radii[1] = make_int2(0, 1);
    const std::vector<int2> thin = sureAt(radii);
    EXPECT_EQ(thin[0].x, -1);  // radius 2
    EXPECT_EQ(thin[0].y, 1);
    EXPECT_EQ(thin[4].x, 1);
}

TEST(CountPointsInCells, CountsOnlyKeptPointsInTheirCellsIncludingCutShortOnes) {
    const std::vector<float2> points = {{1.0f, 1.0f}, {3.9f, 0.5f}, {4.0f, 4.0f}, {9.5f, 5.5f}, {2.0f, 2.0f}};
    const auto device = upload(points);
    const auto kept = upload(std::vector<int>{1, 1, 1, 1, 0});
    // A 10 x 6 frame in 4-pixel cells: 3 x 2 cells, the last ones cut short.
    vela::ScopedArray<int, 2> cells(seg::deviceArray2D<int>(3, 2));
    countPointsInCells(device.a, kept.a, 5, 4, cells.a);
    EXPECT_EQ(download(cells.a, 6), std::vector<int>({2, 0, 0, 0, 1, 1}));
}

TEST(ClickReachCost, GrowsWithTheDistanceBeyondTheReachAndSparesTheBackground) {
    const unsigned int w = 40, h = 1, labels = 3;
    std::vector<float> zero(w * h * labels, 0.0f);
    auto cost = seg::deviceCopy(vela::arrayFromHostMemory(zero.data(), w, h, labels));
    // Layer 1 clicked at x = 0.5 and 4.5 with reach 10; layer 0 (exempt) and
    // layer 2 (no clicks) get nothing.
    const auto clicks =
        upload(std::vector<float4>{{0.5f, 0.5f, 1.0f, 10.0f}, {4.5f, 0.5f, 1.0f, 10.0f}, {30.5f, 0.5f, 0.0f, 10.0f}});
    propagate::addClickReachCost(cost.a, clicks.a, 3, 2.0f, 0);
    const std::vector<float> got = download(cost.a, w * h * labels);
    for (unsigned int x = 0; x < w; ++x) {
        EXPECT_EQ(got[x], 0.0f);
        EXPECT_EQ(got[2 * w + x], 0.0f);
    }
    EXPECT_FLOAT_EQ(got[w + 14], 0.0f);  // 10 from the nearer click
    EXPECT_FLOAT_EQ(got[w + 19], 1.0f);  // 15: half way to twice the reach
    EXPECT_FLOAT_EQ(got[w + 24], 2.0f);  // 20: the whole weight
    EXPECT_FLOAT_EQ(got[w + 39], 2.0f);
}

TEST(ClickMotionCost, ChargesTheLabelsThatMoveUnlikeThePixelWhereTheFlowHolds) {
    const unsigned int w = 5, h = 1, labels = 3;
    std::vector<float> zero(w * h * labels, 0.0f);
    auto cost = seg::deviceCopy(vela::arrayFromHostMemory(zero.data(), w, h, labels));
    // Pixels 0 and 1 stand still; an object moved 1 px right onto pixels 3
    // and 4, uncovering pixel 2, whose backward flow (0) the forward flow
    // there (1) contradicts.
    const auto backward = upload(std::vector<float2>{{0, 0}, {0, 0}, {0, 0}, {-1, 0}, {-1, 0}}, w, h);
    const auto forward = upload(std::vector<float2>{{0, 0}, {0, 0}, {1, 0}, {1, 0}, {1, 0}}, w, h);
    // Layer 0 clicked where still, layer 1 where the flow said 1.5 px (twice);
    // layer 2 not clicked.
    const auto motions = upload(std::vector<float4>{{0, 0, 0, 0}, {1.5f, 0, 1, 0}, {1.6f, 0, 1, 0}});
    propagate::addClickMotionCost(cost.a, backward.a, forward.a, motions.a, 3, 2.0f);
    const std::vector<float> got = download(cost.a, w * h * labels);
    const std::vector<float> expected = {
        0.0f, 0.0f, 0.0f, 1.0f, 1.0f,  // layer 0: 1 px off against layer 1's 0.5, per px of difference
        2.0f, 2.0f, 0.0f, 0.0f, 0.0f,  // layer 1: 1.5 px off the still pixels, capped at the weight
        0.0f, 0.0f, 0.0f, 0.0f, 0.0f,
    };
    for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_FLOAT_EQ(got[i], expected[i]) << "at " << i;
}

TEST(MotionMisfits, FindsTheLabelATrackMovesLikeOnlyWhereItClearlyMissesItsOwn) {
    // Label 0 stands still, label 1 moves (2, -1), both as one; label 2's
    // tracks move every which way (median (-2, 0)).
    const auto motions = upload(std::vector<float4>{{0, 0, 1, 0}, {2, -1, 1, 0}, {-2, 0, 0, 0}});
    // Points as (x, y now, x, y before) with their label's index.
    const auto points = upload(std::vector<float4>{
        {10.1f, 10, 10, 10},  // label 1, standing still: moves like label 0
        {11.8f, 9, 10, 10},   // label 1, 0.2 px off its motion: its own
        {11, 9.5f, 10, 10},   // label 0, halfway to label 1's motion: neither clearly
        {12, 9, 10, 10},      // label 2, moving like label 1: label 2 has no motion to miss
        {8, 10, 10, 10},      // label 1, moving like label 2: label 2's motion does not speak
        {10, 10, 20, 20},     // none to find
        // Tracks without a label yet:
        {11.9f, 9.2f, 10, 10},  // near label 1's motion, far from the others': label 1
        {10.3f, 10, 10, 10},    // near label 0's: label 0
        {10.9f, 9.6f, 10, 10},  // between labels 0 and 1: neither clearly
        {8.1f, 10, 10, 10},     // like label 2, whose motion does not speak
        {10.7f, 10, 10, 10},    // 0.7 px from label 0's motion: too far to move like it
        // Label 1's tracks far off its motion:
        {18, 15, 10, 10},    // like no label at all: strays
        {8.2f, 10, 10, 10},  // like label 2, whose tracks scatter: it may be one of them
        {12, 12, 10, 10},    // 3 px off: not far enough to stray
    });
    const int none = propagate::kNoLabelYet, strays = propagate::kStrays;
    const auto layers = upload(std::vector<int>{1, 1, 0, 2, 1, -1, none, none, none, none, none, 1, 1, 1});
    vela::ScopedArray<int, 1> better(seg::deviceArray1D<int>(14));
    propagate::motionMisfits(points.a, layers.a, 14, motions.a, better.a);
    EXPECT_EQ(download(better.a, 14), std::vector<int>({0, -1, -1, -1, -1, -1, 1, 0, -1, -1, -1, strays, -1, -1}));
}

TEST(ImposeLayers, MakesTheGivenLayerWholeAndLeavesOpenPixels) {
    const unsigned int w = 3, h = 1, labels = 2;
    std::vector<float> u = {0.2f, 0.6f, 0.5f, 0.8f, 0.4f, 0.5f};  // layer 0 then layer 1
    auto device = seg::deviceCopy(vela::arrayFromHostMemory(u.data(), w, h, labels));
    const auto layers = upload(std::vector<int>{1, -1, 0}, w, h);
    imposeLayers(device.a, layers.a);
    EXPECT_EQ(download(device.a, 6), std::vector<float>({0.0f, 0.6f, 1.0f, 1.0f, 0.4f, 0.0f}));
}

}  // namespace
