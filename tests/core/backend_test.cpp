#include "vela/device/backend.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "vela/device/runtime.h"

namespace {

// The choice is made once per process, so each case runs in a fresh child.
class BackendChoice : public testing::Test {
 protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(BackendChoice, UnknownNameEndsTheProcessWithOneLine) {
    EXPECT_EXIT(
        {
            setenv("VELA_DEVICE", "gpu", 1);
            vela::device::backend();
        },
        testing::ExitedWithCode(1), "^VELA_DEVICE=gpu: unknown backend \\(use \"host\" or \"cuda\"\\)\n$");
}

TEST_F(BackendChoice, ForcedHostIsHost) {
    EXPECT_EXIT(
        {
            setenv("VELA_DEVICE", "host", 1);
            std::exit(vela::device::backend() == vela::device::Backend::Host ? 0 : 3);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(BackendChoice, ForcedCudaWithoutAUsableGpuEndsTheProcess) {
    // Probing through the factory leaves this process's choice untouched.
    std::string why;
    if (vela::device::detail::makeCudaBackend(why) != nullptr) GTEST_SKIP() << "this machine has a usable GPU";
    EXPECT_EXIT(
        {
            setenv("VELA_DEVICE", "cuda", 1);
            vela::device::backend();
        },
        testing::ExitedWithCode(1), "^VELA_DEVICE=cuda: no usable CUDA device: .+\n$");
}

}  // namespace
