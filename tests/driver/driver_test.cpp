#include "src/driver/driver.h"

#include <gtest/gtest.h>
#include <png.h>
#include <turbojpeg.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "image/png_file.h"
#include "tests/support/run_program.h"
#include "tests/support/scratch_folder.h"

namespace {

namespace fs = std::filesystem;
using testsupport::Output;
using testsupport::readFile;
using testsupport::ScratchFolder;
using Rgb = std::array<int, 3>;
using Names = std::vector<std::string>;

// A binary PPM as the program's writer lays it out.
std::string ppm(int w, int h, const std::vector<Rgb>& pixels) {
    std::string s = "P6 \n" + std::to_string(w) + " " + std::to_string(h) + " \n255\n";
    for (const Rgb& p : pixels) s += {static_cast<char>(p[0]), static_cast<char>(p[1]), static_cast<char>(p[2])};
    return s;
}

// The pixels of a PPM made by ppm().
std::vector<Rgb> readPpmBytes(const std::string& bytes) {
    const std::size_t start = bytes.find("255\n") + 4;
    std::vector<Rgb> pixels;
    for (std::size_t at = start; at + 2 < bytes.size(); at += 3)
        pixels.push_back({static_cast<unsigned char>(bytes[at]), static_cast<unsigned char>(bytes[at + 1]),
                          static_cast<unsigned char>(bytes[at + 2])});
    return pixels;
}

// The pixels, row by row, of a w x h PPM the program wrote.
std::vector<Rgb> readPpm(const std::string& path, int w, int h) {
    const std::string bytes = readFile(path), header = ppm(w, h, {});
    EXPECT_EQ(bytes.substr(0, header.size()), header) << path;
    std::vector<Rgb> pixels;
    for (std::size_t at = header.size(); at + 2 < bytes.size(); at += 3)
        pixels.push_back({static_cast<unsigned char>(bytes[at]), static_cast<unsigned char>(bytes[at + 1]),
                          static_cast<unsigned char>(bytes[at + 2])});
    EXPECT_EQ(pixels.size(), static_cast<std::size_t>(w * h)) << path;
    return pixels;
}

// The names in `folder`, sorted.
Names namesIn(const std::string& folder) {
    Names names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// The status `f` returns, with what it printed.
template <class F>
Output captured(F f) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = f();
    std::string err = testing::internal::GetCapturedStderr();
    return {status, testing::internal::GetCapturedStdout(), err};
}

TEST(TrackExport, WritesOneTrackPerPixelNumberedByFirstColourAndNeverAnInput) {
    ScratchFolder folder("export");
    const std::string results = folder.str() + "/res/";
    const Rgb red{255, 10, 10}, green{0, 255, 0}, darkRed{1, 0, 0}, blue{10, 10, 255}, other{0, 0, 7};
    // (0, 255, 0) and (1, 0, 0) share a code in base 255 and so a label.
    folder.write("res/a_dense.ppm", ppm(3, 2, {red, green, darkRed, red, blue, green}));
    folder.write("res/b_dense.ppm", ppm(3, 2, {blue, blue, other, blue, blue, blue}));
    folder.write("res/a_overlay.ppm", ppm(1, 1, {other}));
    folder.write("res/.partial-1-c_dense.ppm", ppm(1, 1, {other}));
    const std::string input = folder.write("res/in.dat", "1 0\n");

    const Output refused = captured([&] { return exportTracks(results, "tracks/in.dat", {input}); });
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("would replace an input file"), std::string::npos) << refused.err;
    EXPECT_EQ(readFile(input), "1 0\n");

    const Output written = captured([&] { return exportTracks(results, "tracks/t.dat", {input}); });
    EXPECT_EQ(written.status, 0) << written.err;
    EXPECT_EQ(written.out + written.err, "write track file: " + results + "t.dat\n");
    EXPECT_EQ(readFile(results + "t.dat"),
              "2\n12\n"
              "0 1\n0 0 0\n1 1\n1 0 0\n1 1\n2 0 0\n"
              "0 1\n0 1 0\n2 1\n1 1 0\n1 1\n2 1 0\n"
              "2 1\n0 0 1\n2 1\n1 0 1\n3 1\n2 0 1\n"
              "2 1\n0 1 1\n2 1\n1 1 1\n2 1\n2 1 1\n");

