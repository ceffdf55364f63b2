#include "src/driver/tracks.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <utility>

namespace {

// Reads a whole file into memory; false when it cannot be read.
bool readWholeFile(std::FILE* f, std::string& contents) {
    char buffer[1 << 16];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) contents.append(buffer, n);
    return !std::ferror(f);
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

// The whitespace-separated tokens of a track file, read as strict ints and
// floats.
class TrackTokens {
 public:
    explicit TrackTokens(const std::string& text) : text_(text) {}

    // Bytes not yet read.
    std::uint64_t remaining() const { return text_.size() - pos_; }

    // The next token, or false at the end of the file.
    bool next(const char*& begin, const char*& end) {
        while (pos_ < text_.size() && isBlank(text_[pos_])) ++pos_;
        if (pos_ == text_.size()) return false;
        const std::size_t start = pos_;
        while (pos_ < text_.size() && !isBlank(text_[pos_])) ++pos_;
        begin = text_.data() + start;
        end = text_.data() + pos_;
        return true;
    }

    // Reads a decimal int: an optional sign and digits, within int's range.
    bool readInt(int& value, std::string& problem) {
        const char *b, *e;
        if (!next(b, e)) return fail(problem, "the file ends");
        const char* p = b;
        if (*p == '+' || *p == '-') ++p;
        if (p == e) return fail(problem, "\"" + std::string(b, e) + "\" is not an integer");
        for (const char* q = p; q < e; ++q)
            if (*q < '0' || *q > '9') return fail(problem, "\"" + std::string(b, e) + "\" is not an integer");
        errno = 0;
        char* stop = nullptr;
        const long v = std::strtol(b, &stop, 10);
        if (stop != e || errno == ERANGE || v < INT32_MIN || v > INT32_MAX)
            return fail(problem, "\"" + std::string(b, e) + "\" is not an integer in range");
        value = static_cast<int>(v);
        return true;
    }

    // Reads a decimal float (digits, sign, point and exponent only).
    bool readFloat(float& value, std::string& problem) {
        const char *b, *e;
        if (!next(b, e)) return fail(problem, "the file ends");
        const std::string token(b, e);
        bool ok = token.find_first_not_of("0123456789+-.eE") == std::string::npos &&
                  token.find_first_of("0123456789") != std::string::npos;
        if (ok) {
            char* stop = nullptr;
            value = std::strtof(token.c_str(), &stop);
            ok = stop == token.c_str() + token.size();
        }
        return ok || fail(problem, "\"" + token + "\" is not a number");
    }

 private:
    static bool fail(std::string& problem, const std::string& what) {
        problem = what;
        return false;
    }
    const std::string& text_;
    std::size_t pos_ = 0;
};

// Reports a file that cannot be used for a frame.  The label image is left
// unlabelled, as the frame is skipped.
int report(const std::string& path, unsigned int frame, const std::string& what, vela::Array<float, 2>& labels,
           std::vector<int>& labelIds) {
    std::cerr << "track file " << path << ": " << what << "; frame " << frame << " skipped" << std::endl;
    char* base = reinterpret_cast<char*>(labels.data);
    for (unsigned int y = 0; y < labels.extents.y; ++y) {
        float* row = reinterpret_cast<float*>(base + static_cast<std::size_t>(y) * labels.strides.y);
        std::fill(row, row + labels.extents.x, -1.0f);
    }
    labelIds.clear();
    return kNoTrackFrame;
}

// The pixel of a point strictly inside a w x h image; false for others.
bool acceptedPixel(float x, float y, int w, int h, int& column, int& row) {
    const float wf = static_cast<float>(w), hf = static_cast<float>(h);
    if (!(x < wf && y < hf)) return false;
    if (!(x > 0.0f && y > 0.0f)) return false;  // row and column 0 are rejected on purpose
    column = static_cast<int>(x);
    row = static_cast<int>(y);
    return column < w && row < h;  // fails only for sizes a float cannot hold exactly
}

std::string place(int track, int tracks, int point = -1, int points = 0) {
    std::string s = "track " + std::to_string(track + 1) + " of " + std::to_string(tracks);
    if (point >= 0) s += ", point " + std::to_string(point + 1) + " of " + std::to_string(points);
    return s;
}

}  // namespace

