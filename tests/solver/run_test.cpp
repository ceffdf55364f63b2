// PDseg::run() as a whole, and through it every kernel of the solver on both
// host code paths: every model against the plain reference solve, the loop
// count rule, the hard labelling, a segmentation whose answer is known, and
// what it refuses.
#include <gtest/gtest.h>
#include <omp.h>

#include <stdexcept>
#include <string>

#include "reference.h"
#include "src/solver/ops.h"
#include "vela/device/runtime.h"

namespace solvertest {
namespace {

// A W x H image of full contrast, each channel 0 or 255 (strong edges, so that
// the tensor models' duals reach their bounds), and an L-layer cost map with a
// few labelled pixels (cost 0 for their label, 1 for the others) and zero cost
// elsewhere.
struct Problem {
    Grid<float4> image;
    Grid<float> cost;
};

Problem randomProblem(unsigned int w, unsigned int h, unsigned int L) {
    Problem pr{randomGrid<float4>(w, h, 1, 0.0f, 2.0f), Grid<float>(w, h, L, 0.0f)};
    for (auto& px : pr.image.data) px = make_float4(px.x < 1 ? 0 : 255, px.y < 1 ? 0 : 255, px.z < 1 ? 0 : 255, 255);
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            if (uniform(0, 1) > 0.2f) continue;
            const unsigned int label = static_cast<unsigned int>(uniform(0, static_cast<float>(L) - 0.01f));
            for (unsigned int l = 0; l < L; ++l) pr.cost(x, y, l) = l == label ? 0.0f : 1.0f;
        }
    return pr;
}

struct Solved {
    Grid<float> relaxed, hard;
};

// Runs the solver twice on one object: the second run must start afresh and
// give the same bytes (and replace the first run's weights, or a leak check
// sees them lost).  Only the GPU's fused tiles may race.
// Model 5 is model 1 with the contrast-normalised edges.
Solved solve(const Problem& pr, int model, int iterations, int diffusivityType = 0, float tolerance = 0.0f,
             int* iterationsDone = nullptr) {
    auto image = upload<2>(pr.image);
    vela::Array<float, 3> cost = toDevice<3>(pr.cost);
    ScopedPDseg seg(image.a, cost);  // takes the cost map over
    seg.model = static_cast<PDseg::SegmentationModel>(model == 5 ? 1 : model);
    if (model == 5) seg.edgeWeights = PDseg::CONTRAST_EDGES;
    seg.nIterations = iterations;
    seg.diffusivityType = diffusivityType;
    seg.tolerance = tolerance;
    seg.run();
    if (iterationsDone) *iterationsDone = seg.iterationsDone;
    const Solved first{toHost(seg.uResult), toHost(seg.u)};
    seg.run();
    EXPECT_TRUE((model == 2 && vela::device::usesCuda()) ||
                (sameBytes(toHost(seg.uResult), first.relaxed) && sameBytes(toHost(seg.u), first.hard)))
        << "the second run differs";
    return first;
}

// The relaxed labelling lies on the simplex; the hard one holds one 1 per
// pixel, at the first largest relaxed value.
void expectConsistent(const Solved& s) {
    for (unsigned int y = 0; y < s.hard.H; ++y)
        for (unsigned int x = 0; x < s.hard.W; ++x) {
            unsigned int best = 0;
            double sum = 0;
            for (unsigned int l = 0; l < s.hard.L; ++l) {
                ASSERT_GE(s.relaxed(x, y, l), 0.0f) << x << ", " << y << ", " << l;
                sum += s.relaxed(x, y, l);
                if (s.relaxed(x, y, l) > s.relaxed(x, y, best)) best = l;
            }
            ASSERT_NEAR(sum, 1.0, 1e-4) << x << ", " << y;
            for (unsigned int l = 0; l < s.hard.L; ++l)
                ASSERT_EQ(s.hard(x, y, l), l == best ? 1.0f : 0.0f) << x << ", " << y << ", " << l;
        }
}

// Every model against the plain per-pixel solve for a few iterations: partly
// filled blocks and tiles, a single pixel, column and row, label counts of
// every capacity up to the limit, no iteration at all (u stays 1/L and label 0
// wins the tie), the exponential diffusivity and an unknown one (plain weights
// of 1), and enough iterations for the tensor models' duals to reach their
// bounds.  On the host the row sweeps with one or three threads and the
// per-thread kernels must give the same bytes.  The tensor models leave their
// gradient picture.
TEST(Run, EveryModelFollowsThePlainLoop) {
    struct Case {
        unsigned int W, H, L;
        int iterations, diffusivity;
    };
    const Case cases[] = {{37, 9, 13, 4, 0}, {1, 5, 3, 4, 0},   {7, 1, 2, 4, 0},    {1, 1, 5, 3, 0}, {32, 4, 33, 3, 0},
                          {33, 3, 1, 3, 0},  {13, 4, 40, 2, 0}, {13, 4, 128, 2, 0}, {5, 3, 4, 0, 0}, {5, 3, 4, -3, 0},
                          {19, 5, 20, 3, 1}, {19, 5, 3, 3, 7},  {12, 8, 4, 40, 0}};
    const int threads = omp_get_max_threads();
    for (const Case& c : cases) {
        const Problem pr = randomProblem(c.W, c.H, c.L);
        for (int model = 0; model < 5; ++model) {
            SCOPED_TRACE(std::to_string(c.W) + " x " + std::to_string(c.H) + " x " + std::to_string(c.L) + ", " +
                         std::to_string(c.iterations) + " iterations, diffusivity " + std::to_string(c.diffusivity) +
                         ", model " + std::to_string(model));
            const Grid<float> want = refSolve(pr.image, pr.cost, model, c.iterations, c.diffusivity);
            Grid<float> first;
            // Rows with one thread, with three, then the per-thread kernels.
            for (int path = 0; path < (vela::device::usesCuda() ? 1 : 3); ++path) {
                ScratchDir scratch;
                omp_set_num_threads(path == 1 ? 3 : 1);
                seg::setHostSweep(path == 2 ? seg::HostSweep::Threads : seg::HostSweep::Rows);
                const Solved got = solve(pr, model, c.iterations, c.diffusivity);
                seg::setHostSweep(seg::HostSweep::Rows);
                if (path == 0) first = got.relaxed;
                // The GPU orders the fused tiles itself.
                EXPECT_TRUE((model == 2 && vela::device::usesCuda()) || near(got.relaxed, want, 1e-4f, 1e-3f)) << path;
                EXPECT_TRUE(sameBytes(got.relaxed, first)) << "host path " << path;
                expectConsistent(got);
                const std::string ppm = fileBytes("imageGradient.ppm");
                const std::string header = "P6 \n" + std::to_string(c.W) + " " + std::to_string(c.H) + " \n255\n";
                EXPECT_TRUE(model < 3 || (ppm.rfind(header, 0) == 0 && ppm.size() == header.size() + 3 * c.W * c.H))
                    << "a gradient picture of " << ppm.size() << " bytes";
            }
        }
    }
    omp_set_num_threads(threads);
}

// The contrast-normalised edges against the plain loop, on both host paths:
// blocks partly filled, a single column and row, and a flat image (every
// weight 1).
TEST(Run, ContrastEdgesFollowThePlainLoop) {
    struct Case {
        unsigned int W, H, L;
        int iterations;
        bool flat;
    };
    for (const Case& c : {Case{37, 9, 5, 6, false}, Case{1, 5, 3, 4, false}, Case{7, 1, 2, 4, false},
                          Case{12, 8, 4, 40, false}, Case{9, 6, 3, 5, true}}) {
        Problem pr = randomProblem(c.W, c.H, c.L);
        if (c.flat)
            for (auto& px : pr.image.data) px = make_float4(90, 90, 90, 255);
        SCOPED_TRACE(std::to_string(c.W) + " x " + std::to_string(c.H) + " x " + std::to_string(c.L));
        const Grid<float> want = refSolve(pr.image, pr.cost, 5, c.iterations, 0);
        for (seg::HostSweep path : {seg::HostSweep::Rows, seg::HostSweep::Threads}) {
            seg::setHostSweep(path);
            const Solved got = solve(pr, 5, c.iterations);
            seg::setHostSweep(seg::HostSweep::Rows);
            EXPECT_TRUE(near(got.relaxed, want, 1e-4f, 1e-3f));
            expectConsistent(got);
        }
    }
}

// With a tolerance the solve stops, at a multiple of the checking interval,
// once the labelling settles, and its hard labelling is the one of the full
// run; without one, and always for the fused model, every iteration runs.
TEST(Run, AToleranceStopsOnceTheLabellingSettles) {
    restartRandom(20240611u);
    const Problem pr = randomProblem(40, 30, 4);
    for (int model : {0, 1, 3, 4, 5}) {
        int done = 0, all = 0;
        const Solved early = solve(pr, model, 3000, 0, 1e-4f, &done);
        const Solved full = solve(pr, model, 3000, 0, 0.0f, &all);
        EXPECT_TRUE(done < 3000 && done % 10 == 0 && all == 3000) << "model " << model << ": " << done;
        int differ = 0;
        for (std::size_t i = 0; i < full.hard.data.size(); ++i) differ += early.hard.data[i] != full.hard.data[i];
        EXPECT_LE(differ, 2 * 12) << "model " << model;  // 1 % of the pixels, two layers each
    }
    int done = 0;
    solve(pr, 2, 50, 0, 0.5f, &done);
    EXPECT_EQ(done, 50);
}

// A dark left half and a bright right half, labelled only in their centres:
// the edge-weighted models put the boundary on the image edge.  (The tensor
// models measure the label gradient along image structure, which a flat region
// lacks, and leave the boundary open.)
TEST(Run, EdgeWeightedModelsFindTwoRegionsLabelledAtTheirCentres) {
    const unsigned int w = 24, h = 10;
    Problem pr{Grid<float4>(w, h), Grid<float>(w, h, 2, 0.0f)};
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x)
            pr.image(x, y) = x < w / 2 ? make_float4(40, 60, 50, 255) : make_float4(220, 200, 210, 255);
    for (unsigned int y = 4; y < 6; ++y)
        for (unsigned int x : {5u, 6u, 17u, 18u}) pr.cost(x, y, x < w / 2 ? 1 : 0) = 1.0f;
    for (int model : {1, 2, 5}) {
        const Solved got = solve(pr, model, 100);
        int wrong = 0;
        for (unsigned int y = 0; y < h; ++y)
            for (unsigned int x = 0; x < w; ++x) wrong += got.hard(x, y, x < w / 2 ? 0 : 1) != 1.0f;
        EXPECT_EQ(wrong, 0) << "model " << model;
    }
}

