#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "image/CTensor.h"
#include "tests/algorithms/device_buffer.h"
#include "tests/image/temp_dir.h"
#include "vela/cmatrixlib_interface.h"

namespace {

using image_test::readFile;
using image_test::TempDir;
using vela_test::DeviceBuffer;
using vela_test::messageOf;
using namespace std::string_literals;

template <class T, int N>
vela::Array<T, N> narrow(const vela::Array<T, 4>& a) {
    return vela::internal::decreaseArrayDimension<T, 4, N>(a);
}

TEST(SaveImage, PitchedDeviceAndHostArraysRoundTripThroughTheFile) {
    TempDir dir;
    for (const bool device : {true, false}) {
        DeviceBuffer<float> planes(make_uint4(5, 3, 3, 1), vela::PITCHED_LAYOUT, device);
        std::vector<float> values(planes.count());
        for (std::size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>((i * 37) % 256);
        planes.upload(values);
        const std::string path = dir.file(device ? "device.ppm" : "host.ppm");
        vela::saveImage(narrow<float, 3>(planes.a), path, false);
        CTensor<float> back;
        back.readFromPPM(path.c_str());
        ASSERT_EQ(back.size(), values.size());
        for (std::size_t i = 0; i < values.size(); ++i) ASSERT_EQ(back.data[i], values[i]) << i;
    }
}

TEST(SaveImage, NormalisationScalesBy255AndWrapsForBytes) {
    TempDir dir;
    DeviceBuffer<float> f(make_uint4(2, 1, 3, 1), vela::PITCHED_LAYOUT);
    f.upload({0.5f, 1.0f, 0.0f, 0.1f, 0.2f, 0.3f});
    vela::saveImage(narrow<float, 3>(f.a), dir.file("f.ppm"), true);
    // Pixels (0.5, 0, 0.2) and (1, 0.1, 0.3): 127.5 is truncated to 127, 25.5 to 25.
    EXPECT_EQ(readFile(dir.file("f.ppm")), "P6 \n2 1 \n255\n\x7F\x00\x33\xFF\x19\x4C"s);

    DeviceBuffer<unsigned char> b(make_uint4(2, 1, 3, 1), vela::PITCHED_LAYOUT);
    b.upload({0, 1, 2, 3, 255, 128});
    vela::saveImage(narrow<unsigned char, 3>(b.a), dir.file("b.ppm"), true);
    // Pixels (0, 2, 255) and (1, 3, 128) times 255 in 8 bits.
    EXPECT_EQ(readFile(dir.file("b.ppm")), "P6 \n2 1 \n255\n\x00\xFE\x01\xFF\xFD\x80"s);

    DeviceBuffer<float> grey(make_uint4(3, 1, 1, 1), vela::PITCHED_LAYOUT);
    grey.upload({0.0f, 0.5f, 1.0f});
    vela::saveImage(narrow<float, 2>(grey.a), dir.file("g.pgm"), true);
    EXPECT_EQ(readFile(dir.file("g.pgm")), "P5\n3 1\n255\n\x00\x7F\xFF"s);
}

TEST(SaveImage, RefusesOtherDepthsAndColourPathsForGreyImages) {
    TempDir dir;
    DeviceBuffer<float> two(make_uint4(640, 480, 2, 1), vela::PITCHED_LAYOUT);
    EXPECT_EQ(messageOf([&] { vela::saveImage(narrow<float, 3>(two.a), dir.file("x.ppm"), false); }),
              "\nvela/cmatrixlib_interface:221: saveImage() does not support writing color image from Array with "
              "dimensions (640x480x2)");
    DeviceBuffer<float> grey(make_uint4(4, 4, 1, 1), vela::PITCHED_LAYOUT);
    EXPECT_EQ(messageOf([&] { vela::saveImage(narrow<float, 2>(grey.a), dir.file("g.ppm"), false); }),
              "Image file format not supported");
}

}  // namespace
