#include "src/propagate/inputs.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "image/png_file.h"
#include "src/driver/settings_file.h"
#include "src/driver/tracks.h"
#include "src/propagate/default_configs.h"

namespace fs = std::filesystem;

namespace propagate {

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// The plain files of a folder with one of `extensions` (lower case, with the
// dot), sorted by name.
std::vector<std::string> filesWith(const std::string& folder, const std::vector<std::string>& extensions) {
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) throw std::runtime_error(folder + " is not a folder");
    std::vector<std::string> files;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code fileError;
        if (!it->is_regular_file(fileError)) continue;
        const std::string extension = lower(it->path().extension().string());
        if (std::find(extensions.begin(), extensions.end(), extension) != extensions.end())
            files.push_back(it->path().string());
    }
    if (ec) throw std::runtime_error("cannot list the folder " + folder + ": " + ec.message());
    std::sort(files.begin(), files.end());
    return files;
}

std::string stemOf(const std::string& path) { return fs::path(path).stem().string(); }

}  // namespace

std::vector<std::string> listFrames(const std::string& folder) {
    std::vector<std::string> frames = filesWith(folder, {".ppm", ".png", ".jpg", ".jpeg"});
    if (frames.empty()) throw std::runtime_error("no frames (PPM, PNG or JPEG files) in " + folder);
    return frames;
}

std::map<unsigned int, std::string> listAnnotations(const std::string& folder, const std::vector<std::string>& frames) {
    std::map<std::string, unsigned int> frameOf;
    for (std::size_t i = 0; i < frames.size(); ++i) frameOf.emplace(stemOf(frames[i]), static_cast<unsigned int>(i));
    std::map<unsigned int, std::string> annotations;
    for (const std::string& file : filesWith(folder, {".png"})) {
        const auto found = frameOf.find(stemOf(file));
        if (found == frameOf.end())
            throw std::runtime_error("the annotation " + file + " is named after no frame (the frames are named like " +
                                     fs::path(frames[0]).filename().string() + ")");
        annotations[found->second] = file;
    }
    if (annotations.empty()) throw std::runtime_error("no annotations (PNG files) in " + folder);
    return annotations;
}

std::vector<std::uint8_t> readAnnotation(const std::string& path, int w, int h) {
    png_file::IndexImage image = png_file::readIndices(path);
    if (image.width != w || image.height != h)
        throw std::runtime_error("the annotation " + path + " is " + std::to_string(image.width) + " x " +
                                 std::to_string(image.height) + " pixels, but the frames are " + std::to_string(w) +
                                 " x " + std::to_string(h));
    for (std::uint8_t v : image.values)
        if (v >= kTrackLabelLimit && v != kUnlabelled)
            throw std::runtime_error("the annotation " + path + " holds the value " + std::to_string(v) +
                                     "; labels are 0 to " + std::to_string(kTrackLabelLimit - 1) + " (255: unknown)");
    return std::move(image.values);
}

std::map<unsigned int, std::vector<Click>> readClicks(const std::string& path, std::size_t frameCount, int w, int h) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot open the clicks file " + path);
    std::map<unsigned int, std::vector<Click>> clicks;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        const std::string where = path + " line " + std::to_string(number) + ": ";
        const std::size_t hash = line.find('#');
        if (hash != std::string::npos) line.erase(hash);
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        std::istringstream fields(line);
        long long frame = 0, label = 0;
        double x = 0, y = 0;
        std::string rest;
        if (!(fields >> frame >> x >> y >> label) || (fields >> rest))
            throw std::runtime_error(where + "expected \"frame x y label\"");
        if (frame < 0 || static_cast<unsigned long long>(frame) >= frameCount)
            throw std::runtime_error(where + "frame " + std::to_string(frame) + " is not one of the " +
                                     std::to_string(frameCount) + " frames (0 to " + std::to_string(frameCount - 1) +
                                     ")");
        if (!(x >= 0 && y >= 0 && x < w && y < h))
            throw std::runtime_error(where + "the click lies outside the " + std::to_string(w) + " x " +
                                     std::to_string(h) + " frame");
        if (label < 0 || label >= kTrackLabelLimit)
            throw std::runtime_error(where + "label " + std::to_string(label) + " is not from 0 to " +
                                     std::to_string(kTrackLabelLimit - 1));
        clicks[static_cast<unsigned int>(frame)].push_back(
            Click{static_cast<float>(x), static_cast<float>(y), static_cast<int>(label)});
    }
    if (in.bad()) throw std::runtime_error("cannot read the clicks file " + path);
    if (clicks.empty()) throw std::runtime_error("the clicks file " + path + " holds no clicks");
    return clicks;
}

bool propagationSettings(const ConfigMap& user, SegmentationSettings& settings, TrackerSettings& tracker,
                         std::string& error) {
    ConfigMap config, over;
    std::istringstream recommended(kRecommendedConfig), propagate(kPropagateConfig);
    if (!parseConfigStream(recommended, "configs/recommended.cfg", config, error) ||
        !parseConfigStream(propagate, "configs/propagate.cfg", over, error))
        return false;
    for (const auto& [key, value] : over) config[key] = value;
    for (const auto& [key, value] : user) config[key] = value;
    return readSegmentationSettings(config, settings, error) &&
           readIntKey(config, "trackSpacing", 1, 64, tracker.trackSpacing, error) &&
           readIntKey(config, "annotationMargin", 0, 64, tracker.annotationMargin, error) &&
           readIntKey(config, "clickMargin", 0, 64, tracker.clickMargin, error) &&
           readIntKey(config, "segmentationMargin", 0, 64, tracker.segmentationMargin, error) &&
           readFloatKey(config, "clickReachWeight", 0.0f, 1e6f, tracker.clickReachWeight, error) &&
           readFloatKey(config, "clickMotionWeight", 0.0f, 1e6f, tracker.clickMotionWeight, error) &&
           readIntKey(config, "motionFrames", 0, 1000, tracker.motionFrames, error);
}

bool readPropagationSettings(const std::string& configPath, SegmentationSettings& settings, TrackerSettings& tracker,
                             std::string& error) {
    ConfigMap user;
    if (!configPath.empty() && !parseConfigINI(configPath, user, error)) return false;
    return propagationSettings(user, settings, tracker, error);
}

}  // namespace propagate
