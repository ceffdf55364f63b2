// The random-walker data term against a plain solve of the same linear
// systems, and the frame preparation that chooses it.
#include "src/dataterms/walker.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "engine_test_util.h"
#include "src/dataterms/seed_check.h"
#include "src/segment.h"
#include "src/solver/ops.h"

namespace {

using namespace enginetest;

struct Frame {
    unsigned int w, h;
    std::vector<float4> image;
    std::vector<float> labels;  // -1: no seed
};

// Walker probabilities of every label by Gaussian elimination in double:
// prob[l][pixel].
std::vector<std::vector<double>> referenceProbabilities(const Frame& f, unsigned int nLabels, double beta) {
    const unsigned int n = f.w * f.h;
    std::vector<double> values;
    for (const float4& c : f.image)
        for (float v : {c.x, c.y, c.z}) values.push_back(v / 255.0);
    double mean = 0, squares = 0;
    for (double v : values) mean += v;
    mean /= values.size();
    for (double v : values) squares += (v - mean) * (v - mean);
    const double sd = std::sqrt(squares / values.size());
    auto weight = [&](unsigned int a, unsigned int b) {
        const float4 p = f.image[a], q = f.image[b];
        const double d =
            std::pow((p.x - q.x) / 255.0, 2) + std::pow((p.y - q.y) / 255.0, 2) + std::pow((p.z - q.z) / 255.0, 2);
        return std::exp(-beta / (10 * sd * std::sqrt(3.0)) * d) + 1e-6;
    };
    std::vector<int> unknown(n, -1);
    unsigned int m = 0;
    for (unsigned int i = 0; i < n; ++i)
        if (f.labels[i] < 0) unknown[i] = static_cast<int>(m++);
    std::vector<std::vector<double>> prob(nLabels, std::vector<double>(n));
    for (unsigned int l = 0; l < nLabels; ++l) {
        // Rows of the Laplacian of the unseeded pixels; seeds move to the right.
        std::vector<std::vector<double>> a(m, std::vector<double>(m + 1, 0.0));
        for (unsigned int y = 0; y < f.h; ++y)
            for (unsigned int x = 0; x < f.w; ++x) {
                const unsigned int i = y * f.w + x;
                if (unknown[i] < 0) continue;
                const int dx[] = {1, -1, 0, 0}, dy[] = {0, 0, 1, -1};
                for (int k = 0; k < 4; ++k) {
                    const int nx = int(x) + dx[k], ny = int(y) + dy[k];
                    if (nx < 0 || ny < 0 || nx >= int(f.w) || ny >= int(f.h)) continue;
                    const unsigned int j = ny * f.w + nx;
                    const double wij = weight(i, j);
                    a[unknown[i]][unknown[i]] += wij;
                    if (unknown[j] >= 0)
                        a[unknown[i]][unknown[j]] -= wij;
                    else if (int(f.labels[j]) == int(l))
                        a[unknown[i]][m] += wij;
                }
            }
        for (unsigned int c = 0; c < m; ++c)
            for (unsigned int r = c + 1; r < m; ++r) {
                const double factor = a[r][c] / a[c][c];
                if (factor != 0)
                    for (unsigned int k = c; k <= m; ++k) a[r][k] -= factor * a[c][k];
            }
        std::vector<double> solution(m);
        for (int r = int(m) - 1; r >= 0; --r) {
            double s = a[r][m];
            for (unsigned int k = r + 1; k < m; ++k) s -= a[r][k] * solution[k];
            solution[r] = s / a[r][r];
        }
        for (unsigned int i = 0; i < n; ++i)
            prob[l][i] = unknown[i] >= 0 ? solution[unknown[i]] : (int(f.labels[i]) == int(l) ? 1.0 : 0.0);
    }
    return prob;
}

// A textured frame: two colour regions split by a wavy edge, a few seeds of
// each label, one label's seeds on both sides.
Frame texturedFrame(unsigned int w, unsigned int h) {
    Frame f{w, h, std::vector<float4>(w * h), std::vector<float>(w * h, -1.0f)};
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            const bool right = x > w / 2 + (y % 3);
            const float noise = float((x * 7 + y * 13) % 11);
            f.image[y * w + x] =
                right ? make_float4(200 - noise, 60 + noise, 40, 0) : make_float4(30 + noise, 90, 180, 0);
        }
    if (w < 8 || h < 4) {
        // A line: seeds at both ends and in the middle.
        f.labels[0] = 0;
        f.labels[w * h - 1] = 1;
        f.labels[w * h / 2] = 2;
        return f;
    }
    f.labels[1 * w + 1] = 0;
    f.labels[(h - 2) * w + 2] = 0;
    f.labels[2 * w + (w - 2)] = 1;
    f.labels[(h - 1) * w + (w - 1)] = 1;
    f.labels[(h / 2) * w + w / 2 + 3] = 2;
    return f;
}

