#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>

#include "image/CMatrix.h"
#include "image/CTensor.h"
#include "tests/algorithms/device_buffer.h"
#include "tests/image/temp_dir.h"

namespace {

using image_test::readFile;
using image_test::TempDir;
using image_test::writeFile;
using vela_test::messageOf;
using namespace std::string_literals;

TEST(PpmFiles, RoundTripWithTheExactHeaderAndPixelOrder) {
    TempDir dir;
    CTensor<float> t(5, 3, 3);
    for (std::size_t i = 0; i < t.size(); ++i) t.data[i] = static_cast<float>(i * 7 % 256);
    const std::string path = dir.file("ramp.ppm");
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
    for (std::size_t i = 0; i < t.size(); ++i) ASSERT_EQ(back.data[i], t.data[i]) << i;
    const CTensor<float> copy = back;  // file -> tensor -> file, through a copy
    copy.writeToImage(dir.file("again.PPM").c_str());
    EXPECT_EQ(readFile(dir.file("again.PPM")), bytes);
}

TEST(PpmFiles, CommentsAfterTheMagicLineAreSkippedAndMissingSamplesReadAsMinusOne) {
    TempDir dir;
    const std::string path = dir.file("commented.ppm");
    writeFile(path, "P6\n# written by hand\n# 99 99\n2 1\n255\n\x0A\x0B\x0C\x0D"s);
    CTensor<float> t;
    t.readFromPPM(path.c_str());
    ASSERT_TRUE(t.xSize == 2 && t.ySize == 1 && t.zSize == 3);
    EXPECT_EQ(t(0, 0, 2), 12);
    EXPECT_EQ(t(1, 0, 0), 13);
    EXPECT_EQ(t(1, 0, 1), -1.0f);
    EXPECT_EQ(t(1, 0, 2), -1.0f);
}

TEST(ImageFiles, SamplesAreWrittenAsTheLowByteOfTheirTruncatedValue) {
    TempDir dir;
    CTensor<float> t(7, 1, 1);
    const float values[] = {256.0f, -1.0f, 12.7f, 255.9f, 511.0f, -0.5f, NAN};
    std::copy(values, values + 7, t.data);
    t.writeToPPM(dir.file("wrap.ppm").c_str());  // one plane is repeated as grey
    EXPECT_EQ(readFile(dir.file("wrap.ppm")).substr(13, 6), "\0\0\0\xFF\xFF\xFF"s);
    t.writeToPGM(dir.file("wrap.pgm").c_str());
    EXPECT_EQ(readFile(dir.file("wrap.pgm")), "P5 \n7 1 \n255\n\x00\xFF\x0C\xFF\xFF\x00\x00"s);

    CMatrix<float> m(3, 2);
    for (int i = 0; i < 6; ++i) m.data[i] = static_cast<float>(i) * 100.0f;
    m.writeToImage(dir.file("matrix.PGM").c_str());
    EXPECT_EQ(readFile(dir.file("matrix.PGM")), "P5\n3 2\n255\n\0\x64\xC8\x2C\x90\xF4"s);
    CTensor<unsigned char> bytes(2, 1, 3);
    bytes(0, 0, 0) = 200;
    bytes(1, 0, 2) = 9;
    bytes.writeToImage(dir.file("bytes.ppm").c_str());
    EXPECT_EQ(readFile(dir.file("bytes.ppm")), "P6 \n2 1 \n255\n\xC8\0\0\0\0\x09"s);
}

TEST(PgmFiles, PlanesFormAMosaicWithBlackTilesAfterTheLast) {
    TempDir dir;
    CTensor<float> t(2, 1, 5);
    for (int z = 0; z < 5; ++z) t(0, 0, z) = t(1, 0, z) = static_cast<float>(z + 1);
    t.writeToImage(dir.file("mosaic.pgm").c_str());
    // 2 rows of 3 tiles: planes 0 1 2 / 3 4 (black)
    EXPECT_EQ(readFile(dir.file("mosaic.pgm")), "P5 \n6 2 \n255\n\1\1\2\2\3\3\4\4\5\5\0\0"s);
}

TEST(PgmFiles, GreyReaderKeepsItsShiftWhileThePpmReaderSkipsTheMaximum) {
    TempDir dir;
    const std::string path = dir.file("grey.pgm");
    writeFile(path, "P5\n4 2\n255\n\1\2\3\4\5\6\7\x08"s);
    CTensor<float> viaPpm, viaPgm;
    viaPpm.readFromPPM(path.c_str());
    ASSERT_TRUE(viaPpm.zSize == 1 && viaPpm.xSize == 4);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(viaPpm.data[i], i + 1);
    viaPgm.readFromImage(path.c_str());
    const float shifted4[] = {'2', '5', '5', '\n', 1, 2, 3, 4};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(viaPgm.data[i], shifted4[i]) << i;

    viaPpm.writeToPGM(path.c_str());  // the tensor writer's header shifts by five
    viaPgm.readFromPGM(path.c_str());
    const float shifted5[] = {'\n', '2', '5', '5', '\n', 1, 2, 3};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(viaPgm.data[i], shifted5[i]) << i;
}

TEST(ImageFiles, ExtensionsChooseTheFormatAndOnlyTheTwoSpellingsAreAccepted) {
    TempDir dir;
    const CTensor<float> t(2, 2, 3);
    t.writeToImage(dir.file("image.PPM").c_str());
    EXPECT_EQ(readFile(dir.file("image.PPM")).substr(0, 2), "P6");
    for (const char* bad : {"image.Ppm", "image", "dir.ppm/image"}) {
        EXPECT_EQ(messageOf([&] { t.writeToImage(dir.file(bad).c_str()); }), "Image file format not supported") << bad;
        CTensor<float> r;
        EXPECT_EQ(messageOf([&] { r.readFromImage(dir.file(bad).c_str()); }), "Image file format not supported");
    }
    const CMatrix<float> m(1, 1);
    EXPECT_EQ(messageOf([&] { m.writeToImage(dir.file("m.ppm").c_str()); }), "Image file format not supported");
}

TEST(ImageFiles, MissingUnwritableAndForeignFilesAreReported) {
    TempDir dir;
    CTensor<float> t(2, 2, 3);
    const std::string missing = dir.file("missing.ppm");
    testing::internal::CaptureStderr();
    EXPECT_EQ(messageOf([&] { t.readFromPPM(missing.c_str()); }), "File not found: " + missing);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "File not found: " + missing + "\n");
    EXPECT_NE(messageOf([&] { t.readFromPPM(dir.file("").c_str()); }).find(dir.file("")), std::string::npos)
        << "a directory opens but cannot be read";
    EXPECT_EQ(t.xSize, 2) << "a failed read leaves the tensor as it was";

