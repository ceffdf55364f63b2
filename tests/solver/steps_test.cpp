// Each device operation of the solver against the plain per-pixel loops of
// reference.cpp, on sizes that do not fill the blocks (and W = 1, H = 1), for
// both host code paths; the two paths must agree bit for bit.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <functional>
#include <string>

#include "reference.h"
#include "src/PDseg_solver_ops.h"
#include "vela/device/runtime.h"

namespace solvertest {
namespace {

struct Shape {
    unsigned int W, H, L;
};

// Single pixels, single columns and rows, partial blocks, interiors long enough
// for both pack widths, and label counts of every capacity up to 64.
const Shape kShapes[] = {{1, 1, 1},   {1, 7, 3},  {9, 1, 2},   {2, 2, 5},  {5, 3, 8},
                         {37, 5, 13}, {70, 4, 3}, {23, 3, 40}, {45, 3, 16}};

std::string name(const Shape& s) {
    return std::to_string(s.W) + " x " + std::to_string(s.H) + " x " + std::to_string(s.L);
}

// Runs `step` once per host code path (once on the cuda backend, where both are
// the kernels) and returns what it produced; the paths must agree exactly.
template <class T>
Grid<T> onEveryPath(const std::function<Grid<T>()>& step) {
    seg::setHostSweep(seg::HostSweep::Rows);
    Grid<T> rows = step();
    vela::_CHECK_CUDA_ERROR("steps_test", __LINE__);
    if (!vela::device::usesCuda()) {
        seg::setHostSweep(seg::HostSweep::Threads);
        Grid<T> threads = step();
        seg::setHostSweep(seg::HostSweep::Rows);
        vela::_CHECK_CUDA_ERROR("steps_test", __LINE__);
        EXPECT_TRUE(sameBytes(rows, threads)) << "row sweeps and per-thread kernels differ";
    }
    return rows;
}

Grid<float4> randomTensors(unsigned int w, unsigned int h) {
    Grid<float4> D(w, h);
    for (auto& d : D.data) d = make_float4(uniform(-1, 1), uniform(-1, 1), uniform(-1, 1), uniform(-1, 1));
    return D;
}

void expectOnSimplex(const Grid<float>& u) {
    for (unsigned int y = 0; y < u.H; ++y)
        for (unsigned int x = 0; x < u.W; ++x) {
            double sum = 0;
            for (unsigned int l = 0; l < u.L; ++l) {
                ASSERT_GE(u(x, y, l), 0.0f) << x << ", " << y << ", " << l;
                sum += u(x, y, l);
            }
            ASSERT_NEAR(sum, 1.0, 1e-5) << x << ", " << y;
        }
}

TEST(SolverSteps, DualStepsMatchThePlainLoop) {
    for (const Shape& s : kShapes) {
        SCOPED_TRACE(name(s));
        const Grid<float> v = randomGrid(s.W, s.H, s.L, -0.5f, 1.5f);
        const Grid<float2> p0 = randomDuals(s.W, s.H, s.L, 1.5f);
        const Grid<float> g = randomGrid(s.W, s.H, 1, 0.05f, 2.0f);
        const Grid<float4> D = randomTensors(s.W, s.H);
        const float sigma = 1.25f;
        DeviceArray<float, 3> dv(toDevice3(v));
        DeviceArray<float, 2> dg(toDevice2(g));
        DeviceArray<float4, 2> dD(toDevice2(D));

        struct Case {
            const char* what;
            Form form;
            const Grid<float>* g;
            std::function<void(const vela::Array<float2, 3>&)> run;
        };
        const Case cases[] = {
            {"unweighted", Form::Isotropic, nullptr, [&](auto& p) { seg::update_dual(p, dv.a, sigma); }},
            {"weighted", Form::Isotropic, &g, [&](auto& p) { seg::update_dual(p, dv.a, sigma, dg.a); }},
            {"structure tensor", Form::Structure, &g,
             [&](auto& p) { seg::update_dual_aniso(p, dv.a, sigma / 10, dD.a, dg.a); }},
            {"reflection", Form::Reflection, nullptr,
             [&](auto& p) { seg::update_dual_aniso_exp(p, dv.a, sigma / 10, dD.a); }},
        };
        for (const Case& c : cases) {
            Grid<float2> want = p0;
            refDual(want, v, c.form == Form::Isotropic ? sigma : sigma / 10, c.g, &D, c.form);
            const Grid<float2> got = onEveryPath<float2>([&] {
                DeviceArray<float2, 3> dp(toDevice3(p0));
                c.run(dp.a);
                return toHost(dp.a);
            });
            EXPECT_TRUE(near(got, want)) << c.what;
        }
    }
}

TEST(SolverSteps, PrimalStepsMatchThePlainLoopAndStayOnTheSimplex) {
    for (const Shape& s : kShapes) {
        SCOPED_TRACE(name(s));
        const Grid<float> u0 = randomLabelling(s.W, s.H, s.L);
        const Grid<float> f = randomGrid(s.W, s.H, s.L, 0.0f, 1.0f);
        const Grid<float2> p = randomDuals(s.W, s.H, s.L, 1.0f);
        const Grid<float4> D = randomTensors(s.W, s.H);
        DeviceArray<float, 3> df(toDevice3(f));
        DeviceArray<float2, 3> dp(toDevice3(p));
        DeviceArray<float4, 2> dD(toDevice2(D));

        struct Case {
            const char* what;
            Form form;
            float tau;
            std::function<void(const vela::Array<float, 3>&, const vela::Array<float, 3>&)> run;
        };
        const Case cases[] = {
            {"isotropic", Form::Isotropic, 0.1f,
             [&](auto& u, auto& ubar) { seg::update_primal(u, ubar, df.a, dp.a, 0.1f, 10.0f); }},
            {"structure tensor", Form::Structure, 1.0f,
             [&](auto& u, auto& ubar) { seg::update_primal_aniso(u, ubar, df.a, dp.a, dD.a, 1.0f, 10.0f); }},
            {"reflection", Form::Reflection, 1.0f,
             [&](auto& u, auto& ubar) { seg::update_primal_aniso_exp(u, ubar, df.a, dp.a, dD.a, 1.0f, 10.0f); }},
        };
        for (const Case& c : cases) {
            Grid<float> wantU = u0, wantBar(s.W, s.H, s.L);
            refPrimal(wantU, wantBar, f, p, &D, c.tau, 10.0f, c.form);
            Grid<float> gotBar;
            const Grid<float> gotU = onEveryPath<float>([&] {
                DeviceArray<float, 3> du(toDevice3(u0)), dbar(toDevice3(Grid<float>(s.W, s.H, s.L, -7.0f)));
                c.run(du.a, dbar.a);
                gotBar = toHost(dbar.a);
                return toHost(du.a);
            });
            EXPECT_TRUE(near(gotU, wantU)) << c.what << ": u";
            EXPECT_TRUE(near(gotBar, wantBar)) << c.what << ": over-relaxed u";
            expectOnSimplex(gotU);
        }
    }
}

// The host runs an iteration of models 0, 1, 3 and 4 as one pass over bands of
// rows, one band per thread; the bands' ends are where it could go wrong.
TEST(SolverSteps, IterationsAreTheirTwoStepsForAnyThreadCount) {
    const Shape shapes[] = {{1, 1, 2}, {9, 2, 3}, {37, 7, 4}, {20, 11, 9}};
    for (const Shape& s : shapes) {
        SCOPED_TRACE(name(s));
        const Grid<float> u0 = randomLabelling(s.W, s.H, s.L), bar0 = randomLabelling(s.W, s.H, s.L);
        const Grid<float> f = randomGrid(s.W, s.H, s.L, 0.0f, 1.0f);
        const Grid<float2> p0 = randomDuals(s.W, s.H, s.L, 1.0f);
        const Grid<float> g = randomGrid(s.W, s.H, 1, 0.05f, 2.0f);
        const Grid<float4> D = randomTensors(s.W, s.H);
        DeviceArray<float, 3> df(toDevice3(f));
        DeviceArray<float, 2> dg(toDevice2(g));
        DeviceArray<float4, 2> dD(toDevice2(D));
        for (int model : {0, 1, 3, 4}) {
            Grid<float> wantU = u0, wantBar = bar0;
            Grid<float2> wantP = p0;
            const float sigma = model >= 3 ? 0.1f : 1.25f, tau = model >= 3 ? 1.0f : 0.1f;
            const Form form = model == 3 ? Form::Structure : model == 4 ? Form::Reflection : Form::Isotropic;
            refDual(wantP, model == 0 ? wantU : wantBar, sigma, model == 1 || model == 3 ? &g : nullptr, &D, form);
            refPrimal(wantU, wantBar, f, wantP, &D, tau, 10.0f, form);
            for (int threads : {1, 2, 3, 5}) {
                omp_set_num_threads(threads);
                DeviceArray<float, 3> du(toDevice3(u0)), dbar(toDevice3(bar0));
                DeviceArray<float2, 3> dp(toDevice3(p0));
                if (model == 0) seg::tv_iteration(dp.a, du.a, dbar.a, df.a, sigma, tau, 10.0f);
                if (model == 1) seg::weighted_tv_iteration(dp.a, du.a, dbar.a, df.a, dg.a, sigma, tau, 10.0f);
                if (model == 3) seg::aniso_iteration(dp.a, du.a, dbar.a, df.a, dD.a, dg.a, sigma, tau, 10.0f);
                if (model == 4) seg::aniso_exp_iteration(dp.a, du.a, dbar.a, df.a, dD.a, sigma, tau, 10.0f);
                vela::_CHECK_CUDA_ERROR("steps_test", __LINE__);
                const std::string what = "model " + std::to_string(model) + ", " + std::to_string(threads) + " threads";
                EXPECT_TRUE(near(toHost(dp.a), wantP)) << what << ": p";
                EXPECT_TRUE(near(toHost(du.a), wantU)) << what << ": u";
                EXPECT_TRUE(near(toHost(dbar.a), wantBar)) << what << ": over-relaxed u";
            }
        }
    }
    omp_set_num_threads(omp_get_num_procs());
}

// The fused step's tiles read p that neighbouring tiles of the same launch
// write, so only the host's fixed block order has a reference.
TEST(SolverSteps, FusedStepFollowsTheHostBlockOrderForAnyThreadCount) {
    if (vela::device::usesCuda()) GTEST_SKIP() << "the GPU orders the tiles itself";
    const Shape shapes[] = {{1, 1, 2}, {1, 5, 3}, {7, 1, 2}, {31, 3, 4}, {32, 4, 3}, {70, 9, 5}, {40, 6, 33}};
    for (const Shape& s : shapes) {
        SCOPED_TRACE(name(s));
        const Grid<float> u0 = randomLabelling(s.W, s.H, s.L);
        const Grid<float> f = randomGrid(s.W, s.H, s.L, 0.0f, 1.0f);
        const Grid<float2> p0 = randomDuals(s.W, s.H, s.L, 0.5f);
        const Grid<float> g = randomGrid(s.W, s.H, 1, 0.05f, 2.0f);
        Grid<float> wantU = u0;
        Grid<float2> wantP = p0;
        refFast(wantU, f, wantP, g, 0.1f, 1.25f, 10.0f);

        Grid<float> firstU;
        Grid<float2> firstP;
        for (int threads : {1, 2, 3}) {
            omp_set_num_threads(threads);
            DeviceArray<float, 3> du(toDevice3(u0)), df(toDevice3(f));
            DeviceArray<float2, 3> dp(toDevice3(p0));
            DeviceArray<float, 2> dg(toDevice2(g));
            seg::update_fast(du.a, df.a, dp.a, dg.a, 0.1f, 1.25f, 10.0f);
            vela::_CHECK_CUDA_ERROR("steps_test", __LINE__);
            const Grid<float> gotU = toHost(du.a);
            const Grid<float2> gotP = toHost(dp.a);
            EXPECT_TRUE(near(gotU, wantU)) << threads << " threads: u";
            EXPECT_TRUE(near(gotP, wantP)) << threads << " threads: p";
            expectOnSimplex(gotU);
            if (threads == 1) {
                firstU = gotU;
                firstP = gotP;
            } else {
                EXPECT_TRUE(sameBytes(gotU, firstU) && sameBytes(gotP, firstP)) << threads << " threads";
            }
        }
        omp_set_num_threads(omp_get_num_procs());
    }
}

TEST(SolverSteps, BinarizeTakesTheFirstLargestLabel) {
    const float nan = std::nanf("");
    // Per pixel (columns): a clear winner, a tie of the first two, a tie of the
    // last two, nothing positive, and a NaN.
    const float values[3][5] = {
        {0.2f, 0.4f, 0.1f, 0.0f, nan}, {0.5f, 0.4f, 0.45f, 0.0f, nan}, {0.3f, 0.2f, 0.45f, -1.0f, 0.5f}};
    const unsigned int want[5] = {1, 0, 1, 0, 2};
    Grid<float> u(5, 1, 3);
    for (unsigned int l = 0; l < 3; ++l)
        for (unsigned int x = 0; x < 5; ++x) u(x, 0, l) = values[l][x];
    DeviceArray<float, 3> du(toDevice3(u));
    seg::binarize(du.a);
    vela::_CHECK_CUDA_ERROR("steps_test", __LINE__);
    const Grid<float> got = toHost(du.a);
    for (unsigned int x = 0; x < 5; ++x)
        for (unsigned int l = 0; l < 3; ++l) EXPECT_EQ(got(x, 0, l), l == want[x] ? 1.0f : 0.0f) << x << ", " << l;
    Grid<float> ref = u;
    refBinarize(ref);
    EXPECT_TRUE(sameBytes(got, ref));
}

TEST(SolverSteps, MoreThanTheLabelLimitIsRefused) {
    DeviceArray<float, 3> u(seg::deviceArray3D<float>(2, 2, 129));
    DeviceArray<float2, 3> p(seg::deviceArray3D<float2>(2, 2, 129));
    DeviceArray<float, 2> g(seg::deviceArray2D<float>(2, 2));
    EXPECT_THROW(seg::update_primal(u.a, u.a, u.a, p.a, 0.1f, 1.0f), std::runtime_error);
    EXPECT_THROW(seg::update_fast(u.a, u.a, p.a, g.a, 0.1f, 1.25f, 1.0f), std::runtime_error);
}

}  // namespace
}  // namespace solvertest
