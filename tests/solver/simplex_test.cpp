#include "src/simplex.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "reference.h"
#include "src/PDseg_solver_pack.h"

namespace solvertest {
namespace {

// Inputs with the shapes the solver produces: spread values, ties, a single
// dominant value, values far from the simplex, and near-simplex points.
std::vector<std::vector<float>> projectionInputs(int L) {
    std::vector<std::vector<float>> inputs;
    for (int trial = 0; trial < 40; ++trial) {
        std::vector<float> v(L);
        const float spread = trial % 4 == 0 ? 0.01f : trial % 4 == 1 ? 1.0f : trial % 4 == 2 ? 50.0f : 1e4f;
        for (auto& x : v) x = uniform(-spread, spread);
        if (trial % 5 == 0)
            for (int k = 1; k < L; k += 2) v[k] = v[k - 1];  // ties
        if (trial % 7 == 0) v[L / 2] += 10.0f;               // one label far ahead
        if (trial % 3 == 0)
            for (auto& x : v) x = 1.0f / static_cast<float>(L) + 0.05f * x / spread;
        inputs.push_back(v);
    }
    return inputs;
}

TEST(Simplex, EarlyStopGivesTheBitsOfAllRoundsForScalarsAndPacksOnTheSimplex) {
    for (int L : {1, 2, 3, 5, 8, 13, 32, 40, 64, 128}) {
        const auto inputs = projectionInputs(L);
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            std::vector<float> want = inputs[i], got = inputs[i];
            refProjectSimplex(want.data(), L);
            seg::projectSimplex(got.data(), L);
            ASSERT_EQ(0, std::memcmp(want.data(), got.data(), L * sizeof(float))) << "L " << L << " input " << i;
            double sum = 0;
            for (float x : got) {
                ASSERT_GE(x, 0.0f);
                sum += x;
            }
            ASSERT_NEAR(sum, 1.0, 1e-4 * L) << "L " << L << " input " << i;
        }
        // Eight different pixels in the lanes of a pack: each lane as alone.
        for (std::size_t first = 0; first + 8 <= inputs.size(); first += 8) {
            std::vector<seg::Pack<8>> lanes(L);
            for (int k = 0; k < L; ++k)
                for (int j = 0; j < 8; ++j) lanes[k].setLane(j, inputs[first + j][k]);
            seg::projectSimplexLanes(lanes.data(), L);
            for (int j = 0; j < 8; ++j) {
                std::vector<float> want = inputs[first + j];
                refProjectSimplex(want.data(), L);
                for (int k = 0; k < L; ++k) {
                    const float lane = lanes[k].lane(j);
                    ASSERT_EQ(0, std::memcmp(&want[k], &lane, sizeof(float)))
                        << "L " << L << " lane " << j << " label " << k;
                }
            }
        }
    }
}

}  // namespace
}  // namespace solvertest
