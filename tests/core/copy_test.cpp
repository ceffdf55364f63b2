#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/message_of.h"
#include "vela/access.h"
#include "vela/tools.h"

namespace {

using vela::Array;
using vela::Range;

Array<float, 2> hostRamp(unsigned w, unsigned h, float base) {
    auto a = vela::internal::decreaseArrayDimension<float, 4, 2>(
        vela::mallocHostArray<float>(make_uint4(w, h, 1, 1), vela::LINEAR_LAYOUT));
    for (unsigned y = 0; y < h; ++y)
        for (unsigned x = 0; x < w; ++x) vela::at(a, x, y) = base + static_cast<float>(y * 1000 + x);
    return a;
}

// Every direction and layout pair must carry the elements and leave padding alone.
TEST(ArrayCopy, RoundTripsThroughEveryLayoutAndDirection) {
    const unsigned w = 100, h = 50;
    auto src = hostRamp(w, h, 0.5f);
    for (auto layoutA : {vela::PITCHED_LAYOUT, vela::LINEAR_LAYOUT}) {
        for (auto layoutB : {vela::PITCHED_LAYOUT, vela::LINEAR_LAYOUT}) {
            auto a = vela::mallocDeviceArray<float>(make_uint4(w, h, 1, 1), layoutA);
            auto b = vela::mallocDeviceArray<float>(make_uint4(w, h, 1, 1), layoutB);
            auto a2 = vela::internal::decreaseArrayDimension<float, 4, 2>(a);
            auto b2 = vela::internal::decreaseArrayDimension<float, 4, 2>(b);
            vela::arrayCopy(a2, src);  // host to device
            vela::arrayCopy(b2, a2);   // device to device
            auto back = hostRamp(w, h, -1e6f);
            vela::arrayCopy(back, b2);  // device to host
            for (unsigned y = 0; y < h; ++y)
                for (unsigned x = 0; x < w; ++x) ASSERT_EQ(vela::at(back, x, y), vela::at(src, x, y)) << x << "," << y;
            auto twice = hostRamp(w, h, 7.0f);
            vela::arrayCopy(twice, back);  // host to host
            EXPECT_EQ(vela::at(twice, w - 1, h - 1), vela::at(src, w - 1, h - 1));
            vela::freeArray(twice);
            vela::freeArray(back);
            vela::freeArray(a);
            vela::freeArray(b);
        }
    }
    vela::freeArray(src);
}

TEST(ArrayCopy, PitchedCopyMovesOnlyTheRowElements) {
    // The device array's padding is marked; a copy from host must not touch it.
    auto dev = vela::mallocDeviceArray<float>(make_uint4(3, 2, 2, 1), vela::PITCHED_LAYOUT);
    ASSERT_GT(dev.strides.y, 12u);
    auto dev3 = vela::internal::decreaseArrayDimension<float, 4, 3>(dev);
    std::vector<float> padding(dev.strides.w / sizeof(float), -7.0f);
    auto whole = vela::arrayFromHostMemory(padding.data(), make_uint2(dev.strides.y / 4, 4));
    Array<float, 2> devRows{};  // the full pitched rows of both slices, padding included
    devRows.data = dev.data;
    devRows.device = dev.device;
    devRows.strides = make_uint2(4, dev.strides.y);
    devRows.extents = make_uint2(dev.strides.y / 4, 4);
    vela::arrayCopy(devRows, whole);

    std::vector<float> values(12);
    for (int i = 0; i < 12; ++i) values[i] = static_cast<float>(i);
    auto host = vela::arrayFromHostMemory(values.data(), 3u, 2u, 2u);
    vela::arrayCopy(dev3, host);
    vela::arrayCopy(whole, devRows);
    const unsigned rowFloats = dev.strides.y / 4;
    for (unsigned row = 0; row < 4; ++row)
        for (unsigned i = 0; i < rowFloats; ++i) {
            const float expected = i < 3 ? static_cast<float>(row * 3 + i) : -7.0f;
            ASSERT_EQ(padding[row * rowFloats + i], expected) << "row " << row << " column " << i;
        }
    vela::freeArray(dev);
}

TEST(ArrayCopy, ChecksInOrderWithTheirExactTexts) {
    auto a = hostRamp(4, 3, 0);
    auto b = hostRamp(3, 4, 0);
    EXPECT_EQ(messageOf([&] { vela::arrayCopy(a, a); }), "vela::arrayCopy: src and dst are identical");
    EXPECT_EQ(messageOf([&] { vela::arrayCopy(a, b); }),
              "arrayCopy: extents mismatch\n src extents are (3, 4) dst extents are (4, 3)");
    Array<float, 2> empty{};
    empty.extents = a.extents;
    empty.strides = a.strides;
    EXPECT_EQ(messageOf([&] { vela::arrayCopy(a, empty); }), "vela::arrayCopy: src is null");
    EXPECT_EQ(messageOf([&] { vela::arrayCopy(empty, a); }), "vela::arrayCopy: dst is null");
    vela::freeArray(a);
    vela::freeArray(b);
}

TEST(Block, ViewsShareMemoryAndKeepTheParentsStrides) {
    auto a = vela::mallocDeviceArray<float>(make_uint4(8, 8, 3, 1), vela::PITCHED_LAYOUT);
    auto whole = vela::block(a, Range(0, -1), Range(0, -1), Range(0, -1), Range(0, -1));
    EXPECT_EQ(whole.data, a.data);
    EXPECT_EQ(whole.extents.z, 3u);
    auto v = vela::block(a, Range(1, 3), Range(2, 5), Range(1, 1), Range(0, 0));
    EXPECT_EQ(reinterpret_cast<char*>(v.data), reinterpret_cast<char*>(a.data) + 4 + 2 * a.strides.y + a.strides.z);
    EXPECT_EQ(v.extents.x, 3u);
    EXPECT_EQ(v.extents.y, 4u);
    EXPECT_EQ(v.strides.z, a.strides.z);

    // Rows 2..5 of 8-row slices: slices are not where a 3-D copy expects them.
    auto host = vela::mallocHostArray<float>(v.extents, vela::LINEAR_LAYOUT);
    EXPECT_EQ(messageOf([&] { vela::arrayCopy(host, v); }),
              "vela::arrayCopy: memory layout of src array is incompatible");
    EXPECT_EQ(messageOf([&] { vela::arrayCopy(v, host); }),
              "vela::arrayCopy: memory layout of dst array is incompatible");
    // As a 2-D view the upper strides are recomputed and the copy works.
    auto v2 = vela::internal::decreaseArrayDimension<float, 4, 2>(v);
    auto host2 = vela::internal::decreaseArrayDimension<float, 4, 2>(host);
    EXPECT_NO_THROW(vela::arrayCopy(host2, v2));
    vela::freeArray(host);
    vela::freeArray(a);
}

TEST(Block, OutOfBoundsRangesAreReportedWithTheResolvedEnds) {
    Array<float, 4> a{};
    a.extents = make_uint4(10, 10, 1, 1);
    EXPECT_EQ(
        messageOf([&] { vela::block(a, Range(0, 10), Range(0, -1), Range(0, -1), Range(0, -1)); }),
        "block: block range is out of bounds.\n array extents are (10, 10, 1, 1), ranges are [0-10, 0-9, 0-0, 0-0]");
    EXPECT_EQ(
        messageOf([&] { vela::block(a, Range(-2, 3), Range(0, 0), Range(0, 0), Range(0, 0)); }),
        "block: block range is out of bounds.\n array extents are (10, 10, 1, 1), ranges are [-2-3, 0-0, 0-0, 0-0]");
}

}  // namespace
