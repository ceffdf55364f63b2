// The guided filter of the cost map against a plain reading of it in double,
// and run() iterating on the filtered copy.
#include "src/solver/guided_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>

#include "reference.h"

namespace solvertest {
namespace {

using Matrix = std::array<std::array<double, 3>, 3>;

double windowMean(const Grid<double>& g, unsigned int l, int x, int y, int r) {
    double sum = 0;
    int n = 0;
    for (int j = std::max(0, y - r); j <= std::min(int(g.H) - 1, y + r); ++j)
        for (int i = std::max(0, x - r); i <= std::min(int(g.W) - 1, x + r); ++i, ++n) sum += g(i, j, l);
    return sum / n;
}

// The filter as written down: per window the least-squares fit p = a . I + b
// with a ridge of epsilon, then the fits of all windows covering a pixel
// averaged.
Grid<float> plainGuidedFilter(const Grid<float4>& image, const Grid<float>& costs, int r, double eps) {
    const unsigned int W = image.W, H = image.H;
    Grid<double> guide(W, H, 9);
    for (unsigned int y = 0; y < H; ++y)
        for (unsigned int x = 0; x < W; ++x) {
            const float4 c = image(x, y);
            const double v[3] = {c.x, c.y, c.z};
            for (int k = 0; k < 3; ++k) guide(x, y, k) = v[k];
            int k = 3;
            for (int a = 0; a < 3; ++a)
                for (int b = a; b < 3; ++b) guide(x, y, k++) = v[a] * v[b];
        }
    Grid<float> out(W, H, costs.L);
    for (unsigned int l = 0; l < costs.L; ++l) {
        Grid<double> label(W, H, 4), fit(W, H, 4);
        for (unsigned int y = 0; y < H; ++y)
            for (unsigned int x = 0; x < W; ++x) {
                const double p = costs(x, y, l);
                label(x, y, 0) = p;
                for (int k = 0; k < 3; ++k) label(x, y, k + 1) = p * guide(x, y, k);
            }
        for (unsigned int y = 0; y < H; ++y)
            for (unsigned int x = 0; x < W; ++x) {
                double m[9], q[4];
                for (int k = 0; k < 9; ++k) m[k] = windowMean(guide, k, x, y, r);
                for (int k = 0; k < 4; ++k) q[k] = windowMean(label, k, x, y, r);
                const int index[3][3] = {{3, 4, 5}, {4, 6, 7}, {5, 7, 8}};
                Matrix s;
                for (int a = 0; a < 3; ++a)
                    for (int b = 0; b < 3; ++b) s[a][b] = m[index[a][b]] - m[a] * m[b] + (a == b ? eps : 0.0);
                // Gaussian elimination of s a = cov(I, p).
                double rhs[3] = {q[1] - m[0] * q[0], q[2] - m[1] * q[0], q[3] - m[2] * q[0]};
                for (int c = 0; c < 3; ++c)
                    for (int row = c + 1; row < 3; ++row) {
                        const double f = s[row][c] / s[c][c];
                        for (int k = c; k < 3; ++k) s[row][k] -= f * s[c][k];
                        rhs[row] -= f * rhs[c];
                    }
                double a[3];
                for (int row = 2; row >= 0; --row) {
                    double v = rhs[row];
                    for (int k = row + 1; k < 3; ++k) v -= s[row][k] * a[k];
                    a[row] = v / s[row][row];
                }
                for (int k = 0; k < 3; ++k) fit(x, y, k) = a[k];
                fit(x, y, 3) = q[0] - (a[0] * m[0] + a[1] * m[1] + a[2] * m[2]);
            }
        for (unsigned int y = 0; y < H; ++y)
            for (unsigned int x = 0; x < W; ++x) {
                double v = windowMean(fit, 3, x, y, r);
                for (int k = 0; k < 3; ++k) v += windowMean(fit, k, x, y, r) * guide(x, y, k);
                out(x, y, l) = static_cast<float>(v);
            }
    }
    return out;
}

// Sizes smaller and larger than the window, a single column and row.
TEST(GuidedFilter, FollowsThePlainFit) {
    struct Case {
        unsigned int W, H, L;
        int radius;
    };
    for (const Case& c : {Case{23, 17, 2, 3}, Case{5, 4, 3, 6}, Case{1, 9, 2, 2}, Case{9, 1, 1, 2}}) {
        SCOPED_TRACE(std::to_string(c.W) + " x " + std::to_string(c.H) + ", radius " + std::to_string(c.radius));
        const Grid<float4> image = randomGrid<float4>(c.W, c.H, 1, 0.0f, 1.0f);
        const Grid<float> costs = randomGrid<float>(c.W, c.H, c.L, 0.0f, 2.0f);
        const auto dimage = upload<2>(image);
        const auto dcosts = upload<3>(costs);
        seg::ScopedArray<float, 3> out(seg::deviceArray3D<float>(c.W, c.H, c.L));
        seg::guidedFilter(out.a, dcosts.a, dimage.a, c.radius, 1e-2f);
        EXPECT_TRUE(near(toHost(out.a), plainGuidedFilter(image, costs, c.radius, 1e-2), 2e-4f, 1e-3f));
    }
}

// With a filter radius, run() iterates on the filtered copy and leaves the
// object's cost map as it was.
TEST(GuidedFilter, RunIteratesOnTheFilteredCosts) {
    const unsigned int W = 30, H = 12, L = 3;
    Grid<float4> image = randomGrid<float4>(W, H, 1, 0.0f, 255.0f);
    const Grid<float> costs = randomGrid<float>(W, H, L, 0.0f, 2.0f);
    const auto dimage = upload<2>(image);
    Grid<float4> scaled = image;
    for (auto& px : scaled.data) px = make_float4(px.x / 255.0f, px.y / 255.0f, px.z / 255.0f, 0);
    // (The engine scales by the float 1/255; the filtered costs are compared loosely.)
    const auto dscaled = upload<2>(scaled);
    const auto dcosts = upload<3>(costs);
    seg::ScopedArray<float, 3> filtered(seg::deviceArray3D<float>(W, H, L));
    seg::guidedFilter(filtered.a, dcosts.a, dscaled.a, 4, 1e-3f);

    auto solve = [&](const Grid<float>& f, int radius, Grid<float>* after) {
        vela::Array<float, 3> cost = toDevice<3>(f);
        ScopedPDseg seg(const_cast<vela::Array<float4, 2>&>(dimage.a), cost);
        seg.edgeWeights = PDseg::CONTRAST_EDGES;
        seg.lambda = 2.0f;
        seg.nIterations = 60;
        seg.filterRadius = radius;
        seg.filterEpsilon = 1e-3f;
        seg.run();
        if (after) *after = toHost(seg.costMap);
        return toHost(seg.uResult);
    };
    Grid<float> after;
    const Grid<float> withFilter = solve(costs, 4, &after);
    EXPECT_TRUE(sameBytes(after, costs));
    EXPECT_TRUE(near(withFilter, solve(toHost(filtered.a), 0, nullptr), 1e-3f, 1e-2f));
    EXPECT_FALSE(near(withFilter, solve(costs, 0, nullptr), 1e-3f, 1e-2f));
}

}  // namespace
}  // namespace solvertest
