// The random-walker data term against a plain solve of the same linear
// systems, and the frame preparation that chooses it.
#include "src/dataterms/walker.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "engine_test_util.h"
#include "src/dataterms/seed_check.h"
#include "src/dataterms/walker_region.h"
#include "src/frame.h"
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

// The seed costs and, with the walker as data term, the walker's; `solve`
// receives the walker's probabilities and iterations.
std::vector<float> walkerCostMap(const Frame& f, unsigned int nLabels, const SegmentationSettings& settings,
                                 const WalkerStart& start = {}, WalkerSolve* solve = nullptr) {
    Image image(upload(f.image, f.w, f.h));
    seg::ScopedArray<float, 2> labels(upload(f.labels, f.w, f.h));
    ScopedPDseg s(image.a);
    s.labelsToCostMap(labels.a, static_cast<int>(nLabels));
    if (settings.dataTerm == DataTerm::WALKER) {
        WalkerSolve result = addWalkerCost(s, labels.a, settings, colourSpread(image.a), start);
        if (solve) *solve = std::move(result);
    }
    return download(s.costMap);
}

SegmentationSettings walkerSettings(float weight) {
    SegmentationSettings settings;
    settings.dataTerm = DataTerm::WALKER;
    settings.dataWeight = weight;
    settings.walkerBeta = 5.0f;
    settings.walkerIterations = 2000;
    settings.walkerTolerance = 1e-6f;
    settings.temporalWalkerTolerance = 0.0f;  // a restricted solve stops where a full one does
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

// A solve restricted to where the start may not hold: from the solution
// itself it ends at the same costs (the free pixels, solved from 0, meet the
// kept ones at the solution); from a start fairly sure of label 0 everywhere
// it keeps that start beyond the radius around the seeds that contradict it
// and around the pixels marked changed, and solves within.
TEST_P(WalkerCost, ARestrictedSolveKeepsTheStartWhereItHolds) {
    const Frame f = texturedFrame(70, 20);
    const unsigned int nLabels = 3, n = f.w * f.h, radius = 3;
    SegmentationSettings settings = walkerSettings(1.0f);
    settings.walkerBeta = 50.0f;
    WalkerSolve solution, warm, kept;
    const std::vector<float> cold = walkerCostMap(f, nLabels, settings, {}, &solution);
    const std::vector<float> again = walkerCostMap(f, nLabels, settings, {&solution.probabilities.a, radius}, &warm);
    EXPECT_LT(warm.iterations, solution.iterations);
    for (std::size_t i = 0; i < cold.size(); ++i) ASSERT_NEAR(again[i], cold[i], 2e-3) << "element " << i;

    const float sure = 0.95f;
    std::vector<float> start(n * nLabels, 0.0f);
    std::fill(start.begin(), start.begin() + n, sure);
    std::fill(start.begin() + n, start.begin() + 2 * n, 1.0f - sure);
    seg::ScopedArray<float, 3> startArray(seg::deviceArray3D<float>(f.w, f.h, nLabels));
    vela::arrayCopy(startArray.a, vela::arrayFromHostMemory(start.data(), make_uint3(f.w, f.h, nLabels)));
    // Changed next to the label-0 seed at (1, 1): the solve lifts label 0 there.
    const unsigned int changedX = 3, changedY = 2;
    std::vector<float> changedPixels(n, 0.0f);
    changedPixels[changedY * f.w + changedX] = 1.0f;
    seg::ScopedArray<float, 2> changed(upload(changedPixels, f.w, f.h));
    walkerCostMap(f, nLabels, settings, {&startArray.a, radius, &changed.a}, &kept);
    EXPECT_GT(kept.iterations, 0);
    const std::vector<float> probabilities = download(kept.probabilities.a);
    auto within = [&](unsigned int x, unsigned int y, unsigned int i) {
        return std::max(std::abs(int(x) - int(i % f.w)), std::abs(int(y) - int(i / f.w))) <= int(radius);
    };
    unsigned int keptPixels = 0, solvedPixels = 0;
    for (unsigned int y = 0; y < f.h; ++y)
        for (unsigned int x = 0; x < f.w; ++x) {
            if (f.labels[y * f.w + x] >= 0) continue;
            bool free = within(x, y, changedY * f.w + changedX);
            for (unsigned int i = 0; i < n; ++i) free = free || (f.labels[i] > 0 && within(x, y, i));
            const float label0 = probabilities[y * f.w + x];
            if (!free) {
                ASSERT_EQ(label0, sure) << x << ", " << y;
                ++keptPixels;
            }
            solvedPixels += free && label0 != sure;
        }
    EXPECT_GT(keptPixels, n / 2);
    EXPECT_GT(solvedPixels, 20u);
    EXPECT_GT(probabilities[1 * f.w + 2], sure);
}

INSTANTIATE_TEST_SUITE_P(HostPaths, WalkerCost, testing::Values(seg::HostSweep::Rows, seg::HostSweep::Threads));

// The free region against a plain loop: a guess of blocks of labels, some
// pixels unsure, seeds that agree and seeds that do not, a changed pixel;
// 37 x 11 spans partial blocks.
TEST(WalkerRegion, FreeWithinTheRadiusOfBoundariesDoubtsContradictionsAndChanges) {
    const unsigned int w = 37, h = 11, nLabels = 3, radius = 2;
    std::vector<float> guess(w * h * nLabels, 0.0f), seeds(w * h, -1.0f), changedPixels(w * h, 0.0f);
    std::vector<unsigned int> best(w * h);
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            const unsigned int i = y * w + x, label = (x / 13 + y / 6) % nLabels;
            const bool unsure = (x * 7 + y * 3) % 23 == 0;
            best[i] = label;
            guess[label * w * h + i] = unsure ? 0.6f : 0.95f;
            guess[((label + 1) % nLabels) * w * h + i] = unsure ? 0.4f : 0.05f;
        }
    seeds[5 * w + 3] = static_cast<float>(best[5 * w + 3]);              // agrees
    seeds[2 * w + 20] = static_cast<float>((best[2 * w + 20] + 1) % 3);  // contradicts
    seeds[9 * w + 35] = 7.0f;                                            // no label: no seed
    changedPixels[8 * w + 6] = 1.0f;

    std::vector<bool> unsettled(w * h);
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            const unsigned int i = y * w + x;
            const int seed = seeds[i] >= 0 && seeds[i] < nLabels ? int(seeds[i]) : -1;
            unsettled[i] = guess[best[i] * w * h + i] < 0.9f || (seed >= 0 && seed != int(best[i])) ||
                           changedPixels[i] != 0.0f || (x + 1 < w && best[i + 1] != best[i]) ||
                           (y + 1 < h && best[i + w] != best[i]);
        }
    seg::ScopedArray<float, 3> guessArray(seg::deviceArray3D<float>(w, h, nLabels));
    vela::arrayCopy(guessArray.a, vela::arrayFromHostMemory(guess.data(), make_uint3(w, h, nLabels)));
    seg::ScopedArray<float, 2> labels(upload(seeds, w, h)), changed(upload(changedPixels, w, h));
    seg::ScopedArray<float, 2> free(seg::deviceArray2D<float>(w, h));
    seg::markFreePixels(free.a, guessArray.a, labels.a, changed.a, radius);
    const std::vector<float> got = download(free.a);
    unsigned int freeCount = 0;
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            bool expected = false;
            for (unsigned int j = y > radius ? y - radius : 0; j <= y + radius && j < h; ++j)
                for (unsigned int i = x > radius ? x - radius : 0; i <= x + radius && i < w; ++i)
                    expected = expected || unsettled[j * w + i];
            ASSERT_EQ(got[y * w + x], expected ? 1.0f : 0.0f) << x << ", " << y;
            freeCount += expected;
        }
    EXPECT_GT(freeCount, 0u);
    EXPECT_LT(freeCount, w * h);
}

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
TEST(PrepareFrame, SetsModelParametersAndTheCostMap) {
    Frame f = texturedFrame(12, 6);
    Image image(upload(f.image, f.w, f.h));
    seg::ScopedArray<float, 2> labels(upload(f.labels, f.w, f.h));
    SegmentationSettings settings;
    settings.lambda = 42.0f;
    settings.maxiter = 7;
    settings.model = 3;
    settings.diffusivity = 1;
    settings.alpha = 2.5f;
    const FrameSeeds seeds{labels.a, {0, 1, 2}};
    ScopedPDseg s(image.a);
    prepareFrame(s, seeds, settings);
    EXPECT_TRUE(s.lambda == 42.0f && s.nIterations == 7 && s.model == PDseg::ANISOTROPIC_TV && s.diffusivityType == 1 &&
                s.alpha == 2.5f && s.nLabels == 3);

    // The 12 x 6 frame holds 5 seeds: below a share of 0.5 of seeded pixels
    // lambda shrinks with the square root of the share; above, it stays.
    for (float density : {0.5f, 0.05f}) {
        settings.lambdaSeedDensity = density;
        ScopedPDseg sparse(image.a);
        prepareFrame(sparse, seeds, settings);
        EXPECT_FLOAT_EQ(sparse.lambda, density > 5.0f / 72.0f ? 42.0f * std::sqrt(5.0f / 72.0f / density) : 42.0f);
    }

    // The same share decides whether the walker takes sparseWalkerBeta: the
    // sparse frame's costs are those of walkerBeta set to it, the dense
    // frame's those of walkerBeta itself.
    auto walkerCosts = [&](float density, float beta, float sparseBeta) {
        SegmentationSettings walker;
        walker.dataTerm = DataTerm::WALKER;
        walker.lambdaSeedDensity = density;
        walker.walkerBeta = beta;
        walker.sparseWalkerBeta = sparseBeta;
        ScopedPDseg solver(image.a);
        prepareFrame(solver, seeds, walker);
        return download(solver.costMap);
    };
    EXPECT_EQ(walkerCosts(0.5f, 500.0f, 5000.0f), walkerCosts(0.5f, 5000.0f, 0.0f));
    EXPECT_NE(walkerCosts(0.5f, 500.0f, 5000.0f), walkerCosts(0.5f, 500.0f, 0.0f));
    EXPECT_EQ(walkerCosts(0.05f, 500.0f, 5000.0f), walkerCosts(0.05f, 500.0f, 0.0f));

    ScopedPDseg plain(image.a);
    prepareFrame(plain, seeds, SegmentationSettings{});
    ScopedPDseg reference(image.a);
    reference.labelsToCostMap(labels.a, 3);
    EXPECT_EQ(download(plain.costMap), download(reference.costMap));
    EXPECT_TRUE(plain.model == PDseg::WEIGHTED_TV && plain.diffusivityType == 0 && plain.alpha == 0.5f);
}

}  // namespace
