#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>

#include "image/CMatrix.h"
#include "image/CTensor.h"
#include "tests/image/temp_dir.h"

namespace {

using image_test::readFile;
using image_test::TempDir;
using image_test::writeFile;
using namespace std::string_literals;

template <class F>
std::string messageOf(F&& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "<no exception>";
}

// A colour tensor whose samples tell their position.
CTensor<float> colourRamp(int w, int h) {
    CTensor<float> t(w, h, 3);
    for (int z = 0; z < 3; ++z)
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) t(x, y, z) = static_cast<float>((z * 80 + y * 7 + x) % 256);
    return t;
}

TEST(PpmFiles, RoundTripWithTheExactHeaderAndPixelOrder) {
    TempDir dir;
    const CTensor<float> t = colourRamp(5, 3);
    const std::string path = dir.file("ramp.ppm");
    t.writeToPPM(path.c_str());

    const std::string bytes = readFile(path);
    const std::string header = "P6 \n5 3 \n255\n";
    ASSERT_EQ(bytes.size(), header.size() + 5 * 3 * 3);
    EXPECT_EQ(bytes.substr(0, header.size()), header);
    // Interleaved R, G, B per pixel, rows top to bottom.
    EXPECT_EQ(static_cast<unsigned char>(bytes[header.size() + 3 * (2 * 5 + 4) + 1]), t(4, 2, 1));

    CTensor<float> back = colourRamp(1, 1);  // old contents are replaced
    back.readFromImage(path.c_str());
    ASSERT_EQ(back.xSize, 5);
    ASSERT_EQ(back.ySize, 3);
    ASSERT_EQ(back.zSize, 3);
    for (std::size_t i = 0; i < t.size(); ++i) ASSERT_EQ(back.data[i], t.data[i]) << "sample " << i;

    // file -> tensor -> file gives the same bytes, also through a copy.
    const CTensor<float> copy = back;
    const std::string again = dir.file("again.PPM");
    copy.writeToImage(again.c_str());
    EXPECT_EQ(readFile(again), bytes);
}

TEST(PpmFiles, SamplesAreTruncatedAndWrappedToTheirLowByte) {
    TempDir dir;
    CTensor<float> t(7, 1, 3);
    const float values[] = {256.0f, -1.0f, 12.7f, 255.9f, 511.0f, -0.5f, NAN};
    for (int x = 0; x < 7; ++x) t(x, 0, 0) = t(x, 0, 1) = t(x, 0, 2) = values[x];
    const std::string path = dir.file("wrap.ppm");
    t.writeToPPM(path.c_str());
    const std::string pixels = readFile(path).substr(std::string("P6 \n7 1 \n255\n").size());
    const unsigned char expected[] = {0, 255, 12, 255, 255, 0, 0};
    for (int x = 0; x < 7; ++x) EXPECT_EQ(static_cast<unsigned char>(pixels[3 * x]), expected[x]) << values[x];

    CTensor<unsigned char> bytes(2, 1, 3);
    bytes(0, 0, 0) = 200;
    bytes(1, 0, 2) = 9;
    bytes.writeToImage(dir.file("bytes.ppm").c_str());
    EXPECT_EQ(readFile(dir.file("bytes.ppm")), "P6 \n2 1 \n255\n\xC8\0\0\0\0\x09"s);
}

TEST(PgmFiles, PlanesAreWrittenAsAMosaicWithBlackTilesAfterTheLast) {
    TempDir dir;
    CTensor<float> t(2, 1, 5);
    for (int z = 0; z < 5; ++z)
        for (int x = 0; x < 2; ++x) t(x, 0, z) = static_cast<float>(10 * (z + 1) + x);
    const std::string path = dir.file("mosaic.pgm");
    t.writeToImage(path.c_str());
    // 2 rows of 3 tiles: planes 0 1 2 / 3 4 (black)
    EXPECT_EQ(readFile(path), "P5 \n6 2 \n255\n\x0A\x0B\x14\x15\x1E\x1F\x28\x29\x32\x33\0\0"s);

    CTensor<unsigned char> grey(3, 2, 1);
    for (int i = 0; i < 6; ++i) grey.data[i] = static_cast<unsigned char>(i + 1);
    grey.writeToPGM(dir.file("grey.pgm").c_str());
    EXPECT_EQ(readFile(dir.file("grey.pgm")), "P5 \n3 2 \n255\n\1\2\3\4\5\6"s);

    CMatrix<float> m(3, 2);
    for (int i = 0; i < 6; ++i) m.data[i] = static_cast<float>(i) * 100.0f;  // 300, 400, 500 wrap
    m.writeToImage(dir.file("matrix.PGM").c_str());
    EXPECT_EQ(readFile(dir.file("matrix.PGM")), "P5\n3 2\n255\n\0\x64\xC8\x2C\x90\xF4"s);
}

