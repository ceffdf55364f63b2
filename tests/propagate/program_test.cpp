// The propagation program run as its own process on small videos: a
// textured object moving over a textured background.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "image/png_file.h"
#include "src/driver/tracks.h"
#include "tests/support/run_program.h"
#include "tests/support/scratch_folder.h"

namespace {

namespace fs = std::filesystem;
using testsupport::Output;
using testsupport::readFile;
using testsupport::ScratchFolder;

constexpr int kW = 48, kH = 36, kFrames = 6, kSide = 14;

Output runProgram(const std::string& folder, const std::vector<std::string>& args) {
    return testsupport::runProgram(PROPAGATE_BINARY, folder, args);
}

// A fixed noise texture value in 0 to 255.
int noise(int x, int y, int seed) {
    unsigned int v = static_cast<unsigned int>(x) * 73856093u ^ static_cast<unsigned int>(y) * 19349663u ^
                     static_cast<unsigned int>(seed) * 83492791u;
    v ^= v >> 13;
    v *= 0x5bd1e995u;
    v ^= v >> 15;
    return static_cast<int>(v & 0xFF);
}

// The moving object: a square moving 2 pixels a frame, bright or of the
// background's own colours, or a bar 3 pixels wide, narrower than the flow's
// patches, moving 1 pixel a frame.
enum class Shape { kSquare, kCamouflaged, kBar };

int step(Shape shape) { return shape == Shape::kBar ? 1 : 2; }

bool inObject(int x, int y, int t, Shape shape) {
    if (shape == Shape::kBar) {
        const int left = 20 + t;
        return x >= left && x < left + 3 && y >= 6 && y < 30;
    }
    const int left = 6 + step(shape) * t, top = 10;
    return x >= left && x < left + kSide && y >= top && y < top + kSide;
}

// Frame t as a PPM: a dark noisy background and a noisy object, bright but
// where camouflaged, whose texture moves with it.
std::string frame(int t, int w = kW, int h = kH, Shape shape = Shape::kSquare) {
    std::string s = "P6\n" + std::to_string(w) + " " + std::to_string(h) + "\n255\n";
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool object = inObject(x, y, t, shape), bright = object && shape != Shape::kCamouflaged;
            // The camouflage's grain is 3 pixels, coarse enough for the flow
            // to follow a 2-pixel step where nothing else tells the object.
            const int grain = shape == Shape::kCamouflaged ? 3 : 1;
            const int u = object ? x - step(shape) * t : x;
            const int texture = noise((u + 30) / grain, y / grain, object ? 1 : 2);
            const int v = (bright ? 150 : 20) + texture / 3;
            s += {static_cast<char>(v), static_cast<char>(bright ? v / 2 : v), static_cast<char>(v)};
        }
    return s;
}

std::vector<std::uint8_t> truth(int t, Shape shape = Shape::kSquare) {
    std::vector<std::uint8_t> labels(kW * kH, 0);
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) labels[y * kW + x] = inObject(x, y, t, shape) ? 7 : 0;
    return labels;
}

void writeGrey(const std::string& path, int w, int h, const std::vector<std::uint8_t>& values) {
    fs::create_directories(fs::path(path).parent_path());
    std::vector<std::uint8_t> palette(256 * 3);
    for (int i = 0; i < 256; ++i)
        palette[3 * i] = palette[3 * i + 1] = palette[3 * i + 2] = static_cast<std::uint8_t>(i);
    png_file::writePalette(w, h, values, palette, path);
}

void writeVideo(const ScratchFolder& folder, Shape shape = Shape::kSquare, int frames = kFrames) {
    for (int t = 0; t < frames; ++t) {
        char name[32];
        std::snprintf(name, sizeof name, "frames/f_%02d.ppm", t);
        folder.write(name, frame(t, kW, kH, shape));
    }
    writeGrey(folder / "ann/f_00.png", kW, kH, truth(0, shape));
}

double objectIou(const std::vector<std::uint8_t>& labels, int t, Shape shape = Shape::kSquare) {
    const std::vector<std::uint8_t> want = truth(t, shape);
    int both = 0, either = 0;
    for (std::size_t i = 0; i < want.size(); ++i) {
        both += labels[i] == 7 && want[i] == 7;
        either += labels[i] == 7 || want[i] == 7;
    }
    return either == 0 ? 1.0 : static_cast<double>(both) / either;
}

std::size_t filesIn(const std::string& folder) {
    std::size_t n = 0;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) ++n;
    return n;
}

