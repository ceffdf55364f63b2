// The walker's host row loops, which run the interior of a row in vector
// lanes, against the same steps taken pixel by pixel: the same bits in every
// array and the same sums.
#include "src/dataterms/walker_rows.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using seg::walker::WalkerArrays;

// Host arrays of a solve in the middle of its iterations: random values of
// magnitudes far enough apart that the order of a sum shows in its bits, a
// few seeds and frozen pixels (1 / degree = 0), some values subnormal.
struct State {
    unsigned int w, h, labels;
    std::vector<float> x, r, p, q, seeds;
    std::vector<float2> weights, diagonal;

    State(unsigned int w_, unsigned int h_, unsigned int labels_, unsigned int seed) : w(w_), h(h_), labels(labels_) {
        std::mt19937 random(seed);
        std::uniform_real_distribution<float> unit(0.0f, 1.0f), signed_(-1.0f, 1.0f), exponent(-40.0f, 0.0f);
        const std::size_t n = std::size_t{w} * h * labels;
        for (auto* v : {&x, &r, &p, &q}) {
            v->resize(n);
            for (float& value : *v)
                value = unit(random) < 0.05f ? 1e-39f : signed_(random) * std::exp2(exponent(random));
        }
        seeds.assign(std::size_t{w} * h, -1.0f);
        weights.resize(seeds.size());
        diagonal.resize(seeds.size());
        for (std::size_t i = 0; i < seeds.size(); ++i) {
            if (unit(random) < 0.1f) seeds[i] = static_cast<float>(random() % labels);
            weights[i] = make_float2(unit(random), unit(random));
            const float degree = 4.0f * unit(random) + 0.1f;
            diagonal[i] = make_float2(degree, seeds[i] >= 0.0f || unit(random) < 0.1f ? 0.0f : 1.0f / degree);
        }
    }

    WalkerArrays arrays() {
        const uint3 size = make_uint3(w, h, labels);
        return {vela::arrayFromHostMemory(x.data(), size),
                vela::arrayFromHostMemory(r.data(), size),
                vela::arrayFromHostMemory(p.data(), size),
                vela::arrayFromHostMemory(q.data(), size),
                {},
                vela::arrayFromHostMemory(seeds.data(), make_uint2(w, h)),
                vela::arrayFromHostMemory(weights.data(), make_uint2(w, h)),
                vela::arrayFromHostMemory(diagonal.data(), make_uint2(w, h))};
    }
};

bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// Every row of every label, by the row loops in groups of at most
// kRowsAtOnce and pixel by pixel, from the same state.
template <class Step>
void expectSameAsPixels(unsigned int w, unsigned int h, float coefficient) {
    SCOPED_TRACE(std::to_string(w) + " x " + std::to_string(h));
    const unsigned int labels = 2;
    State lanes(w, h, labels, 7 * w + h), pixels = lanes;
    const WalkerArrays a = lanes.arrays(), b = pixels.arrays();
    for (unsigned int l = 0; l < labels; ++l)
        for (unsigned int y = 0; y < h; y += seg::walker::kRowsAtOnce) {
            const unsigned int n = std::min(seg::walker::kRowsAtOnce, h - y);
            std::vector<double> first(n), second(n);
            seg::walker::hostRows<Step>(a, 0, w, y, n, l, coefficient, first.data(), second.data());
            for (unsigned int k = 0; k < n; ++k) {
                double s0 = 0.0, s1 = 0.0;
                for (unsigned int i = 0; i < w; ++i) {
                    const float2 v = Step{}(b, i, y + k, l, coefficient);
                    s0 += v.x;
                    s1 += v.y;
                }
                ASSERT_EQ(first[k], s0) << "label " << l << ", row " << y + k;
                ASSERT_EQ(second[k], s1) << "label " << l << ", row " << y + k;
            }
        }
    EXPECT_TRUE(sameBits(lanes.x, pixels.x));
    EXPECT_TRUE(sameBits(lanes.r, pixels.r));
    EXPECT_TRUE(sameBits(lanes.p, pixels.p));
    EXPECT_TRUE(sameBits(lanes.q, pixels.q));
}

// Widths with wide and quarter runs and a scalar tail, with runs alone, with
// no interior; heights with a partial group of rows and with no interior row.
template <class Step>
void expectSameAsPixelsAtEverySize(float coefficient) {
    for (const auto& size : {std::make_pair(37u, 11u), std::make_pair(22u, 9u), std::make_pair(18u, 4u),
                             std::make_pair(300u, 6u), std::make_pair(2u, 7u), std::make_pair(9u, 2u)})
        expectSameAsPixels<Step>(size.first, size.second, coefficient);
}

TEST(WalkerRows, EveryStepGivesThePixelByPixelBitsAndSums) {
    expectSameAsPixelsAtEverySize<seg::walker::ApplyStep>(0.0f);
    expectSameAsPixelsAtEverySize<seg::walker::StepStep>(0.37f);
    expectSameAsPixelsAtEverySize<seg::walker::DirectionStep>(0.81f);
    expectSameAsPixelsAtEverySize<seg::walker::StartStep>(0.0f);
    expectSameAsPixelsAtEverySize<seg::walker::ResidualStep>(0.0f);
}

}  // namespace
