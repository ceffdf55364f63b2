#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/support/message_of.h"
#include "vela/device/runtime.h"
#include "vela/tools.h"

namespace {

using vela::Array;

TEST(Descriptor, HasTheDeviceLayoutOfItsFields) {
    static_assert(sizeof(Array<float, 4>) == 64);
    static_assert(sizeof(Array<float, 3>) == 40);
    static_assert(sizeof(Array<float, 2>) == 32);
    using A4 = Array<float4, 4>;
    using A3 = Array<float, 3>;
    static_assert(offsetof(A4, strides) == 16);
    static_assert(offsetof(A4, extents) == 32);
    static_assert(offsetof(A4, device) == 48);
    static_assert(offsetof(A3, device) == 32);
    SUCCEED();
}

TEST(Allocation, HostArraysArePackedAndNumberedMinusOne) {
    auto a = vela::mallocHostArray<float>(make_uint4(2, 3, 4, 5), vela::LINEAR_LAYOUT);
    EXPECT_EQ(a.device, -1);
    EXPECT_EQ(a.strides.x, 4u);
    EXPECT_EQ(a.strides.y, 8u);
    EXPECT_EQ(a.strides.z, 24u);
    EXPECT_EQ(a.strides.w, 96u);
    EXPECT_EQ(a.extents.w, 5u);
    ASSERT_NE(a.data, nullptr);
    a.data[119] = 1.0f;  // last of the 480 bytes
    vela::freeArray(a);

    // Any layout value but the pitched one gives the packed layout.
    auto b = vela::mallocHostArray<float>(make_uint4(3, 1, 1, 1), static_cast<vela::MemLayout>(7));
    EXPECT_EQ(b.strides.y, 12u);
    vela::freeArray(b);
}

TEST(Allocation, PitchedDeviceRowsArePaddedAndPackedOnesAreNot) {
    auto p = vela::mallocDeviceArray<float>(make_uint4(5, 1, 1, 1), vela::PITCHED_LAYOUT);
    EXPECT_EQ(p.device, vela::device::getDevice());
    EXPECT_GE(p.device, 0);
    EXPECT_EQ(p.strides.x, 4u);
    EXPECT_GE(p.strides.y, 20u);
    EXPECT_EQ(p.strides.y % 512, 0u) << "pitch must be padded like a GPU's";
    EXPECT_EQ(p.strides.z, p.strides.y);
    EXPECT_EQ(p.strides.w, p.strides.y);
    vela::freeArray(p);

    auto q = vela::mallocDeviceArray<float2>(make_uint4(7, 3, 2, 2), vela::PITCHED_LAYOUT);
    EXPECT_EQ(q.strides.z, q.strides.y * 3);
    EXPECT_EQ(q.strides.w, q.strides.y * 3 * 2);
    vela::freeArray(q);

    auto l = vela::mallocDeviceArray<float2>(make_uint4(7, 3, 2, 2), vela::LINEAR_LAYOUT);
    EXPECT_EQ(l.strides.x, 8u);
    EXPECT_EQ(l.strides.y, 56u);
    EXPECT_EQ(l.strides.z, 168u);
    EXPECT_EQ(l.strides.w, 336u);
    EXPECT_GE(l.device, 0);
    vela::freeArray(l);

    auto two = vela::mallocDeviceArray<float4>(make_uint2(9, 4), vela::PITCHED_LAYOUT);
    EXPECT_EQ(two.extents.x, 9u);
    EXPECT_EQ(two.extents.y, 4u);
    EXPECT_EQ(two.strides.y % 512, 0u);
    vela::freeArray(two);
}

TEST(Allocation, RejectsZeroExtentsBeforeTheLayout) {
    EXPECT_EQ(messageOf([] { vela::mallocHostArray<float>(make_uint4(640, 480, 0, 1), vela::PITCHED_LAYOUT); }),
              "vela::mallocHostArray: all extents must be >= 1");
    EXPECT_EQ(
        messageOf([] { vela::mallocDeviceArray<float>(make_uint4(0, 1, 1, 1), static_cast<vela::MemLayout>(7)); }),
        "vela::mallocDeviceArray: all extents must be >= 1");
    EXPECT_EQ(messageOf([] { vela::mallocHostArray<float>(make_uint4(1, 1, 1, 1), vela::PITCHED_LAYOUT); }),
              "vela::mallocHostArray: unsupported memory layout");
    EXPECT_EQ(
        messageOf([] { vela::mallocDeviceArray<float>(make_uint4(1, 1, 1, 1), static_cast<vela::MemLayout>(7)); }),
        "vela::mallocDeviceArray: unsupported memory layout");
}

TEST(Allocation, FailedDeviceAllocationThrowsWithTheLineOfItsCall) {
    // 2^31 x 2^16 rows of 2^16 bytes cannot be had on any machine.
    EXPECT_EQ(messageOf([] {
                  vela::mallocDeviceArray<unsigned char>(make_uint4(65536, 65536, 65536, 1), vela::PITCHED_LAYOUT);
              }),
              "vela/tools:49: cuda error: out of memory\n");
    struct Big {
        float v[64];
    };
    // 2^32 - 2^17 elements of 256 bytes: about a terabyte.
    EXPECT_EQ(messageOf([] { vela::mallocDeviceArray<Big>(make_uint4(65535, 65535, 1, 1), vela::LINEAR_LAYOUT); }),
              "vela/tools:59: cuda error: out of memory\n");
    EXPECT_EQ(vela::device::getLastError(), cudaSuccess) << "the check clears the error it reports";
}

TEST(Dimensions, WideningAddsStackedStrides) {
    Array<float4, 2> a{};
    a.strides = make_uint2(16, 2560);
    a.extents = make_uint2(100, 20);
    auto w = vela::internal::increaseArrayDimension<float4, 2, 4>(a);
    EXPECT_EQ(w.strides.z, 51200u);
    EXPECT_EQ(w.strides.w, 51200u);
    EXPECT_EQ(w.extents.z, 1u);
    EXPECT_EQ(w.extents.w, 1u);

    Array<float, 1> line{};
    line.strides = make_uint1(4);
    line.extents = make_uint1(10);
    auto l4 = vela::internal::increaseArrayDimension<float, 1, 4>(line);
    EXPECT_EQ(l4.strides.y, 40u);
    EXPECT_EQ(l4.strides.z, 40u);
    EXPECT_EQ(l4.strides.w, 40u);
}

TEST(Dimensions, NarrowingNeedsUnitExtentsAndSaysWhichItHad) {
    Array<float, 4> a{};
    a.extents = make_uint4(640, 480, 3, 1);
    a.strides = make_uint4(4, 2560, 2560 * 480, 2560 * 480 * 3);
    EXPECT_EQ(messageOf([&] { vela::internal::decreaseArrayDimension<float, 4, 2>(a); }),
              "decreaseArrayDimension: Cannot decrease source array dimension.\n source dimension is 4  target "
              "dimension is 2.  source array extents are (640, 480, 3, 1)");
    auto three = vela::internal::decreaseArrayDimension<float, 4, 3>(a);
    EXPECT_EQ(three.extents.z, 3u);
    EXPECT_EQ(three.strides.z, 2560u * 480u);
}

TEST(Dimensions, ExtentsText) {
    EXPECT_EQ(vela::internal::str_extents(make_uint4(640, 480, 1, 1)), "(640, 480, 1, 1)");
    EXPECT_EQ(vela::internal::str_extents(make_uint3(1, 2, 3)), "(1, 2, 3)");
    EXPECT_EQ(vela::internal::str_extents(make_uint2(7, 8)), "(7, 8)");
}

TEST(Wrapping, HostMemoryIsViewedPackedAndNotCopied) {
    float planes[2 * 3 * 4] = {};
    auto a = vela::arrayFromHostMemory(planes, 2u, 3u, 4u);
    EXPECT_EQ(a.data, planes);
    EXPECT_EQ(a.device, -1);
    EXPECT_EQ(a.strides.y, 8u);
    EXPECT_EQ(a.strides.z, 24u);
    auto b = vela::arrayFromHostMemory(planes, make_uint2(6, 4));
    EXPECT_EQ(b.strides.y, 24u);
    EXPECT_EQ(b.extents.y, 4u);
}

// A hand-off moves the one owner: the array moved from is empty, an owner
// given another array releases its own first, and release() gives it up.
// (Under the sanitizers a double release or a leak fails here.)
TEST(ScopedArray, MovesHandOverTheOneOwner) {
    vela::ScopedArray<float, 2> a(vela::mallocDeviceArray<float>(make_uint2(8, 2), vela::PITCHED_LAYOUT));
    float* data = a.a.data;
    vela::ScopedArray<float, 2> b(std::move(a));
    EXPECT_TRUE(a.empty());
    EXPECT_EQ(b.a.data, data);
    vela::ScopedArray<float, 2> c(vela::mallocDeviceArray<float>(make_uint2(4, 2), vela::PITCHED_LAYOUT));
    c = std::move(b);
    EXPECT_TRUE(b.empty());
    EXPECT_EQ(c.a.data, data);
    Array<float, 2> given = c.release();
    EXPECT_TRUE(c.empty());
    vela::freeArray(given);
}

}  // namespace
