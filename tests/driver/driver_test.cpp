#include "src/driver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/driver/test_files.h"

namespace {

namespace fs = std::filesystem;
using driver_test::readFile;
using driver_test::ScratchFolder;

struct Rgb {
    int r, g, b;
    bool operator==(const Rgb& o) const { return r == o.r && g == o.g && b == o.b; }
};

std::ostream& operator<<(std::ostream& os, const Rgb& c) {
    return os << "(" << c.r << ", " << c.g << ", " << c.b << ")";
}

// A binary PPM as the program's writer lays it out.
std::string ppm(int w, int h, const std::vector<Rgb>& pixels) {
    std::string s = "P6 \n" + std::to_string(w) + " " + std::to_string(h) + " \n255\n";
    for (const Rgb& p : pixels) {
        s += static_cast<char>(p.r);
        s += static_cast<char>(p.g);
        s += static_cast<char>(p.b);
    }
    return s;
}

struct Picture {
    int w = 0, h = 0;
    std::vector<Rgb> pixels;
    Rgb at(int x, int y) const { return pixels[static_cast<std::size_t>(y) * w + x]; }
};

Picture readPpm(const std::string& path) {
    const std::string bytes = readFile(path);
    std::istringstream header(bytes);
    std::string magic;
    int maxValue = 0;
    Picture p;
    header >> magic >> p.w >> p.h >> maxValue;
    EXPECT_EQ(magic, "P6") << path;
    std::size_t at = static_cast<std::size_t>(header.tellg()) + 1;
    for (int i = 0; i < p.w * p.h && at + 2 < bytes.size() + 0; ++i, at += 3)
        p.pixels.push_back({static_cast<unsigned char>(bytes[at]), static_cast<unsigned char>(bytes[at + 1]),
                            static_cast<unsigned char>(bytes[at + 2])});
    EXPECT_EQ(p.pixels.size(), static_cast<std::size_t>(p.w) * p.h) << path;
    return p;
}

// Names in `folder` that start with ".partial-": files being written.
std::vector<std::string> partialFiles(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        if (entry.path().filename().string().rfind(".partial-", 0) == 0)
            names.push_back(entry.path().filename().string());
    return names;
}

struct Captured {
    int status;
    std::string out;
};

// Runs the driver in this process with the given arguments.
Captured runInProcess(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    testing::internal::CaptureStdout();
    const int status = denseseg(static_cast<int>(args.size()), argv.data());
    return {status, testing::internal::GetCapturedStdout()};
}

const char* const kUsage =
    "usage:\n"
    "argument 1: filestructure\n"
    "argument 2: image_filename (relativ to data directory)\n"
    "argument 3: trackfile (relativ to tracks directory)\n"
    "argument 4: frame index (-1 process the whole folder with image_filename)\n"
    "argument 5: result directory (relative to result dir from filestructure)\n";

TEST(Usage, FewerThanFiveArgumentsPrintTheUsageText) {
    std::vector<std::string> args = {"denseseg"};
    for (const char* more : {"cfg", "image.ppm", "tracks.dat", "-1"}) {
        const Captured c = runInProcess(args);
        EXPECT_EQ(c.status, 0) << args.size();
        EXPECT_EQ(c.out, kUsage) << args.size();
        args.push_back(more);
    }
    // Four arguments lack the result directory: the usage text as well.
    const Captured four = runInProcess(args);
    EXPECT_EQ(four.status, 0);
    EXPECT_EQ(four.out, kUsage);
}

// --- Track export ------------------------------------------------------------

const Rgb kRed{255, 10, 10}, kGreen{0, 255, 0}, kDarkRed{1, 0, 0}, kBlue{10, 10, 255}, kOther{0, 0, 7};

TEST(TrackExport, WritesOneTrackPerPixelNumberedByFirstColour) {
    ScratchFolder folder("export");
    const std::string results = folder.str() + "/res/";
    // (0, 255, 0) and (1, 0, 0) share a code in base 255 and so a label.
    folder.write("res/a_dense.ppm", ppm(3, 2, {kRed, kGreen, kDarkRed, kRed, kBlue, kGreen}));
    folder.write("res/b_dense.ppm", ppm(3, 2, {kBlue, kBlue, kOther, kBlue, kBlue, kBlue}));
    folder.write("res/a_overlay.ppm", ppm(1, 1, {kOther}));
    folder.write("res/.partial-1-c_dense.ppm", ppm(1, 1, {kOther}));

    testing::internal::CaptureStdout();
    const int status = exportTracks(results, "tracks/t.dat", {});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "write track file: " + results + "t.dat\n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(results + "t.dat"),
              "2\n12\n"
              "0 1\n0 0 0\n1 1\n1 0 0\n1 1\n2 0 0\n"
              "0 1\n0 1 0\n2 1\n1 1 0\n1 1\n2 1 0\n"
              "2 1\n0 0 1\n2 1\n1 0 1\n3 1\n2 0 1\n"
              "2 1\n0 1 1\n2 1\n1 1 1\n2 1\n2 1 1\n");
    EXPECT_EQ(partialFiles(results), std::vector<std::string>({".partial-1-c_dense.ppm"}));
}