    const std::string unwritable = dir.file("no/such/dir/out.ppm");
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
    TempDir dir;
    const std::string path = dir.file("broken.ppm");
    for (const std::string& bytes :
         {""s, "no magic here"s, "P"s, "P6"s, "P6\n"s, "P6\nwide 1\n255\n\0\0\0"s, "P6\n1"s, "P6\n1 1"s,
          "P6\n1 1\n255"s, "P6\n0 1\n255\n"s, "P6\n1 0\n255\n\0\0\0"s, "P6\n60000 60000\n255\n\0\0\0"s,
          "P5\n99999999999999999999999999 1\n255\n"s, "P6\n# only a comment"s}) {
        writeFile(path, bytes);
        CTensor<float> t;
        std::string message = "<no exception>";
        try {
            t.readFromPPM(path.c_str());
        } catch (const std::runtime_error& e) {
            message = e.what();
        }
        EXPECT_NE(message.find(path), std::string::npos) << testing::PrintToString(bytes) << ": " << message;
        EXPECT_EQ(t.data, nullptr);
    }
}

// Every prefix of a valid file fails cleanly or reads, the missing samples -1.
TEST(ImageFiles, EveryTruncationOfAFileReadsOrFailsCleanly) {
    TempDir dir;
    const std::string whole = "P6\n# c\n3 2\n255\n" + std::string(18, '\x07');
    const std::size_t headerSize = whole.size() - 18;
    const std::string path = dir.file("cut.ppm");
    for (std::size_t n = 0; n <= whole.size(); ++n) {
        writeFile(path, whole.substr(0, n));
        CTensor<float> t;
        if (n < headerSize) {
            EXPECT_THROW(t.readFromPPM(path.c_str()), std::runtime_error) << n;
            continue;
        }
        t.readFromPPM(path.c_str());
        for (std::size_t k = 0; k < 18; ++k)
            ASSERT_EQ(t.data[(k % 3) * 6 + k / 3], k < n - headerSize ? 7.0f : -1.0f) << n << " " << k;
    }
}

}  // namespace