TEST(PropagateProgram, FollowsTheAnnotatedObjectThroughTheVideoAndWritesEveryResult) {
    ScratchFolder folder("propagate");
    writeVideo(folder);
    const Output run = runProgram(folder.str(), {"frames", "ann", "out"});
    ASSERT_EQ(run.status, 0) << run.err;
    // One progress line per frame, in the documented form.
    EXPECT_EQ(run.out.find("frame 1/6 f_00: 2 labels, "), 0u) << run.out;
    EXPECT_NE(run.out.find("frame 6/6 f_05: "), std::string::npos) << run.out;
    EXPECT_NE(run.out.find(" ms, segmentation "), std::string::npos);
    for (int t = 0; t < kFrames; ++t) {
        char stem[32];
        std::snprintf(stem, sizeof stem, "out/f_%02d", t);
        const png_file::IndexImage labels = png_file::readIndices(folder / (std::string(stem) + ".png"));
        ASSERT_EQ(labels.width, kW);
        // The annotated frame keeps its annotation; the square is followed.
        if (t == 0) {
            EXPECT_EQ(labels.values, truth(0));
        }
        EXPECT_GT(objectIou(labels.values, t), 0.85) << "frame " << t;
        EXPECT_TRUE(fs::exists(folder / (std::string(stem) + "_dense.ppm")));
        EXPECT_TRUE(fs::exists(folder / (std::string(stem) + "_overlay.ppm")));
    }
    // The tracks, in the program's own format, with both labels.
    std::vector<TrackPoints> tracks;
    std::string problem;
    int frames = 0;
    ASSERT_TRUE(readTracks(folder / "out/tracks.dat", tracks, problem, frames)) << problem;
    EXPECT_EQ(frames, kFrames);
    bool background = false, square = false;
    for (const TrackPoints& track : tracks) {
        background |= track.label == 0;
        square |= track.label == 7 && track.points.size() == static_cast<std::size_t>(kFrames);
    }
    EXPECT_TRUE(background && square);
    EXPECT_EQ(filesIn(folder / "out"), 3u * kFrames + 1);
}

// A patch of still background wrongly annotated as the moving square: its
// tracks stand still while the square's move, and they go back to the
// background.
TEST(PropagateProgram, TracksThatMoveLikeTheBackgroundTakeItsLabel) {
    ScratchFolder folder("propagate");
    writeVideo(folder);
    std::vector<std::uint8_t> annotation = truth(0);
    const auto inPatch = [](float x, float y) { return x >= 34 && x < 44 && y >= 22 && y < 32; };
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x)
            if (inPatch(x + 0.5f, y + 0.5f)) annotation[y * kW + x] = 7;
    writeGrey(folder / "ann/f_00.png", kW, kH, annotation);
    folder.write("never.cfg", "i motionFrames 0\n");
    // Tracks that began in the patch and still carry the square's label.
    const auto wrongTracks = [&](const std::string& out) {
        std::vector<TrackPoints> tracks;
        std::string problem;
        int frames = 0;
        EXPECT_TRUE(readTracks(folder / (out + "/tracks.dat"), tracks, problem, frames)) << problem;
        int wrong = 0;
        for (const TrackPoints& track : tracks)
            wrong += track.label == 7 && track.points.size() == static_cast<std::size_t>(kFrames) &&
                     inPatch(track.points[0].x, track.points[0].y);
        return wrong;
    };
    ASSERT_EQ(runProgram(folder.str(), {"--config", "never.cfg", "frames", "ann", "never"}).status, 0);
    EXPECT_GT(wrongTracks("never"), 0);
    ASSERT_EQ(runProgram(folder.str(), {"frames", "ann", "out"}).status, 0);
    EXPECT_EQ(wrongTracks("out"), 0);
}

// Tracks on an object narrower than the flow's patches must move with it and
// outlive its motion edges, or the object fades within a few frames.
TEST(PropagateProgram, FollowsAnObjectNarrowerThanTheFlowsPatches) {
    ScratchFolder folder("propagate");
    constexpr int kLong = 12;
    writeVideo(folder, Shape::kBar, kLong);
    const Output run = runProgram(folder.str(), {"frames", "ann", "out"});
    ASSERT_EQ(run.status, 0) << run.err;
    const png_file::IndexImage last = png_file::readIndices(folder / "out/f_11.png");
    EXPECT_GT(objectIou(last.values, kLong - 1, Shape::kBar), 0.7);
}

// The square's IoU in frame t of the moving square's video propagated from
// these clicks (0 where the program fails).
double squareIouFromClicks(const std::string& clicks, int t) {
    ScratchFolder folder("propagate");
    writeVideo(folder);
    folder.write("clicks.txt", clicks);
    const Output run = runProgram(folder.str(), {"frames", "clicks.txt", "out"});
    EXPECT_EQ(run.status, 0) << run.err;
    if (run.status != 0) return 0.0;
    char name[32];
    std::snprintf(name, sizeof name, "out/f_%02d.png", t);
    return objectIou(png_file::readIndices(folder / name).values, t);
}

