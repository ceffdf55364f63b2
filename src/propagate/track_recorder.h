// The tracks a run makes, written as a track file at the end without holding
// their points: each point goes to a binary scratch file beside the result as
// it is made, and the track file is assembled from it in batches of tracks,
// so a long video takes little memory however many points its tracks have.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace propagate {

class TrackRecorder {
 public:
    // The track file will be `path`; the scratch file lies in its folder.
    // Assembling it holds about `batchPoints` points at a time.
    explicit TrackRecorder(std::string path, std::size_t batchPoints = std::size_t(1) << 18);
    ~TrackRecorder();
    TrackRecorder(const TrackRecorder&) = delete;
    TrackRecorder& operator=(const TrackRecorder&) = delete;

    // A new track; returns its number.  Labels may change until write().
    int newTrack(int label);
    void setLabel(int track, int label) { labels_[static_cast<std::size_t>(track)] = label; }
    int label(int track) const { return labels_[static_cast<std::size_t>(track)]; }
    // The track's point in `frame`; a track's points come in frame order.
    void addPoint(int track, float x, float y, int frame);

    // Writes the track file ("<frame count> <track count>", then per track
    // "<label> <point count>" and its "<x> <y> <frame>" lines) in place and
    // removes the scratch file.  Throws std::runtime_error when a file cannot
    // be written.
    void write(int frameCount);

 private:
    struct Point {
        int track;
        float x, y;
        int frame;
    };
    void flush();

    std::string path_, scratchPath_;
    std::size_t batchPoints_;
    std::FILE* scratch_ = nullptr;
    std::vector<int> labels_, counts_;
    std::vector<Point> pending_;
};

}  // namespace propagate
