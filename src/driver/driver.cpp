#include "src/driver/driver.h"

#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "image/CTensor.h"
#include "image/png_file.h"
#include "src/driver/config.h"
#include "src/driver/error_report.h"
#include "src/driver/file_names.h"
#include "src/driver/label_map.h"
#include "src/driver/result_files.h"
#include "src/driver/settings_file.h"
#include "src/driver/tracks.h"
#include "src/engine_arrays.h"
#include "src/frame.h"
#include "vela/algorithms/basic.h"
#include "vela/algorithms/conversion.h"
#include "vela/cmatrixlib_interface.h"
#include "vela/timer.h"

namespace fs = std::filesystem;

namespace {

const cudaStream_t kDefaultStream = nullptr;

// The file name after the last "/".
std::string baseName(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Whether `path` names the same file as one of `inputs`.
bool isInputFile(const std::string& path, const std::vector<std::string>& inputs) {
    for (const std::string& input : inputs) {
        std::error_code ec;
        if (fs::equivalent(path, input, ec) && !ec) return true;
    }
    return false;
}

// Refuses outputs that would replace an input of the run.
bool outputsAreFree(const std::string& stem, const std::vector<std::string>& inputs, const FrameOutputs& outputs) {
    std::vector<std::string> suffixes = {"_dense.ppm", "_overlay.ppm"};
    if (outputs.labels) suffixes.push_back("_labels.png");
    for (const std::string& suffix : suffixes) {
        if (isInputFile(stem + suffix, inputs)) {
            std::cerr << "denseseg: the result " << stem << suffix
                      << " would replace an input file; choose another result directory" << std::endl;
            return false;
        }
    }
    return true;
}

// Whether every label of the frame has a palette colour; says which has none.
bool paletteHolds(const std::vector<int>& labelIds, unsigned int frame) {
    const int paletteSize = static_cast<int>(seg::palette().size());
    for (int id : labelIds) {
        if (id < 0 || id >= paletteSize) {
            std::cerr << "denseseg: label " << id << " of frame " << frame << " has no colour (labels 0 to "
                      << paletteSize - 1 << "); frame skipped" << std::endl;
            return false;
        }
    }
    return true;
}

// Refuses, before anything is allocated on the device, a run with a frame the
// engine cannot address.  Only a frame large enough that the palette's
// labels might not fit has its labels counted.
void requireFramesAddressable(const TrackFile& tracks, unsigned int first, std::size_t count, unsigned int w,
                              unsigned int h) {
    requireAddressable(w, h, 1);
    // A file not held gives no labels.
    if (addressable(w, h, kTrackLabelLimit) || tracks.tracks().empty()) return;
    std::vector<float> values(static_cast<std::size_t>(w) * h);
    vela::Array<float, 2> labels = vela::arrayFromHostMemory(values.data(), make_uint2(w, h));
    for (unsigned int f = first; f < first + count; ++f) {
        std::fill(values.begin(), values.end(), -1.0f);
        std::vector<int> ids;
        tracks.frame(f, static_cast<int>(w), static_cast<int>(h), labels, ids);
        requireAddressable(w, h, ids.size());
    }
}

void printUsage() {
    std::cout << "usage:" << std::endl;
    std::cout << "argument 1: filestructure" << std::endl;
    std::cout << "argument 2: image_filename (relativ to data directory)" << std::endl;
    std::cout << "argument 3: trackfile (relativ to tracks directory)" << std::endl;
    std::cout << "argument 4: frame index (-1 process the whole folder with image_filename)" << std::endl;
    std::cout << "argument 5: result directory (relative to result dir from filestructure)" << std::endl;
}

// The folder prefix of a directory key: its text and "/", nothing for "-".
std::string folderPrefix(ConfigMap& config, const std::string& key) {
    const std::string& text = config[key].text;
    return text == "-" ? std::string() : text + "/";
}

bool makeResultFolder(const std::string& folder) {
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec || !fs::is_directory(folder, ec)) {
        std::cerr << "denseseg: cannot create the result folder " << folder
                  << (ec ? ": " + ec.message() : std::string()) << std::endl;
        return false;
    }
    return true;
}

// Segments one frame: the track points of `frame` give the sparse labels on
// the device image `image`; writes outputStem + "_dense.ppm" and
// outputStem + "_overlay.ppm", and the results `outputs` asks for.  A frame
// without usable track points writes nothing.  Each label keeps its palette
// colour in every frame.  With "temporal 1" the frame starts from `carry`,
// what the frame before handed on along the tracks' motion, and leaves there
// what the next frame needs; a frame without usable points empties it.
void processFrame(const std::string& outputStem, vela::Array<float4, 2>& image, const TrackFile& tracks,
                  unsigned int frame, const SegmentationSettings& settings, const FrameOutputs& outputs,
                  video::Carry& carry) {
    const unsigned int w = image.extents.x, h = image.extents.y;
    std::vector<float> seedValues(static_cast<std::size_t>(w) * h, -1.0f);
    vela::Array<float, 2> hostLabels = vela::arrayFromHostMemory(seedValues.data(), make_uint2(w, h));
    FrameSeeds seeds;
    const int numLabels = tracks.frame(frame, static_cast<int>(w), static_cast<int>(h), hostLabels, seeds.labelIds);
    if (numLabels > 0) {
        std::cout << "processing " << frame << "th frame: " << outputStem << std::endl;
        std::cout << "number of different labels in this frame: " << numLabels << std::endl;
    }
    // A frame without usable points, or one skipped, ends what a video carries.
    if (numLabels < 1 || !paletteHolds(seeds.labelIds, frame)) {
        carry = {};
        return;
    }
    const vela::ScopedArray<float, 2> labels = seg::deviceCopy(hostLabels);
    seeds.labels = labels.a;
    if (settings.temporal == 1)
        seeds.motion = motionOfTracks(tracks.tracks(), frame, static_cast<int>(w), static_cast<int>(h));

    FrameSolver seg(image);
    setLabelColours(seg, seeds.labelIds);
    carry = segmentFrame(seg, seeds, settings, std::move(carry));
    vela::timer::printToScreen("", 6, 0, true);
    if (settings.temporal == 1)
        std::cout << (carry.continued ? "started from the frame before" : "started afresh")
                  << "; walker iterations: " << carry.walkerIterations << std::endl;
    // With a tolerance the iteration count varies from frame to frame.
    if (settings.solverTolerance > 0.0f)
        std::cout << "solver iterations: " << seg.iterationsDone << " of " << seg.nIterations << std::endl;

    seg.computeColorRepresentation(seg.u, true, false);
    saveRendering(seg.colorImage, outputStem + "_dense.ppm");
    saveRendering(seg.getColorImageOverlay(0.4f), outputStem + "_overlay.ppm");
    if (outputs.labels) {
        std::vector<float4> palette = seg::palette();
        const vela::Array<float4, 1> table = seg::hostView1D(palette.data(), static_cast<unsigned int>(palette.size()));
        writeInPlace(outputStem + "_labels.png", [&](const std::string& partial) {
            png_file::writePalette(static_cast<int>(w), static_cast<int>(h), labelNumbers(seg.u, seeds.labelIds),
                                   paletteBytes(table), partial);
        });
    }
}

// Segments the images `files` in order, image i as frame firstFrame + i of
// the track file, into the result stems `stems`.  The track file is read once
// for every frame; in temporal mode its tracks also give the motion from frame
// to frame (none where the file cannot be held: its frames report it as
// before).  All images must have the first one's size.
int segmentImages(const std::vector<std::string>& files, const std::vector<std::string>& stems, unsigned int firstFrame,
                  const std::string& trackPath, const SegmentationSettings& settings, const FrameOutputs& outputs) {
    vela::ScopedArray<float4, 2> host(loadColorImage(files[0]));
    const uint2 size = make_uint2(host.a.extents.x, host.a.extents.y);
    const TrackFile trackFile(trackPath);
    requireFramesAddressable(trackFile, firstFrame, files.size(), size.x, size.y);
    vela::ScopedArray<float4, 2> image = seg::deviceCopy(host.a);
    video::Carry carry;
    for (std::size_t i = 0; i < files.size(); ++i) {
        if (i > 0) {
            host = vela::ScopedArray<float4, 2>(loadColorImage(files[i]));
            if (host.a.extents.x != size.x || host.a.extents.y != size.y) {
                std::cerr << "denseseg: image " << files[i] << " is " << host.a.extents.x << " x " << host.a.extents.y
                          << " pixels, but the first image of the folder, " << files[0] << ", is " << size.x << " x "
                          << size.y << "; all images of a folder must have the same size" << std::endl;
                return 1;
            }
            vela::arrayCopy(image.a, host.a);
        }
        processFrame(stems[i], image.a, trackFile, firstFrame + static_cast<unsigned int>(i), settings, outputs, carry);
    }
    return 0;
}

int singleFrame(const std::string& imagePath, const std::string& trackPath, unsigned int frame,
                const std::string& outputStem, const std::vector<std::string>& inputs,
                const SegmentationSettings& settings, const FrameOutputs& outputs) {
    if (!outputsAreFree(outputStem, inputs, outputs)) return 1;
    // One frame has no frame before it.
    SegmentationSettings alone = settings;
    alone.temporal = 0;
    return segmentImages({imagePath}, {outputStem}, frame, trackPath, alone, outputs);
}

int wholeFolder(const std::string& imagePath, const std::string& trackPath, const std::string& resultFolder,
                std::vector<std::string> inputs, const SegmentationSettings& settings, const FrameOutputs& outputs) {
    const std::vector<std::string> parts = utility::getDFE(imagePath);
    // An image path without a folder lists the working directory.
    const std::string pattern = (parts[0].empty() ? std::string() : parts[0] + "/") + "*." + parts[2];
    const std::vector<std::string> files = utility::dir(pattern);
    if (files.empty()) {
        std::cerr << "denseseg: no image matches " << pattern << std::endl;
        return 1;
    }
    inputs.insert(inputs.end(), files.begin(), files.end());
    std::vector<std::string> stems;
    for (const std::string& file : files) {
        stems.push_back(resultFolder + utility::getDFE(file)[1]);
        if (!outputsAreFree(stems.back(), inputs, outputs)) return 1;
    }
    const int status = segmentImages(files, stems, 0, trackPath, settings, outputs);
    return status != 0 ? status : exportTracks(resultFolder, trackPath, inputs);
}

int run(int argc, char** argv) {
    if (argc < 6) {
        // Four arguments lack the result directory: the usage text too.
        printUsage();
        return 0;
    }
    ConfigMap config = loadConfigINI(argv[1]);
    const std::string dataPrefix = folderPrefix(config, "dataDir");
    const std::string tracksPrefix = folderPrefix(config, "tracksDir");
    const std::string resultPrefix = folderPrefix(config, "resultDir");

    const std::string imagePath = dataPrefix + argv[2];
    const std::string trackPath = tracksPrefix + argv[3];
    const int frame = static_cast<std::int32_t>(std::strtol(argv[4], nullptr, 10));
    const std::string resultFolder = resultPrefix + argv[5] + "/";
    if (!makeResultFolder(resultFolder)) return 1;

    const std::string stem = utility::getDFE(argv[2])[1];
    SegmentationSettings settings;
    FrameOutputs outputs;
    int writeLabels = 0;
    std::string error;
    if (!readSegmentationSettings(config, settings, error) ||
        !readIntKey(config, "writeLabels", 0, 1, writeLabels, error))
        exitWithConfigError(error);
    outputs.labels = writeLabels == 1;
    const std::vector<std::string> inputs = {argv[1], imagePath, trackPath};

    if (frame >= 0)
        return singleFrame(imagePath, trackPath, static_cast<unsigned int>(frame), resultFolder + stem, inputs,
                           settings, outputs);
    return wholeFolder(imagePath, trackPath, resultFolder, inputs, settings, outputs);
}

}  // namespace

