#include "src/driver/tracks.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/scratch_folder.h"

namespace {

using testsupport::ScratchFolder;
using Marks = std::map<std::pair<int, int>, float>;

// Reads one frame into a fresh 16 x 8 label image filled with -1, capturing
// what the reader prints.  Damaged files at large are left to the fuzz replay.
struct Frame {
    Frame(const std::string& path, unsigned frame)
        : Frame(frame, [&](auto& labels, auto& ids) { return readTrackFrame(path, frame, 16, 8, labels, ids); }) {}
    // The same from a track file read once.
    Frame(const TrackFile& file, unsigned frame)
        : Frame(frame, [&](auto& labels, auto& ids) { return file.frame(frame, 16, 8, labels, ids); }) {}
    template <class Read>
    Frame(unsigned, Read read) {
        std::vector<float> pixels(16 * 8, -1.0f);
        auto labels = vela::arrayFromHostMemory(pixels.data(), make_uint2(16, 8));
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        count = read(labels, ids);
        err = testing::internal::GetCapturedStderr();
        out = testing::internal::GetCapturedStdout();
        for (int i = 0; i < 16 * 8; ++i)
            if (pixels[i] != -1.0f) marks[{i % 16, i / 16}] = pixels[i];
    }

    int count;
    std::vector<int> ids;
    Marks marks;  // the labelled pixels: (x, y) -> label index
    std::string out, err;
};

TEST(TrackFile, NumbersTheLabelsOfOneFrameInTheOrderFirstMet) {
    ScratchFolder folder("tracks");
    const std::string path = folder.write("t.dat",
                                          "2 6\n"
                                          "7 2 10.9 5.2 0 11 6 1\n"
                                          "3 1 2 2 0\n"
                                          "7 1 5 5 0\n"
                                          "12 1 6 6 0\n"
                                          "3 1 10.1 5.9 0\n"  // the pixel of the first point: the later point wins
                                          "9 1 4 4 1\n");
    const Frame f0(path, 0);
    EXPECT_EQ(f0.count, 3);
    EXPECT_EQ(f0.ids, std::vector<int>({7, 3, 12}));
    // Coordinates are truncated.
    EXPECT_EQ(f0.marks, Marks({{{10, 5}, 1.0f}, {{2, 2}, 1.0f}, {{5, 5}, 0.0f}, {{6, 6}, 2.0f}}));

    const Frame f1(path, 1);
    EXPECT_EQ(f1.count, 2);
    EXPECT_EQ(f1.ids, std::vector<int>({7, 9}));
    EXPECT_EQ(f1.marks, Marks({{{11, 6}, 0.0f}, {{4, 4}, 1.0f}}));
    EXPECT_EQ(f0.out + f0.err + f1.out + f1.err, "");
}

// A video's tracks read once: each frame's seeds as the per-frame reader gives
// them, and the motion of the tracks inside the image in both frames.
TEST(TrackFile, HeldInMemoryGivesEachFramesSeedsAndTheMotionBetweenFrames) {
    ScratchFolder folder("tracks");
    const std::string path = folder.write("t.dat",
                                          "3 5\n"
                                          "7 3 10.9 5.2 0 11 6 1 12.5 6.5 2\n"
                                          "3 2 2 2 0 0 3 1\n"  // leaves the image (column 0) in frame 1
                                          "7 1 5 5 0\n"
                                          "12 2 6 6 1 7 6 2\n"
                                          "3 2 10.1 5.9 0 15.99 7.99 2\n");
    std::vector<TrackPoints> tracks;
    std::string problem;
    int frameCount = 0;
    ASSERT_TRUE(readTracks(path, tracks, problem, frameCount)) << problem;
    EXPECT_EQ(frameCount, 3);
    ASSERT_EQ(tracks.size(), 5u);
    const TrackFile held(path);
    EXPECT_EQ(held.tracks().size(), 5u);
    for (unsigned int frame = 0; frame < 4; ++frame) {
        const Frame fromFile(path, frame), fromMemory(held, frame);
        EXPECT_EQ(fromMemory.count, fromFile.count) << "frame " << frame;
        EXPECT_EQ(fromMemory.ids, fromFile.ids) << "frame " << frame;
        EXPECT_EQ(fromMemory.marks, fromFile.marks) << "frame " << frame;
        std::vector<float> pixels(16 * 8, -1.0f);
        auto labels = vela::arrayFromHostMemory(pixels.data(), make_uint2(16, 8));
        std::vector<int> ids;
        EXPECT_EQ(seedsOfTracks(tracks, frame, 16, 8, labels, ids), std::max(fromFile.count, 0)) << "frame " << frame;
    }
    // A file it cannot hold is read for every frame, which reports it as before.
    for (const char* contents : {"2 1\n100 1 5 5 1\n", "2 2\n4 1 5 5 0\n"}) {
        const std::string bad = folder.write("unheld.dat", contents);
        const TrackFile unheld(bad);
        EXPECT_TRUE(unheld.tracks().empty());
        for (unsigned int frame = 0; frame < 2; ++frame) {
            const Frame fromFile(bad, frame), fromMemory(unheld, frame);
            EXPECT_EQ(fromMemory.count, fromFile.count);
            EXPECT_EQ(fromMemory.err, fromFile.err);
        }
    }

    EXPECT_TRUE(motionOfTracks(tracks, 0, 16, 8).empty());
    const auto m1 = motionOfTracks(tracks, 1, 16, 8);
    ASSERT_EQ(m1.size(), 1u);  // label 3 left the image
    EXPECT_EQ(std::vector<float>({m1[0].x, m1[0].y, m1[0].fromX, m1[0].fromY}),
              std::vector<float>({11, 6, 10.9f, 5.2f}));
    EXPECT_EQ(m1[0].label, 7);
    const auto m2 = motionOfTracks(tracks, 2, 16, 8);
    ASSERT_EQ(m2.size(), 2u);
    EXPECT_EQ(m2[1].label, 12);
    EXPECT_EQ(m2[1].fromX, 6.0f);

    EXPECT_FALSE(readTracks(folder.write("bad.dat", "1 1\n4 2 1 1 0\n"), tracks, problem, frameCount));
    EXPECT_FALSE(problem.empty());
    EXPECT_FALSE(readTracks(folder / "missing.dat", tracks, problem, frameCount));
}

TEST(TrackFile, KeepsOnlyPointsStrictlyInsideTheImage) {
    ScratchFolder folder("tracks");
    const Frame inside(
        folder.write("a.dat", "1 1\n4 7\n0 5 0\n5 0 0\n-1 5 0\n16 5 0\n5 8 0\n15.99 7.99 0\n0.5 0.5 0\n"), 0);
    EXPECT_EQ(inside.count, 1);
    // (0.5, 0.5) is above 0, though in column and row 0.
    EXPECT_EQ(inside.marks, Marks({{{15, 7}, 0.0f}, {{0, 0}, 0.0f}}));
}

TEST(TrackFile, FramesOutsideTheFileMissingFilesAndEmptyCounts) {
    ScratchFolder folder("tracks");
    // Nothing after the frame count is read for frames outside it.
    for (unsigned frame : {3u, 4u}) {
        const Frame f(folder.write("t.dat", "3 junk"), frame);
        EXPECT_EQ(f.count, kNoTrackFrame);
        EXPECT_EQ(f.out + f.err, "");
    }
    const Frame missing(folder / "absent.dat", 0);
    EXPECT_EQ(missing.count, kNoTrackFrame);
    EXPECT_EQ(missing.out, "File " + (folder / "absent.dat") + " not found.\n");

    // Empty or negative counts, or points only on row 0, column 0 or outside.
    for (const char* contents : {"1 0\n", "1 -4\n", "1 1\n4 3\n0 5 0\n5 0 0\n16 5 0\n"}) {
        const Frame f(folder.write("e.dat", contents), 0);
        EXPECT_TRUE(f.count == 0 && f.marks.empty() && f.out + f.err == "") << contents;
    }
    EXPECT_EQ(Frame(folder.write("c.dat", "1 2\n3 -1\n4 1 2 2 0\n"), 0).count, 1);
}

// Each refusal names the file and the place, and leaves no label behind.
TEST(TrackFile, ReportsMalformedFilesAndUnusableLabelsWithTheirPlace) {
    ScratchFolder folder("tracks");
    const std::pair<std::string, const char*> cases[] = {
        {"", "frame count: the file ends"},
        {"2 1.5", "track count: \"1.5\" is not an integer"},
        {"2 2\n1 1 3 3 0\n", "track 2 of 2: label: the file ends"},
        {"2 2\n1 1 3 3 0\n2 2 3.5 3.5 0 4.5 4.5", "track 2 of 2, point 2 of 2: the file ends"},
        {"2 1\n1 2 3 3 0 4 four 0 ", "track 1 of 1, point 2 of 2: \"four\" is not a number"},
        {"2 1\n1 1 3 3 0.0 ", "point 1 of 1: \"0.0\" is not an integer"},
        {"2 1\n1 1 0x3 3 0 ", "\"0x3\" is not a number"},
        {"2 1\n1 1 3 3 99999999999 ", "is not an integer in range"},
        {std::string("2 1\n1 1 3\0 3 0 ", 15), "is not a number"},
        // Counts the rest of the file cannot hold are refused before any loop.
        {"1 2147483647\n1 1 2 2 0\n", "track count 2147483647 is more than the rest of the file can hold"},
        {"1 1\n1 2147483647\n2 2 0\n", "track 1 of 1: point count 2147483647 is more"},
        // Labels need a palette colour where their points are used.
        {"3 4\n99 1 2 2 0\n150 1 3 3 1\n-1 1 4 4 0\n", "track 3 of 4, point 1 of 1: label -1 is outside 0 to 99"},
        {"1 1\n100 1 3 3 0\n", "label 100 is outside 0 to 99"},
    };
    const auto start = std::chrono::steady_clock::now();
    for (const auto& [contents, where] : cases) {
        SCOPED_TRACE(contents);
        const std::string path = folder.write("t.dat", contents);
        const Frame f(path, 0);
        EXPECT_EQ(f.count, kNoTrackFrame);
        EXPECT_NE(f.err.find("track file " + path + ": "), std::string::npos) << f.err;
        EXPECT_NE(f.err.find(where), std::string::npos) << f.err;
        EXPECT_NE(f.err.find("frame 0 skipped"), std::string::npos) << f.err;
        EXPECT_TRUE(f.marks.empty() && f.ids.empty());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    // Labels on points of other frames are never used.
    EXPECT_EQ(Frame(folder.write("t.dat", "3 2\n150 1 3 3 1\n99 1 2 2 0\n"), 0).ids, std::vector<int>({99}));
}

}  // namespace
