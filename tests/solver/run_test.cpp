// PDseg::run() as a whole: every model against the plain reference solve,
// the loop count rule, the hard labelling, the label limits and a small
// segmentation whose answer is known.
#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>

#include "reference.h"
#include "vela/device/runtime.h"

namespace solvertest {
namespace {

// A W x H image in 0..255 and an L-layer cost map with a few labelled pixels
// (cost 0 for their label, 1 for the others) and zero cost elsewhere.
struct Problem {
    Grid<float4> image;
    Grid<float> cost;
};

Problem randomProblem(unsigned int w, unsigned int h, unsigned int L) {
    Problem pr{Grid<float4>(w, h), Grid<float>(w, h, L, 0.0f)};
    for (auto& px : pr.image.data) px = make_float4(uniform(0, 255), uniform(0, 255), uniform(0, 255), 255.0f);
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            if (uniform(0, 1) > 0.2f) continue;
            const unsigned int label = static_cast<unsigned int>(uniform(0, static_cast<float>(L) - 0.01f));
            for (unsigned int l = 0; l < L; ++l) pr.cost(x, y, l) = l == label ? 0.0f : 1.0f;
        }
    return pr;
}

struct Solved {
    Grid<float> relaxed, hard, g;
};

// Runs the solver on the device copy of a problem.
Solved solve(const Problem& pr, int model, int iterations, int diffusivityType = 0, float alpha = 0.5f) {
    DeviceArray<float4, 2> image(toDevice2(pr.image));
    vela::Array<float, 3> cost = toDevice3(pr.cost);
    ScopedPDseg seg(image.a, cost);  // takes the cost map over
    seg.model = static_cast<PDseg::SegmentationModel>(model);
    seg.nIterations = iterations;
    seg.diffusivityType = diffusivityType;
    seg.alpha = alpha;
    seg.run();
    return {toHost(seg.uResult), toHost(seg.u), toHost(seg.g)};
}

void expectHard(const Grid<float>& u) {
    for (unsigned int y = 0; y < u.H; ++y)
        for (unsigned int x = 0; x < u.W; ++x) {
            int ones = 0;
            for (unsigned int l = 0; l < u.L; ++l) {
                ASSERT_TRUE(u(x, y, l) == 0.0f || u(x, y, l) == 1.0f);
                ones += u(x, y, l) == 1.0f;
            }
            ASSERT_EQ(ones, 1) << x << ", " << y;
        }
}

class EveryModel : public ::testing::TestWithParam<int> {};

TEST_P(EveryModel, FollowsTheReferenceForAFewIterations) {
    const int model = GetParam();
    if (model == 2 && vela::device::usesCuda()) GTEST_SKIP() << "the GPU orders the fused tiles itself";
    ScratchDir scratch;  // models 3 and 4 write their gradient picture here
    const Problem pr = randomProblem(37, 9, 3);
    const Solved got = solve(pr, model, 4);
    const Grid<float> want = refSolve(pr.image, pr.cost, model, 4, 10.0f, 0, 0.5f);
    EXPECT_TRUE(near(got.relaxed, want, {1e-4f, 1e-3f})) << "model " << model;
    Grid<float> hard = want;
    refBinarize(hard);
    EXPECT_TRUE(near(got.hard, hard)) << "model " << model;
    expectHard(got.hard);
}

// No iteration leaves u = 1/L, and label 0 wins the tie; one label is all.
TEST_P(EveryModel, ZeroOrNegativeIterationsAndASingleLabel) {
    ScratchDir scratch;
    const Problem pr = randomProblem(5, 3, 4);
    for (int iterations : {0, -3}) {
        const Solved got = solve(pr, GetParam(), iterations);
        for (float v : got.relaxed.data) ASSERT_EQ(v, 0.25f);
        for (unsigned int i = 0; i < 15; ++i) ASSERT_EQ(got.hard.data[i], 1.0f);
        expectHard(got.hard);
    }
    const Solved one = solve(randomProblem(33, 3, 1), GetParam(), 3);
    for (float v : one.relaxed.data) ASSERT_NEAR(v, 1.0f, 1e-6f);
    for (float v : one.hard.data) ASSERT_EQ(v, 1.0f);
}

INSTANTIATE_TEST_SUITE_P(Models, EveryModel, ::testing::Values(0, 1, 2, 3, 4));

TEST(Run, FusedModelGivesIdenticalBytesFromRunToRun) {
    const Problem pr = randomProblem(70, 12, 5);
    const Solved first = solve(pr, 2, 6), second = solve(pr, 2, 6);
    if (!vela::device::usesCuda()) {
        EXPECT_TRUE(sameBytes(first.relaxed, second.relaxed));
    }
    EXPECT_TRUE(sameBytes(first.hard, second.hard) || vela::device::usesCuda());
}

TEST(Run, ExponentialAndUnknownDiffusivities) {
    const Problem pr = randomProblem(19, 5, 3);
    const Solved exp = solve(pr, 1, 3, 1, 2.0f);
    EXPECT_TRUE(near(exp.relaxed, refSolve(pr.image, pr.cost, 1, 3, 10.0f, 1, 2.0f), {1e-4f, 1e-3f}));
    // No such diffusivity: the weights are plain 1 rather than undefined.
    for (float v : solve(pr, 1, 3, 7).g.data) ASSERT_EQ(v, 1.0f);
}

TEST(Run, ManyLabelsWorkAndTooManyAreRefused) {
    for (unsigned int L : {40u, 128u}) {
        const Problem pr = randomProblem(13, 4, L);
        const Solved weighted = solve(pr, 1, 3);
        EXPECT_TRUE(near(weighted.relaxed, refSolve(pr.image, pr.cost, 1, 3, 10.0f, 0, 0.5f), {1e-4f, 1e-3f})) << L;
        expectHard(weighted.hard);
        const Solved fused = solve(pr, 2, 3);
        if (!vela::device::usesCuda()) {
            EXPECT_TRUE(near(fused.relaxed, refSolve(pr.image, pr.cost, 2, 3, 10.0f, 0, 0.5f), {1e-4f, 1e-3f})) << L;
        }
        expectHard(fused.hard);
    }
    const Problem pr = randomProblem(3, 2, 129);
    try {
        solve(pr, 1, 1);
        FAIL() << "129 labels accepted";
    } catch (const std::runtime_error& e) {
        const std::string text = e.what();
        EXPECT_NE(text.find("129"), std::string::npos) << text;
        EXPECT_NE(text.find("128"), std::string::npos) << text;
    }
}

TEST(Run, WithoutACostMapOnlyTheErrorLineIsWritten) {
    DeviceArray<float4, 2> image(toDevice2(Grid<float4>(4, 3)));
    ScopedPDseg seg(image.a);
    const vela::Array<float, 3> u = seg.u, uResult = seg.uResult;
    const vela::Array<float, 2> g = seg.g;
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    seg.run();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: PDseg::run(): No cost map is given\n");
    EXPECT_EQ(seg.u.data, u.data);
    EXPECT_EQ(seg.uResult.data, uResult.data);
    EXPECT_EQ(seg.g.data, g.data);
}

TEST(Run, AnImageOfAnotherSizeIsRefused) {
    const Problem pr = randomProblem(6, 4, 2);
    DeviceArray<float4, 2> image(toDevice2(Grid<float4>(6, 5)));
    vela::Array<float, 3> cost = toDevice3(pr.cost);
    ScopedPDseg seg(image.a, cost);
    EXPECT_THROW(seg.run(), std::runtime_error);
}

TEST(Run, TensorModelsLeaveTheirGradientPicture) {
    for (int model : {3, 4}) {
        ScratchDir scratch;
        solve(randomProblem(6, 4, 2), model, 1);
        const std::string ppm = fileBytes("imageGradient.ppm");
        EXPECT_EQ(ppm.substr(0, 13), "P6 \n6 4 \n255\n") << "model " << model;
        EXPECT_EQ(ppm.size(), 13u + 6 * 4 * 3) << "model " << model;
    }
}

TEST(Run, SecondRunStartsAfreshAndReplacesTheWeights) {
    const Problem pr = randomProblem(9, 5, 3);
    DeviceArray<float4, 2> image(toDevice2(pr.image));
    vela::Array<float, 3> cost = toDevice3(pr.cost);
    ScopedPDseg seg(image.a, cost);
    seg.nIterations = 5;
    seg.run();
    const Grid<float> first = toHost(seg.uResult);
    seg.run();  // the leak check of the sanitizer build sees a lost first g
    EXPECT_TRUE(sameBytes(toHost(seg.uResult), first));
}

}  // namespace
}  // namespace solvertest