vela::Array<float4, 2> loadColorImage(const std::string& path) {
    CTensor<float> tensor;
    try {
        tensor.readFromImage(path.c_str());
    } catch (const std::exception& e) {
        // Every message names the image.
        const std::string what = e.what();
        if (what.find(path) != std::string::npos) throw;
        throw std::runtime_error("image " + path + ": " + what);
    }
    if (tensor.xSize < 1 || tensor.ySize < 1 || tensor.zSize != 3)
        throw std::runtime_error("image " + path + " is not a colour image");
    const vela::Array<float, 3> planes = vela::arrayFromHostMemory(tensor.data, static_cast<unsigned int>(tensor.xSize),
                                                                   static_cast<unsigned int>(tensor.ySize), 3u);
    vela::ScopedArray<float4, 2> image(
        vela::internal::decreaseArrayDimension<float4, 4, 2>(vela::mallocHostArray<float4>(
            make_uint4(static_cast<unsigned int>(tensor.xSize), static_cast<unsigned int>(tensor.ySize), 1, 1),
            vela::LINEAR_LAYOUT)));
    vela::convert(image.a, planes, 1.0f, kDefaultStream);
    return image.release();
}

int exportTracks(const std::string& resultFolder, const std::string& trackPath,
                 const std::vector<std::string>& inputs) {
    const std::string outTrack = resultFolder + baseName(trackPath);
    std::cout << "write track file: " << outTrack << std::endl;
    if (isInputFile(outTrack, inputs)) {
        std::cerr << "denseseg: the exported track file " << outTrack
                  << " would replace an input file; choose another result directory" << std::endl;
        return 1;
    }
    const std::vector<std::string> dense = utility::dir(resultFolder + "*dense*.ppm");

    int width = 0, height = 0;
    if (!dense.empty()) {
        CTensor<float> first;
        first.readFromPPM(dense[0].c_str());
        width = first.xSize;
        height = first.ySize;
    }

    const std::string partial = partialName(outTrack);
    std::FILE* out = std::fopen(partial.c_str(), "wb");
    if (out == nullptr) {
        std::cerr << "denseseg: cannot write " << partial << std::endl;
        return 1;
    }
    auto fail = [&](const std::string& message) {
        std::fclose(out);
        std::error_code ec;
        fs::remove(partial, ec);
        std::cerr << "denseseg: " << message << std::endl;
        return 1;
    };

    const std::uint64_t pixels = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height);
    std::fprintf(out, "%zu\n%llu\n", dense.size(), static_cast<unsigned long long>(dense.size() * pixels));
    // Colour codes numbered in the order of their first appearance over
    // files, rows and columns.  The code uses base 255, so two colours can
    // share one.
    std::unordered_map<std::int32_t, int> codes;
    try {
        for (std::size_t f = 0; f < dense.size(); ++f) {
            CTensor<float> result;
            result.readFromPPM(dense[f].c_str());
            if (result.xSize != width || result.ySize != height || result.zSize != 3)
                return fail("dense result " + dense[f] + " is not a " + std::to_string(width) + " x " +
                            std::to_string(height) + " colour image like " + dense[0] + "; track file not written");
            const std::size_t plane = pixels;
            // "<code> 1\n<x> <y> <frame>\n" per pixel, formatted into one buffer
            // per row: millions of lines, which printf would take seconds over.
            std::string lines;
            bool haveLast = false;
            std::int32_t lastKey = 0;
            int lastIndex = 0;
            auto put = [&](auto value, char after) {
                char digits[24];
                const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
                lines.append(digits, end);
                lines.push_back(after);
            };
            for (int y = 0; y < height; ++y) {
                lines.clear();
                for (int x = 0; x < width; ++x) {
                    const std::size_t i = static_cast<std::size_t>(y) * width + x;
                    const float r = result.data[i], g = result.data[plane + i], b = result.data[2 * plane + i];
                    const float code = 255.0f * r * 255.0f + 255.0f * g + b;
                    // Neighbours mostly share a colour: the map only when it changes.
                    const std::int32_t key = static_cast<std::int32_t>(code);
                    if (!haveLast || key != lastKey) {
                        lastIndex = codes.emplace(key, static_cast<int>(codes.size())).first->second;
                        lastKey = key;
                        haveLast = true;
                    }
                    put(lastIndex, ' ');
                    lines += "1\n";
                    put(x, ' ');
                    put(y, ' ');
                    put(f, '\n');
                }
                std::fwrite(lines.data(), 1, lines.size(), out);
            }
        }
    } catch (...) {
        fail("the track file " + outTrack + " was not written");
        throw;
    }
    if (std::ferror(out) != 0 || std::fclose(out) != 0) {
        std::error_code ec;
        fs::remove(partial, ec);
        std::cerr << "denseseg: writing " << partial << " failed" << std::endl;
        return 1;
    }
    renameIntoPlace(partial, outTrack);
    return 0;
}

int denseseg(int argc, char** argv) {
    return reportingErrors("denseseg", [&] { return run(argc, argv); });
}
