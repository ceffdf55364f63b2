#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "src/tracks.h"
#include "tests/driver/test_files.h"

namespace {

using driver_test::ScratchFolder;

// A host label image filled with -1, as the frame loop hands it over.
class LabelImage {
   public:
    LabelImage(int w, int h) {
        a_ = vela::internal::decreaseArrayDimension<float, 4, 2>(
            vela::mallocHostArray<float>(make_uint4(w, h, 1, 1), vela::LINEAR_LAYOUT));
        for (int i = 0; i < w * h; ++i) a_.data[i] = -1.0f;
    }
    ~LabelImage() { vela::freeArray(a_); }
    vela::Array<float, 2>& array() { return a_; }
    float at(int x, int y) const { return a_.data[y * static_cast<int>(a_.extents.x) + x]; }
    int labelled() const {
        int n = 0;
        for (unsigned i = 0; i < a_.extents.x * a_.extents.y; ++i) n += a_.data[i] != -1.0f;
        return n;
    }

   private:
    vela::Array<float, 2> a_;
};

struct Read {
    int count;
    std::vector<int> ids;
    std::string out, err;
};

Read readFrame(const std::string& path, unsigned frame, LabelImage& labels, int w, int h) {
    Read r;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    r.count = readTrackFrame(path, frame, w, h, labels.array(), r.ids);
    r.err = testing::internal::GetCapturedStderr();
    r.out = testing::internal::GetCapturedStdout();
    return r;
}

TEST(TrackFile, PicksThePointsOfOneFrame) {
    ScratchFolder folder("tracks");
    const std::string path = folder.write("t.dat", "2 2\n5 2\n10.5 20 0\n11 21 1\n9 1\n40 8 1\n");
    LabelImage f0(64, 32), f1(64, 32);
    const Read r0 = readFrame(path, 0, f0, 64, 32);
    EXPECT_EQ(r0.count, 1);
    EXPECT_EQ(r0.ids, std::vector<int>({5}));
    EXPECT_EQ(f0.at(10, 20), 0.0f);
    EXPECT_EQ(f0.labelled(), 1);

    const Read r1 = readFrame(path, 1, f1, 64, 32);
    EXPECT_EQ(r1.count, 2);
    EXPECT_EQ(r1.ids, std::vector<int>({5, 9}));
    EXPECT_EQ(f1.at(11, 21), 0.0f);
    EXPECT_EQ(f1.at(40, 8), 1.0f);
    EXPECT_EQ(f1.labelled(), 2);
    EXPECT_EQ(r1.out + r1.err, "");
}

TEST(TrackFile, NumbersLabelsInTheOrderFirstMetAndTruncatesCoordinates) {
    ScratchFolder folder("tracks");
    const std::string path = folder.write("t.dat",
                                          "1 5\n"
                                          "7 1 10.9 20.2 0\n"
                                          "3 1 2 2 0\n"
                                          "7 1 5 5 0\n"
                                          "12 1 6 6 0\n"
                                          "3 1 10.1 20.9 0\n");  // the same pixel as the first point: wins
    LabelImage labels(32, 32);
    const Read r = readFrame(path, 0, labels, 32, 32);
    EXPECT_EQ(r.count, 3);
    EXPECT_EQ(r.ids, std::vector<int>({7, 3, 12}));
    EXPECT_EQ(labels.at(10, 20), 1.0f);
    EXPECT_EQ(labels.at(2, 2), 1.0f);
    EXPECT_EQ(labels.at(5, 5), 0.0f);
    EXPECT_EQ(labels.at(6, 6), 2.0f);
    EXPECT_EQ(labels.labelled(), 4);
}

TEST(TrackFile, RejectsPointsOnRowOrColumnZeroAndOutsideTheImage) {
    ScratchFolder folder("tracks");
    // Inside by a hair counts: 0.5 lies in column 0 but is above 0.
    const std::string path = folder.write("t.dat",
                                          "1 1\n4 7\n"
                                          "0 5 0\n5 0 0\n-1 5 0\n16 5 0\n5 8 0\n15.99 7.99 0\n0.5 0.5 0\n");
    LabelImage labels(16, 8);
    const Read r = readFrame(path, 0, labels, 16, 8);
    EXPECT_EQ(r.count, 1);
    EXPECT_EQ(labels.at(15, 7), 0.0f);
    EXPECT_EQ(labels.at(0, 0), 0.0f);
    EXPECT_EQ(labels.labelled(), 2);

    const std::string edgeOnly = folder.write("e.dat", "1 1\n4 3\n0 5 0\n5 0 0\n16 5 0\n");
    LabelImage none(16, 8);
    const Read e = readFrame(edgeOnly, 0, none, 16, 8);
    EXPECT_EQ(e.count, 0);
    EXPECT_TRUE(e.ids.empty());
    EXPECT_EQ(none.labelled(), 0);
    EXPECT_EQ(e.out + e.err, "");
}

TEST(TrackFile, FramesOutsideTheFileAndMissingFilesGiveMinusOne) {
    ScratchFolder folder("tracks");
    // Everything after the frame count is never read for such frames.
    const std::string path = folder.write("t.dat", "3 junk that is never read");
    LabelImage labels(8, 8);
    for (unsigned frame : {3u, 4u}) {
        const Read r = readFrame(path, frame, labels, 8, 8);
        EXPECT_EQ(r.count, kNoTrackFrame) << frame;
        EXPECT_EQ(r.out + r.err, "");
    }
    const Read missing = readFrame(folder / "absent.dat", 0, labels, 8, 8);
    EXPECT_EQ(missing.count, kNoTrackFrame);
    EXPECT_EQ(missing.out, "File " + (folder / "absent.dat") + " not found.\n");
    EXPECT_EQ(labels.labelled(), 0);
}

TEST(TrackFile, ZeroAndNegativeCountsHoldNothing) {
    ScratchFolder folder("tracks");
    LabelImage labels(8, 8);
    EXPECT_EQ(readFrame(folder.write("a.dat", "1 0\n"), 0, labels, 8, 8).count, 0);
    EXPECT_EQ(readFrame(folder.write("b.dat", "1 -4\n"), 0, labels, 8, 8).count, 0);
    EXPECT_EQ(readFrame(folder.write("c.dat", "1 2\n3 -1\n4 1 2 2 0\n"), 0, labels, 8, 8).count, 1);
}

TEST(TrackFile, MalformedOrShortFilesAreReportedWithTheirPlace) {
    ScratchFolder folder("tracks");
    struct Case {
        std::string contents;
        const char* where;
    } cases[] = {
        {"", "frame count: the file ends"},
        {"x", "frame count: \"x\" is not an integer"},
        {"2", "track count: the file ends"},
        {"2 1.5", "track count: \"1.5\" is not an integer"},
        {"2 2\n1 1 3 3 0\n", "track 2 of 2: label: the file ends"},
        {"2 1\n1 2 3.5 3.5 0 4.5 4.5", "track 1 of 1, point 2 of 2: the file ends"},
        {"2 1\n1 2 3 3 0 4 four 0 ", "track 1 of 1, point 2 of 2: \"four\" is not a number"},
        {"2 1\n1 1 3 3 0.0 ", "track 1 of 1, point 1 of 1: \"0.0\" is not an integer"},
        {"2 1\n1 1 0x3 3 0 ", "\"0x3\" is not a number"},
        {"2 1\n1 1 nan 3 0 ", "\"nan\" is not a number"},
        {"2 1\n1 1 3 3 99999999999 ", "is not an integer in range"},
        {std::string("2 1\n1 1 3\0 3 0 ", 15), "is not a number"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.contents);
        const std::string path = folder.write("t.dat", c.contents);
        LabelImage labels(8, 8);
        const Read r = readFrame(path, 0, labels, 8, 8);
        EXPECT_EQ(r.count, kNoTrackFrame);
        EXPECT_NE(r.err.find("track file " + path + ": "), std::string::npos) << r.err;
        EXPECT_NE(r.err.find(c.where), std::string::npos) << r.err;
        EXPECT_NE(r.err.find("frame 0 skipped"), std::string::npos) << r.err;
    }
}

TEST(TrackFile, HugeCountsAreRefusedAtOnce) {
    ScratchFolder folder("tracks");
    LabelImage labels(8, 8);
    const auto start = std::chrono::steady_clock::now();
    const Read tracks = readFrame(folder.write("a.dat", "1 2147483647\n1 1 2 2 0\n"), 0, labels, 8, 8);
    EXPECT_EQ(tracks.count, kNoTrackFrame);
    EXPECT_NE(tracks.err.find("track count 2147483647 is more than the rest of the file can hold"),
              std::string::npos);
    const Read points = readFrame(folder.write("b.dat", "1 1\n1 2147483647\n2 2 0\n"), 0, labels, 8, 8);
    EXPECT_EQ(points.count, kNoTrackFrame);
    EXPECT_NE(points.err.find("track 1 of 1: point count 2147483647 is more"), std::string::npos);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST(TrackFile, LabelsWithoutAPaletteColourAreRefusedOnlyWhereUsed) {
    ScratchFolder folder("tracks");
    const std::string path = folder.write("t.dat", "2 3\n99 1 2 2 0\n150 1 3 3 1\n-1 1 4 4 0\n");
    LabelImage f0(8, 8), f1(8, 8);
    const Read r0 = readFrame(path, 0, f0, 8, 8);
    EXPECT_EQ(r0.count, kNoTrackFrame);
    EXPECT_NE(r0.err.find("track 3 of 3, point 1 of 1: label -1 is outside 0 to 99"), std::string::npos) << r0.err;
    const Read r1 = readFrame(path, 1, f1, 8, 8);
    EXPECT_EQ(r1.count, kNoTrackFrame);
    EXPECT_NE(r1.err.find("label 150 is outside 0 to 99"), std::string::npos) << r1.err;

    // The same labels on points of other frames are never used.
    const std::string other = folder.write("o.dat", "3 2\n150 1 3 3 1\n99 1 2 2 2\n");
    LabelImage f2(8, 8);
    EXPECT_EQ(readFrame(other, 2, f2, 8, 8).ids, std::vector<int>({99}));
}

// Damaged copies of a valid file: every outcome is a count or -1, and only
// pixels of the image are written with valid indices.
TEST(TrackFile, SurvivesDamagedFiles) {
    ScratchFolder folder("tracks");
    const std::string valid = "3 4\n1 3 2.5 3.5 0 4 4 1 5 5 2\n2 2 6 6 0 7 7 1\n1 1 3 6 2\n4 2 1 1 0 9 9 0\n";
    std::uint64_t state = 12345;
    auto next = [&] {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<unsigned>(state >> 33);
    };
    const char alphabet[] = "0123456789 \n.-+eE9x";
    for (int i = 0; i < 400; ++i) {
        std::string text = valid;
        const int edits = 1 + next() % 4;
        for (int e = 0; e < edits; ++e) {
            const std::size_t at = next() % text.size();
            switch (next() % 3) {
                case 0: text[at] = alphabet[next() % (sizeof alphabet - 1)]; break;
                case 1: text.erase(at, 1 + next() % 3); break;
                default: text.insert(at, 1, alphabet[next() % (sizeof alphabet - 1)]); break;
            }
            if (text.empty()) text = "1";
        }
        if (next() % 4 == 0) text.resize(next() % text.size());
        const std::string path = folder.write("t.dat", text);
        for (unsigned frame = 0; frame < 3; ++frame) {
            LabelImage labels(8, 8);
            const Read r = readFrame(path, frame, labels, 8, 8);
            ASSERT_GE(r.count, -1) << text;
            if (r.count >= 0) {
                EXPECT_EQ(static_cast<int>(r.ids.size()), r.count) << text;
            }
            for (int y = 0; y < 8; ++y)
                for (int x = 0; x < 8; ++x) {
                    const float v = labels.at(x, y);
                    EXPECT_TRUE(v == -1.0f || (v >= 0.0f && v < static_cast<float>(r.ids.size()) + 0.5f)) << text;
                }
        }
    }
}

}  // namespace
