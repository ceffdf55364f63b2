#include "src/propagate/inputs.h"

#include <gtest/gtest.h>
#include <png.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "image/png_file.h"
#include "tests/support/scratch_folder.h"

namespace {

using testsupport::ScratchFolder;

// A PNG of w x h samples in one of libpng's simplified formats.
void writePng(const std::string& path, int w, int h, png_uint_32 format, const void* samples) {
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(w);
    image.height = static_cast<png_uint_32>(h);
    image.format = format;
    ASSERT_NE(png_image_write_to_file(&image, path.c_str(), 0, samples, 0, nullptr), 0) << image.message;
}

// The message of what `f` throws, empty when it throws nothing.
template <class F>
std::string thrown(F f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return {};
}

bool says(const std::string& message, const std::string& part) { return message.find(part) != std::string::npos; }

TEST(Annotations, ReadAsStoredValuesFromGreyAndPalettePngsAndRefusedOtherwise) {
    ScratchFolder folder("annotations");
    const std::vector<std::uint8_t> values = {0, 1, 2, 255, 1, 0};
    // Palette entries unlike their indices: the indices are what counts.
    std::vector<std::uint8_t> palette(256 * 3);
    for (int i = 0; i < 256; ++i) palette[3 * i] = static_cast<std::uint8_t>(255 - i);
    png_file::writePalette(3, 2, values, palette, folder / "palette.png");
    writePng(folder / "grey.png", 3, 2, PNG_FORMAT_GRAY, values.data());
    EXPECT_EQ(propagate::readAnnotation(folder / "palette.png", 3, 2), values);
    EXPECT_EQ(propagate::readAnnotation(folder / "grey.png", 3, 2), values);

    EXPECT_TRUE(says(thrown([&] { propagate::readAnnotation(folder / "grey.png", 2, 3); }),
                     "is 3 x 2 pixels, but the frames are 2 x 3"));
    const std::vector<std::uint8_t> rgb(3 * 6, 7);
    writePng(folder / "rgb.png", 3, 2, PNG_FORMAT_RGB, rgb.data());
    EXPECT_TRUE(says(thrown([&] { propagate::readAnnotation(folder / "rgb.png", 3, 2); }),
                     "not a single-channel 8-bit PNG (it is colour, 8 bits per sample)"));
    const std::vector<std::uint16_t> deep(6, 1);
    writePng(folder / "deep.png", 3, 2, PNG_FORMAT_LINEAR_Y, deep.data());
    EXPECT_TRUE(says(thrown([&] { propagate::readAnnotation(folder / "deep.png", 3, 2); }), "16 bits per sample"));
    const std::vector<std::uint8_t> past = {0, 1, 150, 0, 0, 0};
    writePng(folder / "past.png", 3, 2, PNG_FORMAT_GRAY, past.data());
    EXPECT_TRUE(says(thrown([&] { propagate::readAnnotation(folder / "past.png", 3, 2); }), "holds the value 150"));
    folder.write("cut.png", std::string("\x89PNG\r\n\x1a\n", 8));
    EXPECT_TRUE(says(thrown([&] { propagate::readAnnotation(folder / "cut.png", 3, 2); }), "not a readable PNG"));
}

TEST(Annotations, AreMatchedToFramesByNameAndEveryOneMustNameAFrame) {
    ScratchFolder folder("annotations");
    const std::vector<std::string> frames = {folder / "frames/a_000.jpg", folder / "frames/a_001.jpg",
                                             folder / "frames/a_002.jpg"};
    folder.write("ann/a_002.png", "x");
    folder.write("ann/a_000.png", "x");
    folder.write("ann/notes.txt", "ignored");
    const auto found = propagate::listAnnotations(folder / "ann", frames);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found.at(0), folder / "ann/a_000.png");
    EXPECT_EQ(found.at(2), folder / "ann/a_002.png");

    folder.write("ann/a_009.png", "x");
    EXPECT_TRUE(says(thrown([&] { propagate::listAnnotations(folder / "ann", frames); }), "named after no frame"));
    folder.write("empty/readme.txt", "x");
    EXPECT_TRUE(says(thrown([&] { propagate::listAnnotations(folder / "empty", frames); }), "no annotations"));
}