TEST(TrackExport, RefusesToReplaceAnInputAndResultsOfAnotherSize) {
    ScratchFolder folder("export");
    const std::string results = folder.str() + "/res/";
    folder.write("res/a_dense.ppm", ppm(2, 1, {kRed, kBlue}));
    const std::string input = folder.write("res/t.dat", "1 0\n");

    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(exportTracks(results, "res/t.dat", {input}), 1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("would replace an input file"), std::string::npos);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(readFile(input), "1 0\n");

    folder.write("res/b_dense.ppm", ppm(1, 2, {kRed, kBlue}));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(exportTracks(results, "u.dat", {input}), 1);
    const std::string err = testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
    EXPECT_NE(err.find(results + "b_dense.ppm"), std::string::npos) << err;
    EXPECT_FALSE(fs::exists(results + "u.dat"));
    EXPECT_TRUE(partialFiles(results).empty());
}

// --- The program, run as its own process ----------------------------------------

struct ProgramRun {
    int status = -1;
    std::string out, err;
};

// Runs the built program in `folder` with its output in two files.
ProgramRun runProgram(const std::string& folder, const std::vector<std::string>& args) {
    const std::string outPath = folder + "/.stdout", errPath = folder + "/.stderr";
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out < 0 || err < 0 || ::chdir(folder.c_str()) != 0) ::_exit(120);
        ::dup2(out, 1);
        ::dup2(err, 2);
        std::vector<char*> argv;
        std::vector<std::string> all = {DENSESEG_BINARY};
        all.insert(all.end(), args.begin(), args.end());
        for (std::string& a : all) argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(121);
    }
    ProgramRun run;
    int status = 0;
    if (child > 0 && ::waitpid(child, &status, 0) == child)
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.out = readFile(outPath);
    run.err = readFile(errPath);
    fs::remove(outPath);
    fs::remove(errPath);
    return run;
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
const Rgb kLeftInput{200, 40, 40}, kRightInput{40, 40, 200};
// Palette entries 5 and 7.
const Rgb kColour5{0, 255, 255}, kColour7{180, 0, 0};

// A frame whose left half (x < 12) is red and right half blue.
std::string halves(int w = kW, int h = kH) {
    std::vector<Rgb> pixels;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) pixels.push_back(x < w / 2 ? kLeftInput : kRightInput);
    return ppm(w, h, pixels);
}

// Points every second pixel of columns [x0, x1] in frame t.
std::string points(int x0, int x1, int t, int& count) {
    std::string s;
    count = 0;
    for (int y = 1; y < kH; y += 2)
        for (int x = x0; x <= x1; x += 2, ++count)
            s += std::to_string(x) + ".5 " + std::to_string(y) + ".5 " + std::to_string(t) + "\n";
    return s;
}