TEST(PgmFiles, GreyReaderKeepsItsShiftWhileThePpmReaderSkipsTheMaximum) {
    TempDir dir;
    const std::string path = dir.file("grey.pgm");
    writeFile(path, "P5\n4 2\n255\n\x01\x02\x03\x04\x05\x06\x07\x08"s);

    CTensor<float> viaPpm;
    viaPpm.readFromPPM(path.c_str());
    ASSERT_EQ(viaPpm.zSize, 1);
    ASSERT_EQ(viaPpm.xSize, 4);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(viaPpm.data[i], i + 1);

    // The maximum value line is read as the first four pixels.
    CTensor<float> viaPgm;
    viaPgm.readFromImage(path.c_str());
    const float shifted4[] = {'2', '5', '5', '\n', 1, 2, 3, 4};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(viaPgm.data[i], shifted4[i]) << i;

    // With the tensor writer's own header the shift is five bytes.
    CTensor<float> t(4, 2, 1);
    for (int i = 0; i < 8; ++i) t.data[i] = static_cast<float>(i + 1);
    t.writeToPGM(path.c_str());
    viaPgm.readFromPGM(path.c_str());
    const float shifted5[] = {'\n', '2', '5', '5', '\n', 1, 2, 3};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(viaPgm.data[i], shifted5[i]) << i;
}

TEST(PpmFiles, CommentsAfterTheMagicLineAreSkippedAndMissingPixelsReadAsMinusOne) {
    TempDir dir;
    const std::string path = dir.file("commented.ppm");
    writeFile(path, "P6\n# written by hand\n# 99 99\n2 1\n255\n\x0A\x0B\x0C\x0D"s);
    CTensor<float> t;
    t.readFromPPM(path.c_str());
    ASSERT_EQ(t.xSize, 2);
    ASSERT_EQ(t.ySize, 1);
    EXPECT_EQ(t(0, 0, 0), 10);
    EXPECT_EQ(t(0, 0, 2), 12);
    EXPECT_EQ(t(1, 0, 0), 13);
    EXPECT_EQ(t(1, 0, 1), -1.0f) << "past the end of the file";
    EXPECT_EQ(t(1, 0, 2), -1.0f);
}

TEST(ImageFiles, ExtensionsChooseTheFormatAndOnlyTheTwoSpellingsAreAccepted) {
    TempDir dir;
    const CTensor<float> t = colourRamp(2, 2);
    t.writeToImage(dir.file("image.PPM").c_str());
    EXPECT_EQ(readFile(dir.file("image.PPM")).substr(0, 2), "P6");
    t.writeToImage(dir.file("image.pgm").c_str());
    EXPECT_EQ(readFile(dir.file("image.pgm")).substr(0, 2), "P5");
    for (const char* bad : {"image.Ppm", "image", "image.png", "dir.ppm/image"}) {
        EXPECT_EQ(messageOf([&] { t.writeToImage(dir.file(bad).c_str()); }), "Image file format not supported") << bad;
        CTensor<float> r;
        EXPECT_EQ(messageOf([&] { r.readFromImage(dir.file(bad).c_str()); }), "Image file format not supported");
    }
    CMatrix<float> m(1, 1);
    EXPECT_EQ(messageOf([&] { m.writeToImage(dir.file("m.ppm").c_str()); }), "Image file format not supported");
}