    // A result of another size stops the export before anything is written.
    folder.write("res/c_dense.ppm", ppm(2, 3, {red, blue, red, blue, red, blue}));
    const Output sizes = captured([&] { return exportTracks(results, "u.dat", {input}); });
    EXPECT_EQ(sizes.status, 1);
    EXPECT_NE(sizes.err.find(results + "c_dense.ppm"), std::string::npos) << sizes.err;
    EXPECT_EQ(namesIn(results), Names({".partial-1-c_dense.ppm", "a_dense.ppm", "a_overlay.ppm", "b_dense.ppm",
                                       "c_dense.ppm", "in.dat", "t.dat"}));
}

// --- The program, run as its own process ----------------------------------------

Output runProgram(const std::string& folder, const std::vector<std::string>& args) {
    return testsupport::runProgram(DENSESEG_BINARY, folder, args);
}

TEST(Usage, FewerThanFiveArgumentsPrintTheUsageText) {
    ScratchFolder folder("usage");
    std::vector<std::string> args;
    for (const char* more : {"cfg", "image.ppm", "tracks.dat", "-1", ""}) {
        const Output usage = runProgram(folder.str(), args);
        EXPECT_EQ(usage.status, 0) << args.size();
        EXPECT_EQ(usage.out,
                  "usage:\n"
                  "argument 1: filestructure\n"
                  "argument 2: image_filename (relativ to data directory)\n"
                  "argument 3: trackfile (relativ to tracks directory)\n"
                  "argument 4: frame index (-1 process the whole folder with image_filename)\n"
                  "argument 5: result directory (relative to result dir from filestructure)\n")
            << args.size();
        args.push_back(more);
    }
}

// Standard output without the timer summary.
std::string withoutTimers(const std::string& out) {
    std::istringstream lines(out);
    std::string line, kept;
    while (std::getline(lines, line))
        if (line.rfind("PDseg::", 0) != 0) kept += line + "\n";
    return kept;
}

constexpr int kW = 24, kH = 16;
// Palette entries 5 and 7.
const Rgb kColour5{0, 255, 255}, kColour7{180, 0, 0};

// A frame whose left half (x < 12) is red and right half blue.
std::string halves(int h = kH) {
    std::vector<Rgb> pixels;
    for (int i = 0; i < kW * h; ++i) pixels.push_back(i % kW < kW / 2 ? Rgb{200, 40, 40} : Rgb{40, 40, 200});
    return ppm(kW, h, pixels);
}

// A track of `label` with points on every second pixel of columns x0 to x0 + 8
// in each of `frames`.
std::string track(int label, int x0, const std::vector<int>& frames) {
    std::string points;
    int n = 0;
    for (int t : frames)
        for (int y = 1; y < kH; y += 2)
            for (int x = x0; x <= x0 + 8; x += 2, ++n)
                points += std::to_string(x) + ".5 " + std::to_string(y) + ".5 " + std::to_string(t) + "\n";
    return std::to_string(label) + " " + std::to_string(n) + "\n" + points;
}

// Three frames: label 5 marks the left and label 7 the right half in frames
// 0 and 1, met in the opposite order in frame 1; frame 2 has no points.
class Sequence : public testing::Test {
 protected:
    void SetUp() override {
        for (const char* name : {"data/f0.ppm", "data/f1.ppm", "data/f2.ppm"}) folder.write(name, halves());
        folder.write("data/notes.txt", "not a frame");
        folder.write("tracks/t.dat", "3 3\n" + track(5, 1, {0}) + track(7, 14, {0, 1}) + track(5, 1, {1}));
        folder.write("cfg",
                     "s dataDir data\ns tracksDir tracks\ns resultDir out # results\nf lambda 5\ni maxiter 200\n");
    }

