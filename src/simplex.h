// Per-pixel label storage and the projection onto the probability simplex.
//
// Kernels that hold a pixel's label values in thread-local arrays are
// instantiated for a few capacities; the smallest capacity that holds L is
// launched, so small label counts stay cheap and up to kMaxLabels work.
#pragma once

#include <string>
#include <type_traits>

#include "vela/device/types.h"

namespace seg {

constexpr int kMaxLabels = 128;

// Calls f(std::integral_constant<int, C>{}) with the smallest capacity C >= L.
// L must already be checked against kMaxLabels.
template <class F>
decltype(auto) withLabelCapacity(int L, F&& f) {
    if (L <= 8) return f(std::integral_constant<int, 8>{});
    if (L <= 16) return f(std::integral_constant<int, 16>{});
    if (L <= 32) return f(std::integral_constant<int, 32>{});
    if (L <= 64) return f(std::integral_constant<int, 64>{});
    return f(std::integral_constant<int, 128>{});
}

// Throws std::runtime_error naming the count and the limit when L is too large
// for `what` ("the solver", "the colour table", ...).
void checkLabelCount(int L, int limit, const std::string& what);

// Projects v[0..L-1] in place onto {w >= 0, sum w = 1}: L rounds of
// thresholding, each keeping the values strictly above the last threshold.
VELA_HD inline void projectSimplex(float* v, int L) {
    float theta = -1e20f;
    for (int round = 0; round < L; ++round) {
        float sum = 0.0f;
        int count = 0;
        for (int k = 0; k < L; ++k) {
            if (v[k] > theta) {
                sum += v[k];
                count += 1;
            }
        }
        theta = (sum - 1.0f) / static_cast<float>(count);
    }
    for (int k = 0; k < L; ++k) {
        const float w = v[k] - theta;
        v[k] = w > 0.0f ? w : 0.0f;
    }
}

}  // namespace seg