TEST(ImageFiles, MissingUnwritableAndForeignFilesAreReported) {
    TempDir dir;
    const std::string missing = dir.file("missing.ppm");
    CTensor<float> t = colourRamp(2, 2);
    testing::internal::CaptureStderr();
    EXPECT_THROW(t.readFromPPM(missing.c_str()), std::runtime_error);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "File not found: " + missing + "\n");
    EXPECT_EQ(t.xSize, 2) << "a failed read leaves the tensor as it was";

    const std::string unwritable = dir.file("no/such/dir/out.ppm");
    EXPECT_NE(messageOf([&] { t.writeToPPM(unwritable.c_str()); }).find(unwritable), std::string::npos);
    CMatrix<float> m(2, 2);
    EXPECT_NE(messageOf([&] { m.writeToPGM(unwritable.c_str()); }).find(unwritable), std::string::npos);

    const std::string colour = dir.file("colour.ppm");
    writeFile(colour, "P6\n1 1\n255\nabc");
    testing::internal::CaptureStderr();
    EXPECT_THROW(t.readFromPGM(colour.c_str()), EInvalidFileFormat);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Exception EInvalidFileFormat: File is not in PGM format\n");
    writeFile(colour, "P3\n1 1\n255\n1 2 3\n");
    testing::internal::CaptureStderr();
    EXPECT_THROW(t.readFromPPM(colour.c_str()), EInvalidFileFormat);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Exception EInvalidFileFormat: File is not in PPM format\n");
}

// Headers a reader must refuse, each with a message naming the file, before it
// allocates anything for the pixels.
TEST(ImageFiles, BrokenHeadersAreRejectedWithTheFileName) {
    TempDir dir;
    const std::string path = dir.file("broken.ppm");
    const std::string cases[] = {
        "",                                         // empty
        "no magic here",                            // no "P" at all
        "P6",                                       // ends after the magic number
        "P6\n",                                     // no width
        "P6\nwide 1\n255\n\0\0\0"s,                 // width without digits
        "P6\n1",                                    // no height
        "P6\n1 1",                                  // no maximum value
        "P6\n1 1\n255",                             // maximum value line not ended
        "P6\n0 1\n255\n",                           // zero width
        "P6\n1 0\n255\n\0\0\0"s,                    // zero height
        "P6\n60000 60000\n255\n\0\0\0"s,            // more pixels than bytes
        "P5\n99999999999999999999999999 1\n255\n",  // width past any integer
        "P6\n# only a comment",                     // comment runs to the end
    };
    for (const std::string& bytes : cases) {
        writeFile(path, bytes);
        CTensor<float> t;
        std::string message;
        try {
            t.readFromPPM(path.c_str());
            message = "<no exception>";
        } catch (const std::runtime_error& e) {
            message = e.what();
        }
        EXPECT_NE(message.find(path), std::string::npos)
            << "header " << testing::PrintToString(bytes) << ": " << message;
        EXPECT_EQ(t.data, nullptr);
    }
}

// Every prefix of a valid file either fails cleanly or reads, with the
// samples the file lacks as -1.
TEST(ImageFiles, EveryTruncationOfAFileReadsOrFailsCleanly) {
    TempDir dir;
    const std::string whole = "P6\n# c\n3 2\n255\n" + std::string(18, '\x07');
    const std::size_t headerSize = whole.size() - 18;
    const std::string path = dir.file("cut.ppm");
    for (std::size_t n = 0; n <= whole.size(); ++n) {
        writeFile(path, whole.substr(0, n));
        CTensor<float> t;
        if (n < headerSize) {
            EXPECT_ANY_THROW(t.readFromPPM(path.c_str())) << n;
            continue;
        }
        t.readFromPPM(path.c_str());
        const std::size_t present = n - headerSize;
        for (std::size_t k = 0; k < 18; ++k) {
            const std::size_t pixel = k / 3, plane = k % 3;
            ASSERT_EQ(t.data[plane * 6 + pixel], k < present ? 7.0f : -1.0f) << "prefix " << n << " byte " << k;
        }
    }
}

}  // namespace