std::vector<float> walkerCostMap(const Frame& f, unsigned int nLabels, const SegmentationSettings& settings,
                                 const WalkerCarry& carry = {}) {
    Image image(upload(f.image, f.w, f.h));
    seg::ScopedArray<float, 2> labels(upload(f.labels, f.w, f.h));
    ScopedPDseg s(image.a);
    prepareSegmentation(s, labels.a, static_cast<int>(nLabels), settings, carry);
    return download(s.costMap);
}

SegmentationSettings walkerSettings(float weight) {
    SegmentationSettings settings;
    settings.dataTerm = DataTerm::WALKER;
    settings.dataWeight = weight;
    settings.walkerBeta = 5.0f;
    settings.walkerIterations = 2000;
    settings.walkerTolerance = 1e-6f;
    return settings;
}

// 37 x 11 spans two blocks across and two down, both partial; 1 x 9 and 9 x 1
// have no neighbour on one axis.  The host backend's row loops and the
// kernels' blocks both.
class WalkerCost : public testing::TestWithParam<seg::HostSweep> {
 protected:
    void SetUp() override { seg::setHostSweep(GetParam()); }
    void TearDown() override { seg::setHostSweep(seg::HostSweep::Rows); }
};

TEST_P(WalkerCost, SeedCostPlusWeightedLogProbabilityOfAPlainSolve) {
    for (const auto& size : {std::make_pair(37u, 11u), std::make_pair(1u, 9u), std::make_pair(9u, 1u)}) {
        const Frame f = texturedFrame(size.first, size.second);
        const unsigned int nLabels = 3, n = f.w * f.h;
        const float weight = 0.75f;
        const std::vector<float> cost = walkerCostMap(f, nLabels, walkerSettings(weight));
        const auto prob = referenceProbabilities(f, nLabels, 5.0);
        SCOPED_TRACE(std::to_string(f.w) + " x " + std::to_string(f.h));
        double largest = 0;
        for (unsigned int l = 0; l < nLabels; ++l)
            for (unsigned int i = 0; i < n; ++i) {
                const double seedCost = (f.labels[i] < 0 || int(f.labels[i]) == int(l)) ? 0.0 : 1.0;
                const double p = std::min(1.0, std::max(0.0, prob[l][i]));
                const double expected = seedCost + weight * std::log(p + 0.001) / std::log(0.001);
                const double error = std::abs(cost[l * n + i] - expected);
                largest = std::max(largest, error);
                ASSERT_LE(error, 2e-3 + 1e-3 * std::abs(expected)) << "label " << l << ", pixel " << i;
            }
        EXPECT_GT(largest, 0.0);  // the test compares computed values, not two zeros
    }
}

// A flat image gives every edge the same weight, one label the probability 1
// everywhere, and a weight of 0 the indicator alone.
TEST_P(WalkerCost, FlatImageSingleLabelAndZeroWeight) {
    Frame flat = texturedFrame(20, 10);
    std::fill(flat.image.begin(), flat.image.end(), make_float4(50, 50, 50, 0));
    const std::vector<float> cost = walkerCostMap(flat, 3, walkerSettings(1.0f));
    const auto prob = referenceProbabilities(flat, 3, 5.0);
    for (unsigned int i = 0; i < 200; ++i)
        ASSERT_NEAR(cost[i] - (flat.labels[i] >= 1 ? 1.0f : 0.0f), std::log(prob[0][i] + 0.001) / std::log(0.001),
                    2e-3);

    Frame one = texturedFrame(20, 10);
    for (float& v : one.labels) v = v < 0 ? -1.0f : 0.0f;
    for (float c : walkerCostMap(one, 1, walkerSettings(1.0f))) ASSERT_NEAR(c, std::log(1.001) / std::log(0.001), 1e-5);

    SegmentationSettings seedsOnly;
    const std::vector<float> indicator = walkerCostMap(one, 1, seedsOnly);
    EXPECT_EQ(walkerCostMap(one, 1, walkerSettings(0.0f)), indicator);
}

// A warm start changes where the conjugate gradients begin, not where they
// end: from the solution itself next to no iteration is needed, and from a poor guess
// (the solution mixed with its labels swapped) they reach the same costs.
TEST_P(WalkerCost, AWarmStartEndsAtTheSameSolution) {
    const Frame f = texturedFrame(37, 11);
    const unsigned int nLabels = 3, n = f.w * f.h;
    const SegmentationSettings settings = walkerSettings(1.0f);
    seg::ScopedArray<float, 3> solution;
    int coldIterations = 0, warmIterations = -1;
    const std::vector<float> cold = walkerCostMap(f, nLabels, settings, {nullptr, &solution.a, &coldIterations});
    EXPECT_GT(coldIterations, 5);

    walkerCostMap(f, nLabels, settings, {&solution.a, nullptr, &warmIterations});
    EXPECT_LE(warmIterations, 2);  // the residual recomputed in float sits at the tolerance

    std::vector<float> guess = download(solution.a);
    for (unsigned int i = 0; i < n; ++i) {
        const float first = guess[i];
        guess[i] = 0.5f * first + 0.5f * guess[n + i];
        guess[n + i] = 0.5f * guess[n + i] + 0.5f * first;
    }
    seg::ScopedArray<float, 3> start(seg::deviceArray3D<float>(f.w, f.h, nLabels));
    vela::arrayCopy(start.a, vela::arrayFromHostMemory(guess.data(), make_uint3(f.w, f.h, nLabels)));
    const std::vector<float> warm = walkerCostMap(f, nLabels, settings, {&start.a, nullptr, &warmIterations});
    EXPECT_GT(warmIterations, 0);
    for (std::size_t i = 0; i < cold.size(); ++i) ASSERT_NEAR(warm[i], cold[i], 2e-3) << "element " << i;
}

