// PNG and JPEG frames through CTensor::readFromImage, the PNG writers, and
// the refusal of damaged or forged files.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <turbojpeg.h>
#include <zlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "image/CTensor.h"
#include "image/png_file.h"
#include "tests/support/scratch_folder.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

using TempDir = testsupport::ScratchFolder;

void put32(Bytes& b, std::uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<std::uint8_t>(v >> s));
}

void chunk(Bytes& png, const char* type, const Bytes& data) {
    put32(png, static_cast<std::uint32_t>(data.size()));
    const std::size_t start = png.size();
    png.insert(png.end(), type, type + 4);
    png.insert(png.end(), data.begin(), data.end());
    put32(png, static_cast<std::uint32_t>(crc32(0, png.data() + start, static_cast<uInt>(png.size() - start))));
}

// A PNG built chunk by chunk, so that tests control what libpng's writer
// would not produce (16 bits without a gamma chunk, forged sizes).  `rows`
// holds the unfiltered samples of each row, big-endian for 16 bits.
Bytes makePng(std::uint32_t w, std::uint32_t h, int depth, int colourType, const std::vector<Bytes>& rows,
              const Bytes& plte = {}, const Bytes& trns = {}) {
    Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'}, ihdr;
    put32(ihdr, w);
    put32(ihdr, h);
    ihdr.insert(ihdr.end(), {static_cast<std::uint8_t>(depth), static_cast<std::uint8_t>(colourType), 0, 0, 0});
    chunk(png, "IHDR", ihdr);
    if (!plte.empty()) chunk(png, "PLTE", plte);
    if (!trns.empty()) chunk(png, "tRNS", trns);
    Bytes raw;
    for (const Bytes& row : rows) {
        raw.push_back(0);
        raw.insert(raw.end(), row.begin(), row.end());
    }
    Bytes packed(compressBound(static_cast<uLong>(raw.size())));
    uLongf n = static_cast<uLongf>(packed.size());
    compress(packed.data(), &n, raw.data(), static_cast<uLong>(raw.size()));
    packed.resize(n);
    chunk(png, "IDAT", packed);
    chunk(png, "IEND", {});
    return png;
}

Bytes makeJpeg(int w, int h, const Bytes& rgb, bool grey) {
    tjhandle tj = tjInitCompress();
    unsigned char* out = nullptr;
    unsigned long size = 0;
    Bytes pixels = rgb;
    if (grey)
        for (std::size_t i = 0; i < rgb.size() / 3; ++i) pixels[i] = rgb[3 * i];
    const int status = tjCompress2(tj, pixels.data(), w, 0, h, grey ? TJPF_GRAY : TJPF_RGB, &out, &size,
                                   grey ? TJSAMP_GRAY : TJSAMP_444, 100, 0);
    Bytes jpeg(out, out + size);
    tjFree(out);
    tjDestroy(tj);
    if (status != 0) throw std::runtime_error("cannot make a test JPEG");
    return jpeg;
}

// The pixels of `t`, R, G, B per pixel.
Bytes pixelsOf(const CTensor<float>& t) {
    Bytes rgb;
    for (int y = 0; y < t.ySize; ++y)
        for (int x = 0; x < t.xSize; ++x)
            for (int c = 0; c < 3; ++c) rgb.push_back(static_cast<std::uint8_t>(t(x, y, c)));
    return rgb;
}

CTensor<float> readImage(const std::string& path) {
    CTensor<float> t;
    t.readFromImage(path.c_str());
    EXPECT_EQ(t.zSize, 3) << path;
    return t;
}

TEST(PngFrames, EveryColourTypeReadsAsEightBitRgb) {
    TempDir dir{"formats"};
    const Bytes expected = {10, 20, 30, 200, 100, 0};
    // RGB, greyscale, palette with a transparent entry, RGBA with a clear
    // pixel, and 16 bits (v * 257 is v; 0x01ff is scaled, rounded to 2, not cut to 1).
    EXPECT_EQ(pixelsOf(readImage(dir.write("rgb.png", makePng(2, 1, 8, 2, {expected})))), expected);
    EXPECT_EQ(pixelsOf(readImage(dir.write("grey.PNG", makePng(2, 1, 8, 0, {{7, 250}})))),
              (Bytes{7, 7, 7, 250, 250, 250}));
    EXPECT_EQ(pixelsOf(readImage(dir.write("pal.png", makePng(2, 1, 8, 3, {{1, 0}}, {200, 100, 0, 10, 20, 30}, {0})))),
              (Bytes{10, 20, 30, 200, 100, 0}));
    EXPECT_EQ(pixelsOf(readImage(dir.write("rgba.png", makePng(2, 1, 8, 6, {{10, 20, 30, 0, 200, 100, 0, 255}})))),
              expected);
    const Bytes deep = {10, 10, 20, 20, 30, 30, 200, 200, 0x01, 0xff, 0, 0};
    EXPECT_EQ(pixelsOf(readImage(dir.write("deep.png", makePng(2, 1, 16, 2, {deep})))), (Bytes{10, 20, 30, 200, 2, 0}));
}

