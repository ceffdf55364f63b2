// The optical flow started ahead, while the caller works on the frame
// before, against the flow computed when its frame comes.
#include "src/propagate/optical_flow.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using propagate::FlowPair;
using propagate::OpticalFlow;

// A textured frame whose pattern has moved `shift` pixels right and down.
struct Frame {
    unsigned int w, h;
    std::vector<float4> pixels;
    Frame(unsigned int w_, unsigned int h_, int shift) : w(w_), h(h_), pixels(std::size_t{w_} * h_) {
        for (unsigned int y = 0; y < h; ++y)
            for (unsigned int x = 0; x < w; ++x) {
                const int u = static_cast<int>(x) - shift, v = static_cast<int>(y) - shift;
                const float value = static_cast<float>((u * 37 + v * 91 + (u / 5) * (v / 7) * 13) % 256 & 255);
                pixels[std::size_t{y} * w + x] = make_float4(value, 255.0f - value, value / 2.0f, 0.0f);
            }
    }
    vela::Array<float4, 2> view() { return vela::arrayFromHostMemory(pixels.data(), make_uint2(w, h)); }
};

bool sameBits(const std::vector<float2>& a, const std::vector<float2>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float2)) == 0;
}

// Both flows of a pair, bit for bit.
bool sameFlows(const FlowPair& a, const FlowPair& b) {
    return sameBits(a.forward, b.forward) && sameBits(a.backward, b.backward);
}

TEST(OpticalFlow, AFlowStartedAheadIsTheFlowComputedWhenItsFrameComes) {
    Frame f0(64, 48, 0), f1(64, 48, 1), f2(64, 48, 3), other(32, 48, 0);
    OpticalFlow plain;
    FlowPair first, second;
    EXPECT_FALSE(plain.next(f0.view(), first));
    ASSERT_TRUE(plain.next(f1.view(), first));
    ASSERT_TRUE(plain.next(f2.view(), second));

    // Each frame started ahead of its turn: asked for at once, before the
    // flow ahead can be done (next() computes its own while it still runs,
    // and nothing new starts beside it), and asked for after a pause.
    FlowPair flow;
    for (const int pauseMs : {0, 300}) {
        OpticalFlow ahead;
        ahead.prefetch(f0.view());  // no frame before: nothing starts
        EXPECT_FALSE(ahead.next(f0.view(), flow));
        for (Frame* frame : {&f1, &f2}) {
            ahead.prefetch(frame->view());
            std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
            ASSERT_TRUE(ahead.next(frame->view(), flow));
            EXPECT_TRUE(sameFlows(flow, frame == &f1 ? first : second)) << "pause " << pauseMs << " ms";
        }
    }

    // Another frame than the one started ahead gets its own flow.
    OpticalFlow wrong;
    EXPECT_FALSE(wrong.next(f0.view(), flow));
    wrong.prefetch(f2.view());
    ASSERT_TRUE(wrong.next(f1.view(), flow));
    EXPECT_TRUE(sameFlows(flow, first));

    // A frame of another size starts nothing and is refused when it comes;
    // a reset forgets a flow under way.
    wrong.prefetch(other.view());
    EXPECT_THROW(wrong.next(other.view(), flow), std::invalid_argument);
    wrong.prefetch(f2.view());
    wrong.reset();
    EXPECT_FALSE(wrong.next(f2.view(), flow));
}

}  // namespace