INSTANTIATE_TEST_SUITE_P(HostPaths, WalkerCost, testing::Values(seg::HostSweep::Rows, seg::HostSweep::Threads));

// Each seed against a plain count of the colour-weighted votes around it;
// frames wider and taller than a block, seeds at the borders.
TEST(SeedCheck, DropsSeedsWhoseLabelHasTooSmallAShareOfTheVote) {
    const unsigned int w = 45, h = 19, nLabels = 4;
    const int radius = 4;
    const float share = 0.4f, scale = -3.0f;
    Frame f{w, h, std::vector<float4>(w * h), std::vector<float>(w * h, -1.0f)};
    unsigned int state = 12345;
    auto next = [&] { return (state = state * 1103515245u + 12345u) >> 8; };
    for (unsigned int i = 0; i < w * h; ++i) {
        const bool right = i % w > w / 2;
        f.image[i] = make_float4(right ? 200 : 40, float(next() % 60), right ? 30 : 190, 0);
        if (next() % 4 == 0) f.labels[i] = next() % 9 == 0 ? float(next() % nLabels) : (right ? 1.0f : 2.0f);
    }
    f.labels[w * h - 1] = 7;  // seeds nothing: no label 7
    Image image(upload(f.image, w, h));
    seg::ScopedArray<float, 2> labels(upload(f.labels, w, h));
    seg::ScopedArray<float, 2> checked(checkSeeds(image.a, labels.a, nLabels, radius, share, scale));
    const std::vector<float> got = download(checked.a);
    int dropped = 0;
    for (int y = 0; y < int(h); ++y)
        for (int x = 0; x < int(w); ++x) {
            const float label = f.labels[y * w + x];
            float own = 0, all = 0;
            for (int j = std::max(0, y - radius); j <= std::min(int(h) - 1, y + radius); ++j)
                for (int i = std::max(0, x - radius); i <= std::min(int(w) - 1, x + radius); ++i) {
                    const float other = f.labels[j * w + i];
                    if (other < 0 || other >= nLabels || (i == x && j == y)) continue;
                    const float4 c = f.image[y * w + x], d = f.image[j * w + i];
                    const float dr = (c.x - d.x) / 255.0f, dg = (c.y - d.y) / 255.0f, db = (c.z - d.z) / 255.0f;
                    const float vote = std::exp(scale * (dr * dr + dg * dg + db * db));
                    all += vote;
                    if (other == label) own += vote;
                }
            const bool seed = label >= 0 && label < nLabels;
            const float want = seed && all > 0 && own < share * all ? -1.0f : label;
            dropped += want != label;
            ASSERT_EQ(got[y * w + x], want) << x << ", " << y;
        }
    EXPECT_GT(dropped, 5);
}

// Every setting reaches the object; the definition's defaults stay.
TEST(PrepareSegmentation, SetsModelParametersAndTheCostMap) {
    Frame f = texturedFrame(12, 6);
    Image image(upload(f.image, f.w, f.h));
    seg::ScopedArray<float, 2> labels(upload(f.labels, f.w, f.h));
    SegmentationSettings settings;
    settings.lambda = 42.0f;
    settings.maxiter = 7;
    settings.model = 3;
    settings.diffusivity = 1;
    settings.alpha = 2.5f;
    ScopedPDseg s(image.a);
    prepareSegmentation(s, labels.a, 3, settings);
    EXPECT_TRUE(s.lambda == 42.0f && s.nIterations == 7 && s.model == PDseg::ANISOTROPIC_TV && s.diffusivityType == 1 &&
                s.alpha == 2.5f && s.nLabels == 3);

    // The 12 x 6 frame holds 5 seeds: below a share of 0.5 of seeded pixels
    // lambda shrinks with the square root of the share; above, it stays.
    for (float density : {0.5f, 0.05f}) {
        settings.lambdaSeedDensity = density;
        ScopedPDseg sparse(image.a);
        prepareSegmentation(sparse, labels.a, 3, settings);
        EXPECT_FLOAT_EQ(sparse.lambda, density > 5.0f / 72.0f ? 42.0f * std::sqrt(5.0f / 72.0f / density) : 42.0f);
    }

    ScopedPDseg plain(image.a);
    prepareSegmentation(plain, labels.a, 3, SegmentationSettings{});
    ScopedPDseg reference(image.a);
    reference.labelsToCostMap(labels.a, 3);
    EXPECT_EQ(download(plain.costMap), download(reference.costMap));
    EXPECT_TRUE(plain.model == PDseg::WEIGHTED_TV && plain.diffusivityType == 0 && plain.alpha == 0.5f);
}

}  // namespace
