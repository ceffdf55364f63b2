#include "src/propagate/track_recorder.h"

#include <charconv>
#include <memory>
#include <stdexcept>

#include "src/driver/result_files.h"

namespace propagate {

namespace {

// Points gathered before they go to the scratch file.
constexpr std::size_t kPendingPoints = 1 << 14;

void put(std::string& out, float value) {
    char digits[32];
    const auto end = std::to_chars(digits, digits + sizeof digits, value, std::chars_format::fixed, 2).ptr;
    out.append(digits, end);
}

void put(std::string& out, long long value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    out.append(digits, end);
}

}  // namespace

TrackRecorder::TrackRecorder(std::string path, std::size_t batchPoints)
    : path_(std::move(path)), scratchPath_(partialName(path_ + ".points")), batchPoints_(batchPoints) {
    scratch_ = std::fopen(scratchPath_.c_str(), "w+b");
    if (scratch_ == nullptr) throw std::runtime_error("cannot write " + scratchPath_);
}

TrackRecorder::~TrackRecorder() {
    if (scratch_ != nullptr) std::fclose(scratch_);
    removeQuietly(scratchPath_);
}

int TrackRecorder::newTrack(int label) {
    labels_.push_back(label);
    counts_.push_back(0);
    return static_cast<int>(labels_.size()) - 1;
}

void TrackRecorder::addPoint(int track, float x, float y, int frame) {
    ++counts_[static_cast<std::size_t>(track)];
    pending_.push_back(Point{track, x, y, frame});
    if (pending_.size() >= kPendingPoints) flush();
}

void TrackRecorder::flush() {
    if (pending_.empty()) return;
    if (std::fwrite(pending_.data(), sizeof(Point), pending_.size(), scratch_) != pending_.size())
        throw std::runtime_error("writing " + scratchPath_ + " failed");
    pending_.clear();
}

void TrackRecorder::write(int frameCount) {
    flush();
    writeInPlace(path_, [&](const std::string& partial) {
        std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(partial.c_str(), "wb"), std::fclose);
        if (!file) throw std::runtime_error("cannot write " + partial);
        std::FILE* out = file.get();
        std::string text;
        put(text, static_cast<long long>(frameCount));
        text += '\n';
        put(text, static_cast<long long>(labels_.size()));
        text += '\n';
        bool ok = std::fwrite(text.data(), 1, text.size(), out) == text.size();
        // Tracks first .. last - 1 hold at most batchPoints_ points (or are
        // one longer track); each batch reads the scratch file once.
        std::vector<std::size_t> start;
        std::vector<Point> batch;
        std::vector<Point> buffer(kPendingPoints);
        for (std::size_t first = 0; ok && first < labels_.size();) {
            std::size_t last = first, points = 0;
            while (last < labels_.size() && (last == first || points + counts_[last] <= batchPoints_))
                points += static_cast<std::size_t>(counts_[last++]);
            start.assign(last - first + 1, 0);
            for (std::size_t t = first; t < last; ++t)
                start[t - first + 1] = start[t - first] + static_cast<std::size_t>(counts_[t]);
            batch.resize(points);
            std::vector<std::size_t> filled(start.begin(), start.end() - 1);
            std::rewind(scratch_);
            for (std::size_t n; (n = std::fread(buffer.data(), sizeof(Point), buffer.size(), scratch_)) > 0;)
                for (std::size_t i = 0; i < n; ++i) {
                    const std::size_t t = static_cast<std::size_t>(buffer[i].track);
                    if (t >= first && t < last) batch[filled[t - first]++] = buffer[i];
                }
            if (std::ferror(scratch_) != 0) throw std::runtime_error("reading " + scratchPath_ + " failed");
            for (std::size_t t = first; t < last && ok; ++t) {
                text.clear();
                put(text, static_cast<long long>(labels_[t] < 0 ? 0 : labels_[t]));
                text += ' ';
                put(text, static_cast<long long>(counts_[t]));
                text += '\n';
                for (std::size_t i = start[t - first]; i < start[t - first + 1]; ++i) {
                    put(text, batch[i].x);
                    text += ' ';
                    put(text, batch[i].y);
                    text += ' ';
                    put(text, static_cast<long long>(batch[i].frame));
                    text += '\n';
                }
                ok = std::fwrite(text.data(), 1, text.size(), out) == text.size();
            }
            first = last;
        }
        if (std::fclose(file.release()) != 0 || !ok) throw std::runtime_error("writing " + partial + " failed");
    });
    std::fseek(scratch_, 0, SEEK_END);
}

}  // namespace propagate
