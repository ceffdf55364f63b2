// The solver's pieces that run_test.cpp cannot pin down: the exact early stop
// of the simplex projection, binarisation of ties and NaN, and the label limit
// of the operations themselves.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "reference.h"
#include "src/solver/ops.h"
#include "src/solver/simplex.h"

namespace solvertest {
namespace {

// Rounds stop once the threshold repeats; the result must be the bits of all L
// rounds.  The inputs spread widely, tie, have one label far ahead or lie near
// the simplex.  (The packs of the host's row sweeps meet the same rule through
// the comparison of the host paths in run_test.cpp.)
TEST(Simplex, EarlyStopGivesTheBitsOfAllRounds) {
    for (int L : {1, 2, 3, 5, 8, 13, 32, 40, 64, 128})
        for (int trial = 0; trial < 40; ++trial) {
            std::vector<float> v(L);
            const float spread = trial % 4 == 0 ? 0.01f : trial % 4 == 1 ? 1.0f : trial % 4 == 2 ? 50.0f : 1e4f;
            for (auto& x : v) x = uniform(-spread, spread);
            if (trial % 5 == 0)
                for (int k = 1; k < L; k += 2) v[k] = v[k - 1];
            if (trial % 7 == 0) v[L / 2] += 10.0f;
            if (trial % 3 == 0)
                for (auto& x : v) x = 1.0f / static_cast<float>(L) + 0.05f * x / spread;
            std::vector<float> want = v;
            refProjectSimplex(want.data(), L);
            seg::projectSimplex(v.data(), L);
            ASSERT_EQ(0, std::memcmp(v.data(), want.data(), L * sizeof(float))) << "L " << L << " input " << trial;
        }
}

TEST(SolverSteps, BinarizeTakesTheFirstLargestLabel) {
    const float nan = std::nanf("");
    // Five pixels, label by label: a clear winner, a tie of the first two, a tie
    // of the last two, nothing positive, and a NaN.
    Grid<float> u(5, 1, 3);
    u.data = {0.2f, 0.4f, 0.1f, -1.0f, nan, 0.5f, 0.4f, 0.45f, 0.0f, nan, 0.3f, 0.2f, 0.45f, -0.5f, 0.5f};
    const unsigned int want[5] = {1, 0, 1, 0, 2};
    auto du = upload<3>(u);
    seg::binarize(du.a);
    vela::_CHECK_CUDA_ERROR("steps_test", __LINE__);
    const Grid<float> got = toHost(du.a);
    for (unsigned int x = 0; x < 5; ++x)
        for (unsigned int l = 0; l < 3; ++l) EXPECT_EQ(got(x, 0, l), l == want[x] ? 1.0f : 0.0f) << x << ", " << l;
}

TEST(SolverSteps, MoreThanTheLabelLimitIsRefused) {
    seg::ScopedArray<float, 3> u(seg::deviceArray3D<float>(2, 2, 129));
    seg::ScopedArray<float2, 3> p(seg::deviceArray3D<float2>(2, 2, 129));
    seg::ScopedArray<float, 2> g(seg::deviceArray2D<float>(2, 2));
    EXPECT_THROW(seg::update_primal(u.a, u.a, u.a, p.a, 0.1f, 1.0f), std::runtime_error);
    EXPECT_THROW(seg::update_fast(u.a, u.a, p.a, g.a, 0.1f, 1.25f, 1.0f), std::runtime_error);
}

}  // namespace
}  // namespace solvertest