// The recommended solver's weight and cost filter, with enough iterations to
// settle a small frame.
void useFilteredCosts(PDseg& seg) {
    seg.lambda = 3.0f;
    seg.nIterations = 200;
    seg.filterRadius = 8;
}

// A 10 x 10 noisy grey frame with one seed of each of two labels and the cost
// filter on: the filter averages a lone seed's costs away, so without held
// labels a seed loses its label (the failure this guards against); held, both
// keep theirs in every model, and the filter still reaches every other pixel.
TEST(Run, HeldLabelsHoldAgainstTheCostFilterAndTheBoundary) {
    restartRandom(20240611u);
    const unsigned int n = 10;
    Problem pr{randomGrid<float4>(n, n, 1, 100.0f, 160.0f), Grid<float>(n, n, 2, 0.0f)};
    for (auto& px : pr.image.data) px = make_float4(px.x, px.x, px.x, 0);
    const unsigned int seeds[2][2] = {{2, 3}, {6, 7}};
    Grid<float> held(n, n, 1, -1.0f);
    for (unsigned int l = 0; l < 2; ++l) {
        const auto [x, y] = seeds[l];
        pr.cost(x, y, 1 - l) = 1.0f;
        held(x, y) = static_cast<float>(l);
    }
    for (int model : {0, 1, 2, 3, 4, 5}) {
        for (bool hold : {false, true}) {
            auto image = upload<2>(pr.image);
            vela::Array<float, 3> cost = toDevice<3>(pr.cost);
            ScratchDir scratch;  // the tensor models write imageGradient.ppm
            ScopedPDseg seg(image.a, cost);
            seg.model = static_cast<PDseg::SegmentationModel>(model == 5 ? 1 : model);
            if (model == 5) seg.edgeWeights = PDseg::CONTRAST_EDGES;
            useFilteredCosts(seg);
            if (hold) seg.heldLabels = upload<2>(held);
            seg.run();
            const Grid<float> hard = toHost(seg.u);
            const bool kept = hard(2, 3, 0) == 1.0f && hard(6, 7, 1) == 1.0f;
            EXPECT_EQ(kept, hold) << "model " << model << (hold ? ", held" : ", not held");
        }
    }
}