// Three frames: label 5 marks the left and label 7 the right half in frames
// 0 and 1, met in the opposite order in frame 1; frame 2 has no points.
class Sequence : public testing::Test {
 protected:
    void SetUp() override {
        for (const char* name : {"data/f0.ppm", "data/f1.ppm", "data/f2.ppm"}) folder.write(name, halves());
        folder.write("data/notes.txt", "not a frame");
        int nl0, nr0, nr1, nl1;
        const std::string l0 = points(1, 9, 0, nl0), r0 = points(14, 22, 0, nr0), r1 = points(14, 22, 1, nr1),
                          l1 = points(1, 9, 1, nl1);
        folder.write("tracks/t.dat",
                     "3 3\n"
                     "5 " +
                         std::to_string(nl0) + "\n" + l0 + "7 " + std::to_string(nr0 + nr1) + "\n" + r0 + r1 + "5 " +
                         std::to_string(nl1) + "\n" + l1);
        folder.write("cfg",
                     "s dataDir data\ns tracksDir tracks\ns resultDir out # results\nf lambda 5\ni maxiter 200\n");
    }

    void expectHalves(const std::string& path) {
        SCOPED_TRACE(path);
        const Picture p = readPpm(path);
        ASSERT_EQ(p.w, kW);
        ASSERT_EQ(p.h, kH);
        for (int y = 0; y < kH; ++y) {
            for (int x = 0; x < kW; ++x) {
                const Rgb c = p.at(x, y);
                ASSERT_TRUE(c == kColour5 || c == kColour7) << x << ", " << y << ": " << c;
                if (x <= 9) {
                    EXPECT_EQ(c, kColour5) << x << ", " << y;
                }
                if (x >= 14) {
                    EXPECT_EQ(c, kColour7) << x << ", " << y;
                }
            }
        }
    }

    ScratchFolder folder{"sequence"};
};