    // Label 5's colour up to column 9, label 7's from column 14, either between.
    void expectHalves(const std::string& path) {
        const std::vector<Rgb> p = readPpm(path, kW, kH);
        for (std::size_t i = 0; i < p.size(); ++i)
            ASSERT_TRUE(p[i] == (i % kW < kW / 2 ? kColour5 : kColour7) ||
                        (i % kW > 9 && i % kW < 14 && (p[i] == kColour5 || p[i] == kColour7)))
                << path << ": pixel " << i % kW << ", " << i / kW;
    }

    ScratchFolder folder{"sequence"};
};

TEST_F(Sequence, WholeFolderSegmentsEveryFrameAndExportsTheTracks) {
    const Output run = runProgram(folder.str(), {"cfg", "f0.ppm", "t.dat", "-1", "run/one"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(withoutTimers(run.out),
              "processing 0th frame: out/run/one/f0\n"
              "number of different labels in this frame: 2\n"
              "processing 1th frame: out/run/one/f1\n"
              "number of different labels in this frame: 2\n"
              "write track file: out/run/one/t.dat\n");
    EXPECT_EQ(run.err, "");

    const std::string results = folder / "out/run/one/";
    // Label 5 keeps its colour in frame 1, where it is met second.
    expectHalves(results + "f0_dense.ppm");
    expectHalves(results + "f1_dense.ppm");
    EXPECT_EQ(namesIn(results), Names({"f0_dense.ppm", "f0_overlay.ppm", "f1_dense.ppm", "f1_overlay.ppm", "t.dat"}));

    // The overlay is 40 % label colour over 60 % image.
    const std::vector<Rgb> overlay = readPpm(results + "f1_overlay.ppm", kW, kH);
    for (const auto& [x, want] : {std::pair{2, Rgb{120, 126, 126}}, std::pair{20, Rgb{96, 24, 120}}})
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(overlay[2 * kW + x][c], want[c], 1) << x;

    // One track per pixel and dense file, labelled 0 for the colour met
    // first (label 5's, at pixel 0, 0 of f0) and 1 for the other.
    std::string tracks = "2\n" + std::to_string(2 * kW * kH) + "\n";
    for (int f = 0; f < 2; ++f) {
        const std::vector<Rgb> dense = readPpm(results + "f" + std::to_string(f) + "_dense.ppm", kW, kH);
        for (int i = 0; i < kW * kH; ++i)
            tracks += (dense[i] == kColour5 ? "0 1\n" : "1 1\n") + std::to_string(i % kW) + " " +
                      std::to_string(i / kW) + " " + std::to_string(f) + "\n";
    }
    EXPECT_EQ(readFile(results + "t.dat"), tracks);
}

// With "temporal" each frame after the first starts from the one before (the
// tracks of label 7 continue), and the results are the same halves.
TEST_F(Sequence, TemporalRunsStartEachFrameFromTheOneBefore) {
    folder.write("video.cfg",
                 "s dataDir data\ns tracksDir tracks\ns resultDir out\nf lambda 5\ni maxiter 200\ni temporal 1\n");
    const Output run = runProgram(folder.str(), {"video.cfg", "f0.ppm", "t.dat", "-1", "video"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(withoutTimers(run.out),
              "processing 0th frame: out/video/f0\n"
              "number of different labels in this frame: 2\n"
              "started afresh; walker iterations: 0\n"
              "processing 1th frame: out/video/f1\n"
              "number of different labels in this frame: 2\n"
              "started from the frame before; walker iterations: 0\n"
              "write track file: out/video/t.dat\n");
    expectHalves(folder / "out/video/f0_dense.ppm");
    expectHalves(folder / "out/video/f1_dense.ppm");
}

// The walker data term and the other solver keys reach the frame.
TEST_F(Sequence, SolverKeysFromTheConfiguration) {
    folder.write("walker.cfg",
                 "s dataDir data\ns tracksDir tracks\ns resultDir out\nf lambda 100\ni maxiter 100\n"
                 "s dataTerm walker\ni model 2\ni diffusivity 1\nf alpha 0.5\n");
    const Output run = runProgram(folder.str(), {"walker.cfg", "f0.ppm", "t.dat", "0", "walker"});
    ASSERT_EQ(run.status, 0) << run.err;
    expectHalves(folder / "out/walker/f0_dense.ppm");
}

TEST_F(Sequence, OneFrameTakesTheLeadingDigitsOfItsIndex) {
    const Output run = runProgram(folder.str(), {"cfg", "f0.ppm", "t.dat", "1abc", "single"});
    ASSERT_EQ(run.status, 0) << run.err;
    // The image given is segmented with the points of frame 1.
    EXPECT_EQ(withoutTimers(run.out),
              "processing 1th frame: out/single/f0\nnumber of different labels in this frame: 2\n");
    expectHalves(folder / "out/single/f0_dense.ppm");

    // A frame without points writes nothing and says nothing.
    const Output empty = runProgram(folder.str(), {"cfg", "f2.ppm", "t.dat", "2", "single"});
    EXPECT_EQ(empty.status, 0) << empty.err;
    EXPECT_EQ(empty.out, "");
    EXPECT_EQ(namesIn(folder / "out/single"), Names({"f0_dense.ppm", "f0_overlay.ppm"}));
}

TEST_F(Sequence, FailuresEndTheRunBeforeAnythingIsWrittenOverOrOfAnotherSize) {
    const Output noConfig = runProgram(folder.str(), {"absent.cfg", "f0.ppm", "t.dat", "0", "x"});
    EXPECT_EQ(noConfig.status, 255);
    EXPECT_EQ(noConfig.out, "Input Format- <i|f|c|s> <key> <value>, use # for comments\n");
    folder.write("bad.cfg", "f lambda 5\ni maxiter 10\ns dataTerm colour\n");
    const Output badKey = runProgram(folder.str(), {"bad.cfg", "f0.ppm", "t.dat", "0", "x"});
    EXPECT_EQ(badKey.status, 255);
    EXPECT_NE(badKey.err.find("configuration key \"dataTerm\""), std::string::npos) << badKey.err;
    const Output noImage = runProgram(folder.str(), {"cfg", "absent.ppm", "t.dat", "0", "x"});
    EXPECT_EQ(noImage.status, 1);
    EXPECT_NE(noImage.err.find("data/absent.ppm"), std::string::npos) << noImage.err;
    const Output noFrames = runProgram(folder.str(), {"cfg", "f0.png", "t.dat", "-1", "x"});
    EXPECT_EQ(noFrames.status, 1);
    EXPECT_NE(noFrames.err.find("no image matches data//*.png"), std::string::npos) << noFrames.err;

    folder.write("data/f3.ppm", halves(kH + 2));
    const Output sizes = runProgram(folder.str(), {"cfg", "f0.ppm", "t.dat", "-1", "sizes"});
    EXPECT_EQ(sizes.status, 1);
    EXPECT_NE(sizes.err.find("image data//f3.ppm is 24 x 18 pixels"), std::string::npos) << sizes.err;
    EXPECT_EQ(namesIn(folder / "out/sizes"),
              Names({"f0_dense.ppm", "f0_overlay.ppm", "f1_dense.ppm", "f1_overlay.ppm"}));

    // The data folder is the result folder, and one frame is named like the
    // dense result of another.
    folder.write("cfg", "s dataDir data\ns tracksDir tracks\ns resultDir -\nf lambda 5\ni maxiter 10\n");
    const std::string frame = folder.write("data/f0_dense.ppm", halves());
    const Output inputs = runProgram(folder.str(), {"cfg", "f0.ppm", "t.dat", "-1", "data"});
    EXPECT_EQ(inputs.status, 1);
    EXPECT_NE(inputs.err.find("data/f0_dense.ppm would replace an input file"), std::string::npos) << inputs.err;
    EXPECT_EQ(readFile(frame), halves());
    EXPECT_FALSE(fs::exists(folder / "data/f1_dense.ppm"));
}

// Strides are 32-bit: a 2400 x 2300 frame with 100 labels needs a 4.5 GB dual
// field.  Both modes refuse it before any device array exists and write nothing.
TEST_F(Sequence, AFrameTheEngineCannotAddressIsRefusedBeforeAnythingIsWritten) {
    const int w = 2400, h = 2300;
    folder.write("big/frame.ppm", "P6\n" + std::to_string(w) + " " + std::to_string(h) + "\n255\n" +
                                      std::string(static_cast<std::size_t>(w) * h * 3, '\x40'));
    std::string tracks = "1 100\n";
    for (int label = 0; label < 100; ++label)
        tracks += std::to_string(label) + " 1\n" + std::to_string(10 + 20 * label) + ".5 100.5 0\n";
    folder.write("tracks/big.dat", tracks);
    folder.write("big.cfg", "s dataDir big\ns tracksDir tracks\ns resultDir out\nf lambda 5\ni maxiter 10\n");
    for (const char* index : {"0", "-1"}) {
        const Output run = runProgram(folder.str(), {"big.cfg", "frame.ppm", "big.dat", index, "big"});
        EXPECT_EQ(run.status, 1) << index;
        EXPECT_NE(run.err.find("a 2400 x 2300 frame with 100 labels is too large"), std::string::npos) << run.err;
        EXPECT_NE(run.err.find("at most 4 GiB (4294967295 bytes) per array"), std::string::npos) << run.err;
        EXPECT_EQ(namesIn(folder / "out/big"), Names{}) << index;
    }
}

// --- PNG and JPEG frames, label maps ------------------------------------------

// The frame of halves() as 8-bit RGB.
RgbImage halvesRgb() {
    RgbImage image{kW, kH, {}};
    for (const Rgb& p : readPpmBytes(halves())) image.rgb.insert(image.rgb.end(), p.begin(), p.end());
    return image;
}

std::string jpegOf(const RgbImage& image) {
    tjhandle tj = tjInitCompress();
    unsigned char* out = nullptr;
    unsigned long size = 0;
    const int status =
        tjCompress2(tj, image.rgb.data(), image.width, 0, image.height, TJPF_RGB, &out, &size, TJSAMP_444, 95, 0);
    const std::string jpeg(reinterpret_cast<const char*>(out), size);
    tjFree(out);
    tjDestroy(tj);
    EXPECT_EQ(status, 0);
    return jpeg;
}

// A palette PNG read back through libpng: its colour table and one index per
// pixel.
struct LabelMap {
    std::vector<Rgb> palette;
    std::vector<int> index;
};

LabelMap readLabelMap(const std::string& path) {
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    LabelMap map;
    EXPECT_NE(png_image_begin_read_from_file(&png, path.c_str()), 0) << path << ": " << png.message;
    EXPECT_TRUE(png.format & PNG_FORMAT_FLAG_COLORMAP) << path;
    png.format = PNG_FORMAT_RGB_COLORMAP;
    std::vector<unsigned char> colours(PNG_IMAGE_COLORMAP_SIZE(png)), pixels(PNG_IMAGE_SIZE(png));
    EXPECT_NE(png_image_finish_read(&png, nullptr, pixels.data(), 0, colours.data()), 0) << png.message;
    for (std::size_t i = 0; i + 2 < colours.size(); i += 3)
        map.palette.push_back({colours[i], colours[i + 1], colours[i + 2]});
    map.index.assign(pixels.begin(), pixels.end());
    png_image_free(&png);
    return map;
}

TEST_F(Sequence, PngAndJpegFramesSegmentLikePpmAndLabelMapsHoldTheTrackLabels) {
    fs::create_directories(folder / "png");
    for (const char* f : {"f0", "f1", "f2"}) {
        png_file::writeRgb(halvesRgb(), folder / ("png/" + std::string(f) + ".png"));
        folder.write("jpg/" + std::string(f) + ".JPG", jpegOf(halvesRgb()));
    }
    const Output ppmRun = runProgram(folder.str(), {"cfg", "f0.ppm", "t.dat", "-1", "ppm"});
    ASSERT_EQ(ppmRun.status, 0) << ppmRun.err;
    folder.write("png.cfg",
                 "s dataDir png\ns tracksDir tracks\ns resultDir out\nf lambda 5\ni maxiter 200\n"
                 "i writeLabels 1\n");
    const Output pngRun = runProgram(folder.str(), {"png.cfg", "f0.png", "t.dat", "-1", "png"});
    ASSERT_EQ(pngRun.status, 0) << pngRun.err;
    for (const char* name : {"f0_dense.ppm", "f0_overlay.ppm", "f1_dense.ppm", "f1_overlay.ppm", "t.dat"})
        EXPECT_EQ(readFile(folder / ("out/png/" + std::string(name))),
                  readFile(folder / ("out/ppm/" + std::string(name))))
            << name;
    EXPECT_EQ(namesIn(folder / "out/png"), Names({"f0_dense.ppm", "f0_labels.png", "f0_overlay.ppm", "f1_dense.ppm",
                                                  "f1_labels.png", "f1_overlay.ppm", "t.dat"}));

    // Every pixel holds the track label whose palette colour the dense
    // picture shows, and the colour table is the 100-entry palette.
    for (const char* f : {"f0", "f1"}) {
        const LabelMap map = readLabelMap(folder / ("out/png/" + std::string(f) + "_labels.png"));
        const std::vector<Rgb> dense = readPpm(folder / ("out/png/" + std::string(f) + "_dense.ppm"), kW, kH);
        ASSERT_EQ(map.palette.size(), 100u);
        EXPECT_EQ(map.palette[5], kColour5);
        EXPECT_EQ(map.palette[7], kColour7);
        ASSERT_EQ(map.index.size(), dense.size());
        for (std::size_t i = 0; i < dense.size(); ++i) {
            ASSERT_TRUE(map.index[i] == 5 || map.index[i] == 7) << f << ": pixel " << i;
            ASSERT_EQ(map.palette[map.index[i]], dense[i]) << f << ": pixel " << i;
        }
    }

    folder.write("jpg.cfg", "s dataDir jpg\ns tracksDir tracks\ns resultDir out\nf lambda 5\ni maxiter 200\n");
    const Output jpgRun = runProgram(folder.str(), {"jpg.cfg", "f0.JPG", "t.dat", "-1", "jpg"});
    ASSERT_EQ(jpgRun.status, 0) << jpgRun.err;
    expectHalves(folder / "out/jpg/f0_dense.ppm");
    expectHalves(folder / "out/jpg/f1_dense.ppm");
}

TEST_F(Sequence, DamagedFramesAndBadLabelKeysStopTheRun) {
    folder.write("bad/f0.png", "\x89PNG\r\n\x1a\n but nothing more");
    folder.write("bad.cfg", "s dataDir bad\ns tracksDir tracks\ns resultDir out\n");
    const Output damaged = runProgram(folder.str(), {"bad.cfg", "f0.png", "t.dat", "-1", "bad"});
    EXPECT_EQ(damaged.status, 1);
    EXPECT_EQ(damaged.err.rfind("denseseg: bad//f0.png: not a readable PNG file: ", 0), 0u) << damaged.err;
    EXPECT_EQ(std::count(damaged.err.begin(), damaged.err.end(), '\n'), 1) << damaged.err;

    folder.write("two.cfg", "s dataDir data\ns tracksDir tracks\ns resultDir out\ni writeLabels 2\n");
    const Output key = runProgram(folder.str(), {"two.cfg", "f0.ppm", "t.dat", "0", "key"});
    EXPECT_EQ(key.status, 255);
    EXPECT_NE(key.err.find("writeLabels"), std::string::npos) << key.err;
    EXPECT_EQ(key.out, "Input Format- <i|f|c|s> <key> <value>, use # for comments\n");

    // A frame named like the label map of another, written into the frames'
    // folder.
    folder.write("cfg", "s dataDir png\ns tracksDir tracks\ns resultDir -\ni maxiter 10\ni writeLabels 1\n");
    fs::create_directories(folder / "png");
    for (const char* name : {"png/f0.png", "png/f0_labels.png"}) png_file::writeRgb(halvesRgb(), folder / name);
    const Output inputs = runProgram(folder.str(), {"cfg", "f0.png", "t.dat", "-1", "png"});
    EXPECT_EQ(inputs.status, 1);
    EXPECT_NE(inputs.err.find("png/f0_labels.png would replace an input file"), std::string::npos) << inputs.err;
}

}  // namespace