TEST(Frames, AreListedInNameOrderByExtensionAndAnEmptyFolderIsRefused) {
    ScratchFolder folder("frames");
    for (const char* name : {"b.PNG", "a.ppm", "c.jpeg", "d.txt", "e.jpg"}) folder.write(std::string("f/") + name, "x");
    EXPECT_EQ(propagate::listFrames(folder / "f"), std::vector<std::string>({folder / "f/a.ppm", folder / "f/b.PNG",
                                                                             folder / "f/c.jpeg", folder / "f/e.jpg"}));
    folder.write("none/d.txt", "x");
    EXPECT_TRUE(says(thrown([&] { propagate::listFrames(folder / "none"); }), "no frames"));
    EXPECT_TRUE(says(thrown([&] { propagate::listFrames(folder / "absent"); }), "is not a folder"));
}

TEST(Clicks, AreGroupedByFrameAndEveryBadLineIsNamed) {
    ScratchFolder folder("clicks");
    const std::string good = folder.write("good.txt", "# frame x y label\n0 1.5 2 1\n\n2 0 0 0  # corner\n0 9.9 5 3\n");
    const auto clicks = propagate::readClicks(good, 3, 10, 6);
    ASSERT_EQ(clicks.size(), 2u);
    ASSERT_EQ(clicks.at(0).size(), 2u);
    EXPECT_FLOAT_EQ(clicks.at(0)[1].x, 9.9f);
    EXPECT_EQ(clicks.at(0)[1].label, 3);
    EXPECT_EQ(clicks.at(2)[0].label, 0);

    const std::vector<std::pair<std::string, std::string>> bad = {
        {"0 1 2\n", "line 1: expected \"frame x y label\""},
        {"0 1 2 1 5\n", "line 1: expected"},
        {"0 1 2 1\n3 1 1 1\n", "line 2: frame 3 is not one of the 3 frames"},
        {"0 10 2 1\n", "lies outside the 10 x 6 frame"},
        {"0 -0.5 2 1\n", "lies outside"},
        {"0 1 2 100\n", "label 100 is not from 0 to 99"},
        {"# nothing\n", "holds no clicks"},
    };
    for (const auto& [text, message] : bad) {
        const std::string path = folder.write("bad.txt", text);
        EXPECT_TRUE(says(thrown([&] { propagate::readClicks(path, 3, 10, 6); }), message)) << text;
    }
}

TEST(PropagationSettings, LayTheFileOverThePropagationDefaultsOverTheRecommendedOnes) {
    ScratchFolder folder("settings");
    SegmentationSettings settings;
    propagate::TrackerSettings tracker;
    std::string error;
    ASSERT_TRUE(propagate::readPropagationSettings("", settings, tracker, error)) << error;
    EXPECT_EQ(settings.temporalWalkerWarmStart, 1);  // the propagation's own default
    EXPECT_EQ(settings.holdSeeds, 1);                // a recommended one
    EXPECT_FLOAT_EQ(settings.lambda, 3);             // likewise
    EXPECT_EQ(tracker.trackSpacing, propagate::TrackerSettings{}.trackSpacing);

    const std::string config = folder.write("p.cfg", "i temporal 0\ni trackSpacing 6\nf lambda 5\ni motionFrames 0\n");
    ASSERT_TRUE(propagate::readPropagationSettings(config, settings, tracker, error)) << error;
    EXPECT_EQ(settings.temporal, 0);
    EXPECT_EQ(tracker.trackSpacing, 6);
    EXPECT_EQ(tracker.motionFrames, 0);
    EXPECT_FLOAT_EQ(settings.lambda, 5);

    const std::string wrong = folder.write("w.cfg", "i trackSpacing 0\n");
    EXPECT_FALSE(propagate::readPropagationSettings(wrong, settings, tracker, error));
    EXPECT_TRUE(says(error, "trackSpacing")) << error;
}

}  // namespace