TEST_F(Sequence, WholeFolderSegmentsEveryFrameAndExportsTheTracks) {
    const ProgramRun run = runProgram(folder.str(), {"cfg", "f0.ppm", "t.dat", "-1", "run/one"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(withoutTimers(run.out),
              "processing 0th frame: out/run/one/f0\n"
              "number of different labels in this frame: 2\n"
              "processing 1th frame: out/run/one/f1\n"
              "number of different labels in this frame: 2\n"
              "write track file: out/run/one/t.dat\n");
    EXPECT_NE(run.out.find("PDseg::run()"), std::string::npos);
    EXPECT_EQ(run.err, "");

    const std::string results = folder / "out/run/one/";
    // Label 5 keeps its colour in frame 1, where it is met second.
    expectHalves(results + "f0_dense.ppm");
    expectHalves(results + "f1_dense.ppm");
    EXPECT_FALSE(fs::exists(results + "f2_dense.ppm"));
    EXPECT_FALSE(fs::exists(results + "f2_overlay.ppm"));
    EXPECT_TRUE(partialFiles(results).empty());

    // The overlay is 40 % label colour over 60 % image.
    const Picture overlay = readPpm(results + "f1_overlay.ppm");
    const Rgb expected[] = {{120, 126, 126}, {96, 24, 120}};
    for (int side = 0; side < 2; ++side) {
        const Rgb c = overlay.at(side == 0 ? 2 : 20, 2);
        EXPECT_NEAR(c.r, expected[side].r, 1);
        EXPECT_NEAR(c.g, expected[side].g, 1);
        EXPECT_NEAR(c.b, expected[side].b, 1);
    }

    // One track per pixel and dense file, labelled 0 for the colour met
    // first (label 5's, at pixel 0, 0 of f0) and 1 for the other.
    const Picture f0 = readPpm(results + "f0_dense.ppm"), f1 = readPpm(results + "f1_dense.ppm");
    std::string tracks = "2\n" + std::to_string(2 * kW * kH) + "\n";
    for (int f = 0; f < 2; ++f)
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x)
                tracks += std::string((f == 0 ? f0 : f1).at(x, y) == kColour5 ? "0" : "1") + " 1\n" +
                          std::to_string(x) + " " + std::to_string(y) + " " + std::to_string(f) + "\n";
    EXPECT_EQ(readFile(results + "t.dat"), tracks);
}

TEST_F(Sequence, OneFrameTakesTheLeadingDigitsOfItsIndex) {
    const ProgramRun run = runProgram(folder.str(), {"cfg", "f0.ppm", "t.dat", "1abc", "single"});
    ASSERT_EQ(run.status, 0) << run.err;
    // The image given is segmented with the points of frame 1.
    EXPECT_EQ(withoutTimers(run.out),
              "processing 1th frame: out/single/f0\n"
              "number of different labels in this frame: 2\n");
    expectHalves(folder / "out/single/f0_dense.ppm");
    EXPECT_TRUE(fs::exists(folder / "out/single/f0_overlay.ppm"));

    // A frame without points writes nothing and says nothing.
    const ProgramRun empty = runProgram(folder.str(), {"cfg", "f2.ppm", "t.dat", "2", "single"});
    EXPECT_EQ(empty.status, 0) << empty.err;
    EXPECT_EQ(empty.out, "");
    EXPECT_FALSE(fs::exists(folder / "out/single/f2_dense.ppm"));
}

TEST_F(Sequence, AFrameOfAnotherSizeStopsTheRunBeforeItIsWritten) {
    folder.write("data/f3.ppm", halves(kW, kH + 2));
    const ProgramRun run = runProgram(folder.str(), {"cfg", "f0.ppm", "t.dat", "-1", "sizes"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("image data//f3.ppm is 24 x 18 pixels"), std::string::npos) << run.err;
    EXPECT_TRUE(fs::exists(folder / "out/sizes/f1_dense.ppm"));
    EXPECT_FALSE(fs::exists(folder / "out/sizes/f3_dense.ppm"));
    EXPECT_FALSE(fs::exists(folder / "out/sizes/t.dat"));
}

TEST_F(Sequence, InputsAreNeverReplaced) {
    // The data folder is the result folder, and one frame is named like the
    // dense result of another.
    folder.write("cfg", "s dataDir data\ns tracksDir tracks\ns resultDir -\nf lambda 5\ni maxiter 10\n");
    const std::string frame = folder.write("data/f0_dense.ppm", halves());
    const ProgramRun run = runProgram(folder.str(), {"cfg", "f0.ppm", "t.dat", "-1", "data"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("data/f0_dense.ppm would replace an input file"), std::string::npos) << run.err;
    EXPECT_EQ(readFile(frame), halves());
    EXPECT_FALSE(fs::exists(folder / "data/f1_dense.ppm"));
}

TEST_F(Sequence, ConfigurationAndImageErrorsEndTheRun) {
    const ProgramRun noConfig = runProgram(folder.str(), {"absent.cfg", "f0.ppm", "t.dat", "0", "x"});
    EXPECT_EQ(noConfig.status, 255);
    EXPECT_EQ(noConfig.out, "Input Format- <i|f|c|s> <key> <value>, use # for comments\n");

    const ProgramRun noImage = runProgram(folder.str(), {"cfg", "absent.ppm", "t.dat", "0", "x"});
    EXPECT_EQ(noImage.status, 1);
    EXPECT_NE(noImage.err.find("data/absent.ppm"), std::string::npos) << noImage.err;

    const ProgramRun noFrames = runProgram(folder.str(), {"cfg", "f0.png", "t.dat", "-1", "x"});
    EXPECT_EQ(noFrames.status, 1);
    EXPECT_NE(noFrames.err.find("no image matches data//*.png"), std::string::npos) << noFrames.err;
}

}  // namespace