TEST(PropagateProgram, ClicksStandInForTheAnnotation) {
    EXPECT_GT(squareIouFromClicks("0 12.5 16 7\n0 15 20 7\n0 3 3 0\n0 40 30 0\n0 30 8 0\n", kFrames - 1), 0.8);
}

// An object of the background's own colours is told apart by its motion
// alone: the first frame's clicks are carried to the second, where the
// object has moved, and label it again.
TEST(PropagateProgram, ClicksFindAnObjectOfTheBackgroundsColoursByItsMotion) {
    ScratchFolder folder("propagate");
    writeVideo(folder, Shape::kCamouflaged);
    folder.write("clicks.txt", "0 9.5 13.5 7\n0 16.5 20.5 7\n0 10.5 20.5 7\n0 3 3 0\n0 40 30 0\n0 30 8 0\n");
    folder.write("still.cfg", "f clickMotionWeight 0\n");
    const Output run = runProgram(folder.str(), {"frames", "clicks.txt", "out"});
    ASSERT_EQ(run.status, 0) << run.err;
    const Output still = runProgram(folder.str(), {"--config", "still.cfg", "frames", "clicks.txt", "still"});
    ASSERT_EQ(still.status, 0) << still.err;
    const auto iou = [&](const std::string& out) {
        return objectIou(png_file::readIndices(folder / (out + "/f_01.png")).values, 1, Shape::kCamouflaged);
    };
    EXPECT_GT(iou("out"), 0.8);
    EXPECT_LT(iou("still"), 0.5);
}

// A label whose every click is hidden in the second frame must not vanish
// there: the clicks are then not carried at all.
TEST(PropagateProgram, ClicksAreNotCarriedWhenALabelWouldLoseThemAll) {
    // The background's one click lies where the square moves over it.
    EXPECT_GT(squareIouFromClicks("0 12.5 16 7\n0 15 20 7\n0 20.5 16.5 0\n", 1), 0.8);
}

// Every refusal: one line naming the fault, a non-zero status, and nothing in
// the output folder that looks like a result.
TEST(PropagateProgram, RefusesBadInputWithOneLineAndLeavesNoResult) {
    ScratchFolder folder("propagate");
    writeVideo(folder);
    writeGrey(folder / "small/f_00.png", kW - 1, kH, std::vector<std::uint8_t>((kW - 1) * kH, 0));
    writeGrey(folder / "stray/f_09.png", kW, kH, truth(0));
    folder.write("outside.txt", "0 48 3 1\n");
    folder.write("late.txt", "6 3 3 1\n");
    folder.write("empty/notes.txt", "x");
    const struct {
        std::vector<std::string> args;
        std::string message;
    } cases[] = {
        {{"frames", "small", "out"}, "is 47 x 36 pixels, but the frames are 48 x 36"},
        {{"frames", "stray", "out"}, "is named after no frame"},
        {{"frames", "outside.txt", "out"}, "the click lies outside the 48 x 36 frame"},
        {{"frames", "late.txt", "out"}, "frame 6 is not one of the 6 frames"},
        {{"empty", "ann", "out"}, "no frames"},
        {{"frames", "ann", "frames"}, "is an input folder"},
    };
    for (const auto& c : cases) {
        const Output run = runProgram(folder.str(), c.args);
        EXPECT_EQ(run.status, 1) << c.message;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
        EXPECT_EQ(run.err.find("denseseg-propagate: "), 0u) << run.err;
        EXPECT_EQ(filesIn(folder / "out"), 0u) << c.message;
    }
    // Frames of different sizes are found when the odd one is reached: what
    // was written before it is removed again.
    folder.write("frames/f_04.ppm", frame(4, kW, kH + 1));
    const Output sizes = runProgram(folder.str(), {"frames", "ann", "out"});
    EXPECT_EQ(sizes.status, 1);
    EXPECT_NE(sizes.err.find("all frames must have the same size"), std::string::npos) << sizes.err;
    EXPECT_EQ(filesIn(folder / "out"), 0u);

    const Output usage = runProgram(folder.str(), {"frames", "ann"});
    EXPECT_EQ(usage.status, 2);
    EXPECT_EQ(usage.err, "usage: denseseg-propagate [--config FILE] FRAMES_DIR ANNOTATIONS OUT_DIR\n");
}

}  // namespace
