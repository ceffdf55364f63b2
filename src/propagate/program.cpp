#include "src/propagate/program.h"

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "image/png_file.h"
#include "src/driver/driver.h"
#include "src/driver/error_report.h"
#include "src/driver/label_map.h"
#include "src/driver/result_files.h"
#include "src/engine_arrays.h"
#include "src/propagate/inputs.h"
#include "vela/timer.h"

namespace fs = std::filesystem;

namespace propagate {
namespace {

constexpr const char* kUsage = "usage: denseseg-propagate [--config FILE] FRAMES_DIR ANNOTATIONS OUT_DIR";

struct Arguments {
    std::string config, frames, annotations, out;
};

bool parseArguments(int argc, char** argv, Arguments& args) {
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--config" && i + 1 < argc) {
            args.config = argv[++i];
        } else if (!arg.empty() && arg[0] == '-' && arg != "-") {
            return false;
        } else {
            positional.push_back(arg);
        }
    }
    if (positional.size() != 3) return false;
    args.frames = positional[0];
    args.annotations = positional[1];
    args.out = positional[2];
    return true;
}

bool sameFolder(const std::string& a, const std::string& b) {
    std::error_code ec;
    return fs::equivalent(a, b, ec) && !ec;
}

// The files a run has written, removed again when it fails, so that a failed
// run leaves nothing that looks like a result.
class WrittenFiles {
 public:
    void add(const std::string& path) { paths_.push_back(path); }
    void keep() { paths_.clear(); }
    ~WrittenFiles() {
        for (const std::string& path : paths_) removeQuietly(path);
    }

 private:
    std::vector<std::string> paths_;
};

void writeFrame(Propagator& propagator, int w, const std::string& stem, WrittenFiles& written) {
    std::vector<float4> palette = seg::palette();
    const vela::Array<float4, 1> table = seg::hostView1D(palette.data(), static_cast<unsigned int>(palette.size()));
    const std::vector<std::uint8_t>& labels = propagator.labels();
    written.add(stem + ".png");
    writeInPlace(stem + ".png", [&](const std::string& partial) {
        png_file::writePalette(w, static_cast<int>(labels.size() / static_cast<std::size_t>(w)), labels,
                               paletteBytes(table), partial);
    });
    // A frame before any label is known has the label map alone.
    FrameSolver* solver = propagator.solver();
    if (solver == nullptr) return;
    solver->computeColorRepresentation(solver->u, true, false);
    written.add(stem + "_dense.ppm");
    saveRendering(solver->colorImage, stem + "_dense.ppm");
    written.add(stem + "_overlay.ppm");
    saveRendering(solver->getColorImageOverlay(0.4f), stem + "_overlay.ppm");
}

int run(const Arguments& args) {
    SegmentationSettings settings;
    TrackerSettings tracker;
    std::string error;
    if (!readPropagationSettings(args.config, settings, tracker, error)) throw std::runtime_error(error);

    const std::vector<std::string> frames = listFrames(args.frames);
    vela::ScopedArray<float4, 2> image(loadColorImage(frames[0]));
    const int w = static_cast<int>(image.a.extents.x), h = static_cast<int>(image.a.extents.y);

    // Every annotation is read and checked before anything is written.
    const bool clicksFile = fs::path(args.annotations).extension() == ".txt";
    std::map<unsigned int, std::string> annotationFiles;
    std::map<unsigned int, std::vector<Click>> clicks;
    if (clicksFile) {
        clicks = readClicks(args.annotations, frames.size(), w, h);
    } else {
        annotationFiles = listAnnotations(args.annotations, frames);
        for (const auto& [frame, path] : annotationFiles) readAnnotation(path, w, h);
    }

    std::error_code ec;
    fs::create_directories(args.out, ec);
    if (ec || !fs::is_directory(args.out, ec)) throw std::runtime_error("cannot create the output folder " + args.out);
    if (sameFolder(args.out, args.frames) || (!clicksFile && sameFolder(args.out, args.annotations)))
        throw std::runtime_error("the output folder " + args.out +
                                 " is an input folder; its results would replace inputs, choose another");

    WrittenFiles written;
    const std::string tracksPath = (fs::path(args.out) / "tracks.dat").string();
    TrackRecorder recorder(tracksPath);
    Propagator propagator(settings, tracker, &recorder);
    // Each frame is read one frame ahead, so that its flow runs while the
    // frame before is segmented.
    vela::ScopedArray<float4, 2> upcoming;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        if (i > 0) image = std::move(upcoming);
        if (i + 1 < frames.size()) upcoming = vela::ScopedArray<float4, 2>(loadColorImage(frames[i + 1]));
        const unsigned int frame = static_cast<unsigned int>(i);
        FrameInput input;
        std::vector<std::uint8_t> annotation;
        if (const auto found = annotationFiles.find(frame); found != annotationFiles.end()) {
            annotation = readAnnotation(found->second, w, h);
            input.annotation = &annotation;
        }
        if (const auto found = clicks.find(frame); found != clicks.end()) input.clicks = found->second;
        const FrameReport report = propagator.next(image.a, input, i + 1 < frames.size() ? &upcoming.a : nullptr);
        const std::string name = fs::path(frames[i]).stem().string();
        writeFrame(propagator, w, (fs::path(args.out) / name).string(), written);
        std::printf("frame %zu/%zu %s: %u labels, %u tracks, tracking %.1f ms, segmentation %.1f ms\n", i + 1,
                    frames.size(), name.c_str(), report.labels, report.tracks, report.trackingMs,
                    report.segmentationMs);
        std::fflush(stdout);
    }
    written.add(tracksPath);
    recorder.write(static_cast<int>(frames.size()));
    written.keep();
    return 0;
}

}  // namespace
}  // namespace propagate

int densesegPropagate(int argc, char** argv) {
    propagate::Arguments args;
    if (!propagate::parseArguments(argc, argv, args)) {
        std::cerr << propagate::kUsage << std::endl;
        return 2;
    }
    return reportingErrors("denseseg-propagate", [&] { return propagate::run(args); });
}
