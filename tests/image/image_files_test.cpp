// Reading and writing image files: the netpbm readers and writers of the
// tensor and matrix classes, and saveImage for device and host arrays.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "image/CMatrix.h"
#include "image/CTensor.h"
#include "tests/algorithms/device_buffer.h"
#include "tests/support/scratch_folder.h"
#include "vela/cmatrixlib_interface.h"

namespace {

using vela_test::DeviceBuffer;
using namespace std::string_literals;

using TempDir = testsupport::ScratchFolder;
using testsupport::readFile;

void writeFile(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

TEST(PpmFiles, RoundTripWithTheExactHeaderAndPixelOrder) {
    TempDir dir{"image"};
    CTensor<float> t(5, 3, 3);
    for (std::size_t i = 0; i < t.size(); ++i) t.data[i] = static_cast<float>(i * 7 % 256);
    const std::string path = dir / "ramp.ppm";
    t.writeToPPM(path.c_str());
    const std::string bytes = readFile(path);
    const std::string header = "P6 \n5 3 \n255\n";
    ASSERT_EQ(bytes.size(), header.size() + 5 * 3 * 3);
    EXPECT_EQ(bytes.substr(0, header.size()), header);
    // R, G, B per pixel, rows top to bottom.
    EXPECT_EQ(static_cast<unsigned char>(bytes[header.size() + 3 * (2 * 5 + 4) + 1]), t(4, 2, 1));

    CTensor<float> back(1, 1, 1);  // old contents are replaced
    back.readFromImage(path.c_str());
    ASSERT_TRUE(back.xSize == 5 && back.ySize == 3 && back.zSize == 3);
    EXPECT_TRUE(std::equal(t.data, t.data + t.size(), back.data));
    const CTensor<float> copy = back;  // file -> tensor -> file, through a copy
    copy.writeToImage((dir / "again.PPM").c_str());
    EXPECT_EQ(readFile((dir / "again.PPM")), bytes);
}

// Comments after the magic line are skipped.  A cut header is refused with
// the file's name; samples the file lacks read as -1.
TEST(PpmFiles, CommentsAreSkippedAndEveryTruncationReadsOrFailsCleanly) {
    TempDir dir{"image"};
    const std::string whole = "P6\n# written by hand\n# 99 99\n3 2\n255\n" + std::string(18, '\x07');
    const std::size_t headerSize = whole.size() - 18;
    const std::string path = dir / "cut.ppm";
    for (std::size_t n = 0; n <= whole.size(); ++n) {
        writeFile(path, whole.substr(0, n));
        CTensor<float> t;
        if (n < headerSize) {
            EXPECT_NE(messageOf([&] { t.readFromPPM(path.c_str()); }).find(path), std::string::npos) << n;
            EXPECT_EQ(t.data, nullptr);
            continue;
        }
        t.readFromPPM(path.c_str());
        ASSERT_TRUE(t.xSize == 3 && t.ySize == 2 && t.zSize == 3);
        for (std::size_t k = 0; k < 18; ++k)
            ASSERT_EQ(t.data[(k % 3) * 6 + k / 3], k < n - headerSize ? 7.0f : -1.0f) << n << " " << k;
    }
}

TEST(ImageFiles, SamplesAreWrittenAsTheLowByteOfTheirTruncatedValue) {
    TempDir dir{"image"};
    CTensor<float> t(7, 1, 1);
    const float values[] = {256.0f, -1.0f, 12.7f, 255.9f, 511.0f, -0.5f, NAN};
    std::copy(values, values + 7, t.data);
    t.writeToPPM((dir / "wrap.ppm").c_str());  // one plane is repeated as grey
    EXPECT_EQ(readFile((dir / "wrap.ppm")).substr(13, 6), "\0\0\0\xFF\xFF\xFF"s);
    t.writeToPGM((dir / "wrap.pgm").c_str());
    EXPECT_EQ(readFile((dir / "wrap.pgm")), "P5 \n7 1 \n255\n\x00\xFF\x0C\xFF\xFF\x00\x00"s);

    CMatrix<float> m(3, 2);
    for (int i = 0; i < 6; ++i) m.data[i] = static_cast<float>(i) * 100.0f;
    m.writeToImage((dir / "matrix.PGM").c_str());
    EXPECT_EQ(readFile((dir / "matrix.PGM")), "P5\n3 2\n255\n\0\x64\xC8\x2C\x90\xF4"s);

    // Planes form a mosaic, 2 rows of 3 tiles: planes 0 1 2 / 3 4 (black).
    CTensor<float> planes(2, 1, 5);
    for (int z = 0; z < 5; ++z) planes(0, 0, z) = planes(1, 0, z) = static_cast<float>(z + 1);
    planes.writeToImage((dir / "mosaic.pgm").c_str());
    EXPECT_EQ(readFile((dir / "mosaic.pgm")), "P5 \n6 2 \n255\n\1\1\2\2\3\3\4\4\5\5\0\0"s);
}

TEST(PgmFiles, GreyReaderKeepsItsShiftWhileThePpmReaderSkipsTheMaximum) {
    TempDir dir{"image"};
    const std::string path = dir / "grey.pgm";
    writeFile(path, "P5\n4 2\n255\n\1\2\3\4\5\6\7\x08"s);
    CTensor<float> viaPpm, viaPgm;
    viaPpm.readFromPPM(path.c_str());
    ASSERT_TRUE(viaPpm.zSize == 1 && viaPpm.xSize == 4);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(viaPpm.data[i], i + 1);
    viaPgm.readFromImage(path.c_str());
    const float shifted4[] = {'2', '5', '5', '\n', 1, 2, 3, 4};
    EXPECT_TRUE(std::equal(shifted4, shifted4 + 8, viaPgm.data));

    viaPpm.writeToPGM(path.c_str());  // the tensor writer's header shifts by five
    viaPgm.readFromPGM(path.c_str());
    const float shifted5[] = {'\n', '2', '5', '5', '\n', 1, 2, 3};
    EXPECT_TRUE(std::equal(shifted5, shifted5 + 8, viaPgm.data));
}

TEST(ImageFiles, ExtensionsChooseTheFormatAndOnlyTheTwoSpellingsAreAccepted) {
    TempDir dir{"image"};
    const CTensor<float> t(2, 2, 3);
    for (const char* bad : {"image.Ppm", "image", "dir.ppm/image"}) {
        EXPECT_EQ(messageOf([&] { t.writeToImage((dir / bad).c_str()); }), "Image file format not supported") << bad;
        CTensor<float> r;
        EXPECT_EQ(messageOf([&] { r.readFromImage((dir / bad).c_str()); }), "Image file format not supported");
    }
    EXPECT_EQ(messageOf([&] { CMatrix<float>(1, 1).writeToImage((dir / "m.ppm").c_str()); }),
              "Image file format not supported");
}

TEST(ImageFiles, MissingUnwritableAndForeignFilesAreReported) {
    TempDir dir{"image"};
    CTensor<float> t(2, 2, 3);
    const std::string missing = dir / "missing.ppm";
    testing::internal::CaptureStderr();
    EXPECT_EQ(messageOf([&] { t.readFromPPM(missing.c_str()); }), "File not found: " + missing);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "File not found: " + missing + "\n");
    EXPECT_NE(messageOf([&] { t.readFromPPM((dir / "").c_str()); }).find((dir / "")), std::string::npos)
        << "a directory opens but cannot be read";
    EXPECT_EQ(t.xSize, 2) << "a failed read leaves the tensor as it was";

    const std::string unwritable = dir / "no/such/dir/out.ppm";
    EXPECT_NE(messageOf([&] { t.writeToPPM(unwritable.c_str()); }).find(unwritable), std::string::npos);
    EXPECT_NE(messageOf([&] { CMatrix<float>(2, 2).writeToPGM(unwritable.c_str()); }).find(unwritable),
              std::string::npos);

    writeFile(missing, "P6\n1 1\n255\nabc");
    testing::internal::CaptureStderr();
    EXPECT_THROW(t.readFromPGM(missing.c_str()), EInvalidFileFormat);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Exception EInvalidFileFormat: File is not in PGM format\n");
}

// Headers a reader must refuse with a message naming the file, before it
// allocates anything for the pixels.
TEST(ImageFiles, BrokenHeadersAreRejectedWithTheFileName) {
    TempDir dir{"image"};
    const std::string path = dir / "broken.ppm";
    for (const std::string& bytes :
         {""s, "no magic here"s, "P"s, "P6\nwide 1\n255\n\0\0\0"s, "P6\n0 1\n255\n"s, "P6\n1 0\n255\n\0\0\0"s,
          "P6\n60000 60000\n255\n\0\0\0"s, "P5\n99999999999999999999999999 1\n255\n"s, "P6\n# only a comment"s}) {
        writeFile(path, bytes);
        CTensor<float> t;
        EXPECT_NE(messageOf([&] { t.readFromPPM(path.c_str()); }).find(path), std::string::npos)
            << testing::PrintToString(bytes);
        EXPECT_EQ(t.data, nullptr);
    }
}

TEST(SaveImage, PitchedDeviceAndHostArraysRoundTripThroughTheFile) {
    TempDir dir{"image"};
    for (const bool device : {true, false}) {
        DeviceBuffer<float> planes(make_uint4(5, 3, 3, 1), vela::PITCHED_LAYOUT, device);
        std::vector<float> values(planes.count());
        for (std::size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>((i * 37) % 256);
        planes.upload(values);
        const std::string path = dir / (device ? "device.ppm" : "host.ppm");
        vela::saveImage(planes.a3, path, false);
        CTensor<float> back;
        back.readFromPPM(path.c_str());
        EXPECT_EQ(std::vector<float>(back.data, back.data + back.size()), values);
    }
}

TEST(SaveImage, NormalisationScalesBy255AndWrapsForBytes) {
    TempDir dir{"image"};
    DeviceBuffer<float> f(make_uint4(2, 1, 3, 1), vela::PITCHED_LAYOUT);
    f.upload({0.5f, 1.0f, 0.0f, 0.1f, 0.2f, 0.3f});
    vela::saveImage(f.a3, (dir / "f.ppm"), true);
    // Pixels (0.5, 0, 0.2) and (1, 0.1, 0.3): 127.5 is truncated to 127, 25.5 to 25.
    EXPECT_EQ(readFile((dir / "f.ppm")), "P6 \n2 1 \n255\n\x7F\x00\x33\xFF\x19\x4C"s);

    DeviceBuffer<unsigned char> b(make_uint4(2, 1, 3, 1), vela::PITCHED_LAYOUT);
    b.upload({0, 1, 2, 3, 255, 128});
    vela::saveImage(b.a3, (dir / "b.ppm"), true);
    // Pixels (0, 2, 255) and (1, 3, 128) times 255 in 8 bits.
    EXPECT_EQ(readFile((dir / "b.ppm")), "P6 \n2 1 \n255\n\x00\xFE\x01\xFF\xFD\x80"s);

    DeviceBuffer<float> grey(make_uint4(3, 1, 1, 1), vela::PITCHED_LAYOUT);
    grey.upload({0.0f, 0.5f, 1.0f});
    vela::saveImage(grey.a2, (dir / "g.pgm"), true);
    EXPECT_EQ(readFile((dir / "g.pgm")), "P5\n3 1\n255\n\x00\x7F\xFF"s);
}

TEST(SaveImage, RefusesOtherDepthsAndColourPathsForGreyImages) {
    TempDir dir{"image"};
    DeviceBuffer<float> two(make_uint4(640, 480, 2, 1), vela::PITCHED_LAYOUT),
        grey(make_uint4(4, 4, 1, 1), vela::PITCHED_LAYOUT);
    EXPECT_EQ(messageOf([&] { vela::saveImage(two.a3, (dir / "x.ppm"), false); }),
              "\nvela/cmatrixlib_interface:221: saveImage() does not support writing color image from Array with "
              "dimensions (640x480x2)");
    EXPECT_EQ(messageOf([&] { vela::saveImage(grey.a2, (dir / "g.ppm"), false); }), "Image file format not supported");
}

}  // namespace