TEST(PngFrames, WritersRoundTripThroughTheReader) {
    TempDir dir{"formats"};
    RgbImage picture{3, 2, {1, 2, 3, 4, 5, 6, 7, 8, 9, 250, 251, 252, 0, 0, 0, 255, 255, 255}};
    png_file::writeRgb(picture, (dir / "p.png"));
    EXPECT_EQ(pixelsOf(readImage((dir / "p.png"))), picture.rgb);

    // A palette of 20 entries, entry i = (i, 2i, 3i): each pixel reads back
    // as the colour of its index.
    Bytes palette;
    for (int i = 0; i < 20; ++i)
        palette.insert(palette.end(), {Bytes::value_type(i), Bytes::value_type(2 * i), Bytes::value_type(3 * i)});
    png_file::writePalette(2, 2, {0, 19, 5, 7}, palette, (dir / "l.png"));
    EXPECT_EQ(pixelsOf(readImage((dir / "l.png"))), (Bytes{0, 0, 0, 19, 38, 57, 5, 10, 15, 7, 14, 21}));
    EXPECT_THROW(png_file::writePalette(1, 1, {20}, palette, (dir / "bad.png")), std::runtime_error);
}

TEST(JpegFrames, ReadAsRgbAndGreyAsEqualChannels) {
    TempDir dir{"formats"};
    Bytes rgb;
    for (int i = 0; i < 16 * 16; ++i) rgb.insert(rgb.end(), {200, 40, 40});
    const CTensor<float> colour = readImage(dir.write("c.jpg", makeJpeg(16, 16, rgb, false)));
    ASSERT_EQ(colour.xSize, 16);
    EXPECT_NEAR(colour(5, 5, 0), 200, 3);
    EXPECT_NEAR(colour(5, 5, 1), 40, 3);
    const CTensor<float> grey = readImage(dir.write("g.JPEG", makeJpeg(16, 16, rgb, true)));
    EXPECT_EQ(grey(3, 4, 0), 200);
    EXPECT_EQ(grey(3, 4, 1), 200);
    EXPECT_EQ(grey(3, 4, 2), 200);
}

// Every refusal is one exception whose message names the file.
void expectRefused(const std::string& path, const std::string& reason) {
    CTensor<float> t;
    try {
        t.readFromImage(path.c_str());
        ADD_FAILURE() << path << " was read";
    } catch (const std::runtime_error& e) {
        const std::string what = e.what();
        EXPECT_NE(what.find(path), std::string::npos) << what;
        EXPECT_NE(what.find(reason), std::string::npos) << what;
        EXPECT_EQ(what.find('\n'), std::string::npos) << what;
    }
}

TEST(HostileFrames, TruncatedCorruptAndForgedFilesAreRefused) {
    TempDir dir{"formats"};
    std::vector<Bytes> rows(64, Bytes(64 * 3, 90));
    const Bytes png = makePng(64, 64, 8, 2, rows);
    expectRefused(dir.write("cut.png", Bytes(png.begin(), png.begin() + png.size() / 2)), "PNG");
    Bytes corrupt = png;
    corrupt[40] ^= 0xff;  // inside the IDAT data: its CRC no longer matches
    expectRefused(dir.write("crc.png", corrupt), "PNG");
    expectRefused(dir.write("empty.png", ""), "PNG");
    // Headers claiming 2^30 pixels, and 2^24 pixels in a file of 100 bytes.
    expectRefused(dir.write("huge.png", makePng(32768, 32768, 8, 2, {{1, 2, 3}})), "2^28");
    expectRefused(dir.write("big.png", makePng(4096, 4096, 8, 2, {{1, 2, 3}})), "more than the file can hold");

    Bytes rgb(64 * 64 * 3, 128);
    for (std::size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<std::uint8_t>(i * 7);
    const Bytes jpeg = makeJpeg(64, 64, rgb, false);
    expectRefused(dir.write("cut.jpg", Bytes(jpeg.begin(), jpeg.begin() + jpeg.size() / 2)), "JPEG");
    expectRefused(dir.write("junk.jpg", Bytes(jpeg.begin(), jpeg.begin() + 2)), "JPEG");
    // The frame header's height and width (after FF C0, length and precision)
    // set to 65000: 2^32 pixels.
    Bytes huge = jpeg;
    for (std::size_t i = 0; i + 8 < huge.size(); ++i)
        if (huge[i] == 0xff && huge[i + 1] == 0xc0) {
            for (std::size_t k : {i + 5, i + 7}) huge[k] = 0xfd, huge[k + 1] = 0xe8;
            break;
        }
    expectRefused(dir.write("huge.jpg", huge), "2^28");
}

}  // namespace
