// Per-pixel label storage and the projection onto the probability simplex.
//
// Kernels that hold a pixel's label values in thread-local arrays are
// instantiated for a few capacities; the smallest capacity that holds L is
// launched, so small label counts stay cheap and up to kMaxLabels work.
#pragma once

#include <string>
#include <type_traits>

#include "src/solver/lanes.h"
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

// Projects v[0..L-1] in place onto {w >= 0, sum w = 1}, for one pixel (V =
// float) or a pack of pixels: L rounds of thresholding, each keeping the values
// strictly above the last threshold, then w = max(0, v - theta).
//
// Rounds stop early once the threshold repeats in every lane.  That is exact,
// not an approximation: a repeated threshold selects the same values again, so
// every later round would recompute the very same bits.
template <class V>
VELA_HD inline void projectSimplexLanes(V* v, int L) {
    V theta(-1e20f);
    for (int round = 0; round < L; ++round) {
        V sum(0.0f), count(0.0f);
        for (int k = 0; k < L; ++k) {
            const auto above = v[k] > theta;
            // Adding +0 leaves a sum unchanged, so this equals adding only the
            // values above theta.
            sum = sum + select(above, v[k], V(0.0f));
            count = count + select(above, V(1.0f), V(0.0f));
        }
        const V next = (sum - V(1.0f)) / count;
        const bool repeated = allLanes(next == theta);
        theta = next;
        if (repeated) break;
    }
    for (int k = 0; k < L; ++k) {
        const V w = v[k] - theta;
        v[k] = select(w > V(0.0f), w, V(0.0f));
    }
}

VELA_HD inline void projectSimplex(float* v, int L) { projectSimplexLanes(v, L); }

}  // namespace seg