int readTrackFrame(const std::string& path, unsigned int frame, int w, int h, vela::Array<float, 2>& labels,
                   std::vector<int>& labelIds) {
    if (labels.device != vela::kHostDevice || labels.data == nullptr || w < 1 || h < 1 ||
        labels.extents.x != static_cast<unsigned int>(w) || labels.extents.y != static_cast<unsigned int>(h))
        throw std::runtime_error("readTrackFrame: the label image must be a host array of the frame's size");
    labelIds.clear();

    auto fail = [&](const std::string& what) { return report(path, frame, what, labels, labelIds); };

    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        std::cout << "File " << path << " not found." << std::endl;
        return kNoTrackFrame;
    }
    std::string text;
    const bool readable = readWholeFile(f, text);
    const int readError = errno;
    std::fclose(f);
    if (!readable) return fail(std::string("cannot be read: ") + std::strerror(readError));

    TrackTokens in(text);
    std::string problem;
    const int signedFrame = static_cast<int>(frame);

    int frameCount = 0;
    if (!in.readInt(frameCount, problem)) return fail("frame count: " + problem);
    if (signedFrame >= frameCount) return kNoTrackFrame;

    int trackCount = 0;
    if (!in.readInt(trackCount, problem)) return fail("track count: " + problem);
    // A track takes at least four bytes (" 0 0"), so no count the file cannot
    // hold sends the reader on a long walk.
    if (trackCount > 0 && static_cast<std::uint64_t>(trackCount) * 4 > in.remaining())
        return fail("track count " + std::to_string(trackCount) + " is more than the rest of the file can hold");

    char* base = reinterpret_cast<char*>(labels.data);
    int largest = -1;
    for (int i = 0; i < trackCount; ++i) {
        int label = 0, pointCount = 0;
        if (!in.readInt(label, problem)) return fail(place(i, trackCount) + ": label: " + problem);
        if (!in.readInt(pointCount, problem)) return fail(place(i, trackCount) + ": point count: " + problem);
        // A point takes at least six bytes (" 1 1 0").
        if (pointCount > 0 && static_cast<std::uint64_t>(pointCount) * 6 > in.remaining())
            return fail(place(i, trackCount) + ": point count " + std::to_string(pointCount) +
                        " is more than the rest of the file can hold");
        for (int j = 0; j < pointCount; ++j) {
            float x = 0.0f, y = 0.0f;
            int t = 0;
            if (!in.readFloat(x, problem) || !in.readFloat(y, problem) || !in.readInt(t, problem))
                return fail(place(i, trackCount, j, pointCount) + ": " + problem);
            if (t != signedFrame) continue;
            int column = 0, row = 0;
            if (!acceptedPixel(x, y, w, h, column, row)) continue;
            if (label < 0 || label >= kTrackLabelLimit)
                return fail(place(i, trackCount, j, pointCount) + ": label " + std::to_string(label) +
                            " is outside 0 to " + std::to_string(kTrackLabelLimit - 1));

            const auto found = std::find(labelIds.begin(), labelIds.end(), label);
            const int k = static_cast<int>(found - labelIds.begin());
            if (found == labelIds.end()) labelIds.push_back(label);
            float* rowData = reinterpret_cast<float*>(base + static_cast<std::size_t>(row) * labels.strides.y);
            rowData[column] = static_cast<float>(k);
            largest = std::max(largest, k);
        }
    }
    return largest + 1;
}