// A 6 x 6 block that prefers label 1 amid a frame that prefers label 0, the
// image noise alone: given in the cost map, the cost filter averages the
// block away; given as costs after the filter, it keeps its label.
TEST(Run, CostsAfterTheFilterAreNotSmoothed) {
    const unsigned int n = 12;
    Problem pr{randomGrid<float4>(n, n, 1, 100.0f, 160.0f), Grid<float>(n, n, 2, 0.0f)};
    for (auto& px : pr.image.data) px = make_float4(px.x, px.x, px.x, 0);
    Grid<float> prefer(n, n, 2, 0.0f);
    for (unsigned int y = 0; y < n; ++y)
        for (unsigned int x = 0; x < n; ++x) {
            const bool block = x >= 3 && x < 9 && y >= 3 && y < 9;
            prefer(x, y, block ? 0 : 1) = 1.0f;
        }
    for (bool after : {false, true}) {
        auto image = upload<2>(pr.image);
        vela::Array<float, 3> cost = toDevice<3>(after ? pr.cost : prefer);
        ScopedPDseg seg(image.a, cost);
        seg.model = PDseg::WEIGHTED_TV;
        seg.edgeWeights = PDseg::CONTRAST_EDGES;
        useFilteredCosts(seg);
        if (after) seg.costsAfterFilter = upload<3>(prefer);
        seg.run();
        const Grid<float> hard = toHost(seg.u);
        EXPECT_EQ(hard(5, 5, 1), after ? 1.0f : 0.0f) << (after ? "after the filter" : "in the cost map");
        EXPECT_EQ(hard(0, 0, 0), 1.0f);
    }
}

// More labels than the limit, an image of another size, and no cost map at
// all, which writes only its error line and leaves the arrays alone.
TEST(Run, RefusesWhatItCannotSolve) {
    try {
        solve(randomProblem(3, 2, 129), 1, 1);
        ADD_FAILURE() << "129 labels accepted";
    } catch (const std::runtime_error& e) {
        const std::string text = e.what();
        EXPECT_TRUE(text.find("129") != std::string::npos && text.find("128") != std::string::npos) << text;
    }
    auto image = upload<2>(Grid<float4>(6, 5));
    vela::Array<float, 3> cost = toDevice<3>(Grid<float>(6, 4, 2));
    ScopedPDseg wrongSize(image.a, cost);
    EXPECT_THROW(wrongSize.run(), std::runtime_error);

    ScopedPDseg seg(image.a);
    const void* before[] = {seg.u.data, seg.uResult.data, seg.g.data};
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    seg.run();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: PDseg::run(): No cost map is given\n");
    EXPECT_TRUE(seg.u.data == before[0] && seg.uResult.data == before[1] && seg.g.data == before[2]);
}

}  // namespace
}  // namespace solvertest
