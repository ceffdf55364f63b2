#include "src/propagate/track_recorder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "src/driver/tracks.h"
#include "tests/support/scratch_folder.h"

namespace {

using propagate::TrackRecorder;
using testsupport::readFile;
using testsupport::ScratchFolder;

// Three tracks whose points interleave as frames go by; batches of two points
// make the file's assembly read the scratch file once per track or two.
TEST(TrackRecorder, WritesEveryTrackWithItsFinalLabelInAnyBatchSizeAndLeavesNoScratch) {
    for (const std::size_t batch : {std::size_t(2), std::size_t(1) << 18}) {
        ScratchFolder folder("recorder");
        {
            TrackRecorder recorder(folder / "tracks.dat", batch);
            const int a = recorder.newTrack(1), b = recorder.newTrack(-1);
            recorder.addPoint(a, 1.5f, 2.25f, 0);
            recorder.addPoint(b, 3.0f, 4.0f, 0);
            const int c = recorder.newTrack(2);
            recorder.addPoint(a, 2.5f, 2.25f, 1);
            recorder.addPoint(c, 7.125f, 8.0f, 1);
            recorder.addPoint(b, 3.5f, 4.0f, 1);
            recorder.addPoint(a, 3.5f, 2.25f, 2);
            recorder.setLabel(b, 3);
            recorder.write(3);
        }
        EXPECT_EQ(readFile(folder / "tracks.dat"),
                  "3\n3\n"
                  "1 3\n1.50 2.25 0\n2.50 2.25 1\n3.50 2.25 2\n"
                  "3 2\n3.00 4.00 0\n3.50 4.00 1\n"
                  "2 1\n7.12 8.00 1\n")
            << "batch " << batch;
        // The program's own reader takes it, and only the track file is left.
        std::vector<TrackPoints> tracks;
        std::string problem;
        int frames = 0;
        EXPECT_TRUE(readTracks(folder / "tracks.dat", tracks, problem, frames)) << problem;
        EXPECT_EQ(frames, 3);
        std::size_t files = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder.str())) ++files;
        EXPECT_EQ(files, 1u);
    }
}

TEST(TrackRecorder, AnUnlabelledTrackIsWrittenAsBackgroundAndAnUnwrittenRunLeavesNothing) {
    ScratchFolder folder("recorder");
    {
        TrackRecorder recorder(folder / "tracks.dat");
        recorder.addPoint(recorder.newTrack(-1), 1.0f, 1.0f, 0);
        recorder.write(1);
    }
    EXPECT_EQ(readFile(folder / "tracks.dat"), "1\n1\n0 1\n1.00 1.00 0\n");
    {
        TrackRecorder abandoned(folder / "other.dat");
        abandoned.addPoint(abandoned.newTrack(1), 1.0f, 1.0f, 0);
    }
    EXPECT_FALSE(std::filesystem::exists(folder / "other.dat"));
    std::size_t files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder.str())) ++files;
    EXPECT_EQ(files, 1u);
}

}  // namespace