int seedsOfTracks(const std::vector<TrackPoints>& tracks, unsigned int frame, int w, int h,
                  vela::Array<float, 2>& labels, std::vector<int>& labelIds) {
    labelIds.clear();
    char* base = reinterpret_cast<char*>(labels.data);
    int largest = -1;
    for (const TrackPoints& track : tracks)
        for (const float3& p : track.points) {
            int column = 0, row = 0;
            if (static_cast<int>(p.z) != static_cast<int>(frame) || !acceptedPixel(p.x, p.y, w, h, column, row))
                continue;
            const auto found = std::find(labelIds.begin(), labelIds.end(), track.label);
            const int k = static_cast<int>(found - labelIds.begin());
            if (found == labelIds.end()) labelIds.push_back(track.label);
            reinterpret_cast<float*>(base + static_cast<std::size_t>(row) * labels.strides.y)[column] =
                static_cast<float>(k);
            largest = std::max(largest, k);
        }
    return largest + 1;
}

std::vector<video::MotionPoint> motionOfTracks(const std::vector<TrackPoints>& tracks, unsigned int frame, int w,
                                               int h) {
    std::vector<video::MotionPoint> motion;
    if (frame == 0) return motion;
    for (const TrackPoints& track : tracks) {
        const float3 *now = nullptr, *before = nullptr;
        int column = 0, row = 0;
        for (const float3& p : track.points) {
            if (!acceptedPixel(p.x, p.y, w, h, column, row)) continue;
            if (static_cast<int>(p.z) == static_cast<int>(frame)) now = &p;
            if (static_cast<int>(p.z) == static_cast<int>(frame) - 1) before = &p;
        }
        if (now && before) motion.push_back({now->x, now->y, before->x, before->y, track.label});
    }
    return motion;
}

bool readTracks(const std::string& path, std::vector<TrackPoints>& tracks, std::string& problem, int& frameCount) {
    tracks.clear();
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        problem = "cannot be opened";
        return false;
    }
    std::string text;
    const bool readable = readWholeFile(f, text);
    std::fclose(f);
    if (!readable) {
        problem = "cannot be read";
        return false;
    }
    TrackTokens in(text);
    int trackCount = 0;
    if (!in.readInt(frameCount, problem) || !in.readInt(trackCount, problem)) return false;
    if (trackCount > 0 && static_cast<std::uint64_t>(trackCount) * 4 > in.remaining()) {
        problem = "track count " + std::to_string(trackCount) + " is more than the rest of the file can hold";
        return false;
    }
    for (int i = 0; i < trackCount; ++i) {
        TrackPoints track;
        int pointCount = 0;
        if (!in.readInt(track.label, problem) || !in.readInt(pointCount, problem)) return false;
        if (pointCount > 0 && static_cast<std::uint64_t>(pointCount) * 6 > in.remaining()) {
            problem = "point count " + std::to_string(pointCount) + " is more than the rest of the file can hold";
            return false;
        }
        for (int j = 0; j < pointCount; ++j) {
            float x = 0.0f, y = 0.0f;
            int t = 0;
            if (!in.readFloat(x, problem) || !in.readFloat(y, problem) || !in.readInt(t, problem)) return false;
            track.points.push_back(make_float3(x, y, static_cast<float>(t)));
        }
        tracks.push_back(std::move(track));
    }
    return true;
}

TrackFile::TrackFile(std::string path) : path_(std::move(path)) {
    std::string problem;
    held_ = readTracks(path_, tracks_, problem, frameCount_);
    for (const TrackPoints& track : tracks_)
        if (track.label < 0 || track.label >= kTrackLabelLimit) held_ = false;
    if (!held_) tracks_.clear();
}

int TrackFile::frame(unsigned int frame, int w, int h, vela::Array<float, 2>& labels,
                     std::vector<int>& labelIds) const {
    if (!held_) return readTrackFrame(path_, frame, w, h, labels, labelIds);
    if (labels.device != vela::kHostDevice || labels.data == nullptr || w < 1 || h < 1 ||
        labels.extents.x != static_cast<unsigned int>(w) || labels.extents.y != static_cast<unsigned int>(h))
        throw std::runtime_error("TrackFile::frame: the label image must be a host array of the frame's size");
    labelIds.clear();
    if (frame >= static_cast<unsigned int>(std::max(frameCount_, 0))) return kNoTrackFrame;
    return seedsOfTracks(tracks_, frame, w, h, labels, labelIds);
}
