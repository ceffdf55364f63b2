#include "src/tracks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/driver/test_files.h"

namespace {

using driver_test::ScratchFolder;

// Reads one frame into a fresh W x H label image filled with -1, capturing
// what the reader prints.
struct Frame {
    Frame(const std::string& path, unsigned frame, int w = 16, int h = 8) : w(w) {
        auto a = vela::mallocHostArray<float>(make_uint4(w, h, 1, 1), vela::LINEAR_LAYOUT);
        labels = vela::internal::decreaseArrayDimension<float, 4, 2>(a);
        for (int i = 0; i < w * h; ++i) labels.data[i] = -1.0f;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        count = readTrackFrame(path, frame, w, h, labels, ids);
        err = testing::internal::GetCapturedStderr();
        out = testing::internal::GetCapturedStdout();
    }
    ~Frame() { vela::freeArray(labels); }
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;
    float at(int x, int y) const { return labels.data[y * w + x]; }
    int labelled() const {
        int n = 0;
        for (unsigned i = 0; i < labels.extents.x * labels.extents.y; ++i) n += labels.data[i] != -1.0f;
        return n;
    }

    int w;
    vela::Array<float, 2> labels;
    int count;
    std::vector<int> ids;
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
    EXPECT_EQ(f0.at(10, 5), 1.0f);  // coordinates are truncated
    EXPECT_EQ(f0.at(2, 2), 1.0f);
    EXPECT_EQ(f0.at(5, 5), 0.0f);
    EXPECT_EQ(f0.at(6, 6), 2.0f);
    EXPECT_EQ(f0.labelled(), 4);

    const Frame f1(path, 1);
    EXPECT_EQ(f1.count, 2);
    EXPECT_EQ(f1.ids, std::vector<int>({7, 9}));
    EXPECT_EQ(f1.at(11, 6), 0.0f);
    EXPECT_EQ(f1.labelled(), 2);
    EXPECT_EQ(f0.out + f0.err + f1.out + f1.err, "");
}

TEST(TrackFile, KeepsOnlyPointsStrictlyInsideTheImage) {
    ScratchFolder folder("tracks");
    const Frame inside(
        folder.write("a.dat", "1 1\n4 7\n0 5 0\n5 0 0\n-1 5 0\n16 5 0\n5 8 0\n15.99 7.99 0\n0.5 0.5 0\n"), 0);
    EXPECT_EQ(inside.count, 1);
    EXPECT_EQ(inside.at(15, 7), 0.0f);
    EXPECT_EQ(inside.at(0, 0), 0.0f);  // above 0, though in column and row 0
    EXPECT_EQ(inside.labelled(), 2);

    // Only points on row 0, column 0 or outside: no label, no message.
    const Frame none(folder.write("b.dat", "1 1\n4 3\n0 5 0\n5 0 0\n16 5 0\n"), 0);
    EXPECT_EQ(none.count, 0);
    EXPECT_EQ(none.labelled(), 0);
    EXPECT_EQ(none.out + none.err, "");
}

TEST(TrackFile, FramesOutsideTheFileMissingFilesAndEmptyCounts) {
    ScratchFolder folder("tracks");
    // Nothing after the frame count is read for frames outside it.
    const std::string path = folder.write("t.dat", "3 junk");
    for (unsigned frame : {3u, 4u}) {
        const Frame f(path, frame);
        EXPECT_EQ(f.count, kNoTrackFrame);
        EXPECT_EQ(f.out + f.err, "");
    }
    const Frame missing(folder / "absent.dat", 0);
    EXPECT_EQ(missing.count, kNoTrackFrame);
    EXPECT_EQ(missing.out, "File " + (folder / "absent.dat") + " not found.\n");

    EXPECT_EQ(Frame(folder.write("a.dat", "1 0\n"), 0).count, 0);
    EXPECT_EQ(Frame(folder.write("b.dat", "1 -4\n"), 0).count, 0);
    EXPECT_EQ(Frame(folder.write("c.dat", "1 2\n3 -1\n4 1 2 2 0\n"), 0).count, 1);
}

TEST(TrackFile, ReportsMalformedAndShortFilesWithTheirPlace) {
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
        EXPECT_EQ(f.labelled(), 0);
        EXPECT_TRUE(f.ids.empty());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST(TrackFile, RefusesLabelsWithoutAPaletteColourWhereTheyAreUsed) {
    ScratchFolder folder("tracks");
    const std::string path = folder.write("t.dat", "3 4\n99 1 2 2 0\n150 1 3 3 1\n-1 1 4 4 0\n99 1 2 2 2\n");
    const Frame f0(path, 0);
    EXPECT_EQ(f0.count, kNoTrackFrame);
    EXPECT_NE(f0.err.find("track 3 of 4, point 1 of 1: label -1 is outside 0 to 99"), std::string::npos) << f0.err;
    const Frame f1(path, 1);
    EXPECT_EQ(f1.count, kNoTrackFrame);
    EXPECT_NE(f1.err.find("label 150 is outside 0 to 99"), std::string::npos) << f1.err;
    // Labels on points of other frames are never used.
    EXPECT_EQ(Frame(path, 2).ids, std::vector<int>({99}));
}

// Damaged copies of a valid file: every outcome is a count or -1, only
// pixels of the image receive indices of listed labels, and a refused file
// leaves no label behind.
TEST(TrackFile, SurvivesDamagedFiles) {
    ScratchFolder folder("tracks");
    const std::string valid = "3 4\n1 3 2.5 3.5 0 4 4 1 5 5 2\n2 2 6 6 0 7 7 1\n1 1 3 6 2\n4 2 1 1 0 9 7 0\n";
    std::uint64_t state = 12345;
    auto next = [&] {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<unsigned>(state >> 33);
    };
    const std::string alphabet = "0123456789 \n.-+eEx";
    for (int i = 0; i < 400; ++i) {
        std::string text = valid;
        for (unsigned e = 0, edits = 1 + next() % 4; e < edits && !text.empty(); ++e) {
            const std::size_t at = next() % text.size();
            const char c = alphabet[next() % alphabet.size()];
            switch (next() % 3) {
                case 0:
                    text[at] = c;
                    break;
                case 1:
                    text.erase(at, 1 + next() % 3);
                    break;
                default:
                    text.insert(at, 1, c);
                    break;
            }
        }
        if (!text.empty() && next() % 4 == 0) text.resize(next() % text.size());
        const std::string path = folder.write("t.dat", text);
        for (unsigned frame = 0; frame < 3; ++frame) {
            const Frame f(path, frame, 8, 8);
            ASSERT_GE(f.count, -1) << text;
            ASSERT_EQ(static_cast<int>(f.ids.size()), std::max(f.count, 0)) << text;
            for (int p = 0; p < 64; ++p) {
                const float v = f.labels.data[p];
                ASSERT_TRUE(v == -1.0f || (v >= 0.0f && v < static_cast<float>(f.ids.size()))) << text;
            }
        }
    }
}

}  // namespace
