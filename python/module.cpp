// denseseg._core: the engine of the program on numpy arrays.
//
// The Python layer (python/denseseg/__init__.py) checks types, shapes and
// ranges and hands over C-contiguous arrays; the checks here only keep a
// caller of this module from reaching the engine with arrays it cannot take.
// Every frame is segmented as the program's frame loop does it: the same
// float4 device image and label image, the same segmentFrame().  Settings
// arrive as configuration entries (type letter, key, value), read by the
// program's own checked reader, which refuses a bad value with its message.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/vector.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "image/CTensor.h"
#include "src/dataterms/probability_cost.h"
#include "src/driver/config.h"
#include "src/driver/settings_file.h"
#include "src/driver/tracks.h"
#include "src/engine_arrays.h"
#include "src/frame.h"
#include "src/propagate/inputs.h"
#include "src/propagate/propagator.h"
#include "src/solver/simplex.h"
#include "vela/algorithms/conversion.h"
#include "vela/algorithms/scalar_cast.h"
#include "vela/device/runtime.h"
#include "vela/tools.h"

namespace nb = nanobind;

namespace {

const cudaStream_t kDefaultStream = nullptr;

// The device layer keeps one last-error state per process, so one engine call
// runs at a time; the others wait without holding the GIL.
std::mutex engineMutex;

using Image = nb::ndarray<const float, nb::ndim<3>, nb::c_contig, nb::device::cpu>;
using Indices = nb::ndarray<const std::int32_t, nb::ndim<2>, nb::c_contig, nb::device::cpu>;
using Layers = nb::ndarray<const float, nb::ndim<3>, nb::c_contig, nb::device::cpu>;
using Points = nb::ndarray<const float, nb::ndim<3>, nb::c_contig, nb::device::cpu>;
using Visible = nb::ndarray<const std::uint8_t, nb::ndim<2>, nb::c_contig, nb::device::cpu>;
using TrackLabels = nb::ndarray<const std::int32_t, nb::ndim<1>, nb::c_contig, nb::device::cpu>;
using Clicks = nb::ndarray<const float, nb::ndim<2>, nb::c_contig, nb::device::cpu>;
// One configuration entry: type letter ("i", "f", "c" or "s"), key, value.
using Entry = std::tuple<std::string, std::string, nb::object>;

template <class T>
nb::ndarray<nb::numpy, T> ownedArray(std::vector<T>&& values, std::initializer_list<std::size_t> shape) {
    auto* owned = new std::vector<T>(std::move(values));
    nb::capsule deleter(owned, [](void* p) noexcept { delete static_cast<std::vector<T>*>(p); });
    return nb::ndarray<nb::numpy, T>(owned->data(), shape, deleter);
}

// The frame as the program builds it: three float planes, converted to a host
// float4 image (in `pixels`)...
vela::Array<float4, 2> hostImage(const float* interleaved, unsigned int w, unsigned int h,
                                 std::vector<float4>& pixels) {
    const std::size_t plane = static_cast<std::size_t>(w) * h;
    std::vector<float> planes(3 * plane);
    for (std::size_t i = 0; i < plane; ++i)
        for (int c = 0; c < 3; ++c) planes[c * plane + i] = interleaved[3 * i + c];
    const vela::Array<float, 3> planar = vela::arrayFromHostMemory(planes.data(), w, h, 3u);
    pixels.resize(plane);
    vela::Array<float4, 2> host = vela::arrayFromHostMemory(pixels.data(), make_uint2(w, h));
    vela::convert(host, planar, 1.0f, kDefaultStream);
    return host;
}

// ... and copied into a pitched device image.
vela::ScopedArray<float4, 2> deviceImage(const float* interleaved, unsigned int w, unsigned int h) {
    std::vector<float4> pixels;
    return seg::deviceCopy(hostImage(interleaved, w, h, pixels));
}

// The label image of the engine: the index as a float, -1 where no seed lies.
vela::ScopedArray<float, 2> deviceLabels(const std::int32_t* indices, unsigned int w, unsigned int h) {
    std::vector<float> values(static_cast<std::size_t>(w) * h);
    for (std::size_t i = 0; i < values.size(); ++i) values[i] = indices[i] < 0 ? -1.0f : static_cast<float>(indices[i]);
    return seg::deviceCopy(vela::arrayFromHostMemory(values.data(), make_uint2(w, h)));
}

// A W x H x L device array read back as L x H x W floats.
std::vector<float> readLayers(const vela::Array<float, 3>& a) {
    std::vector<float> values(static_cast<std::size_t>(a.extents.x) * a.extents.y * a.extents.z);
    vela::Array<float, 3> host = vela::arrayFromHostMemory(values.data(), a.extents);
    vela::arrayCopy(host, a);
    return values;
}

// A device float4 rendering as H x W x 3 bytes, each sample converted as the
// program's PPM files convert it.
std::vector<std::uint8_t> renderingBytes(const vela::Array<float4, 2>& rendering) {
    const unsigned int w = rendering.extents.x, h = rendering.extents.y;
    std::vector<float4> pixels(static_cast<std::size_t>(w) * h);
    vela::Array<float4, 2> host = vela::arrayFromHostMemory(pixels.data(), make_uint2(w, h));
    vela::arrayCopy(host, rendering);
    std::vector<std::uint8_t> bytes(3 * pixels.size());
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        bytes[3 * i + 0] = vela::internal::lowByte(pixels[i].x);
        bytes[3 * i + 1] = vela::internal::lowByte(pixels[i].y);
        bytes[3 * i + 2] = vela::internal::lowByte(pixels[i].z);
    }
    return bytes;
}

void requireImage(const Image& image, std::size_t h, std::size_t w) {
    if (image.shape(0) != h || image.shape(1) != w || image.shape(2) != 3)
        throw nb::value_error("image must be H x W x 3 with the labels' height and width");
}

// The entries as the configuration file reader would have stored them; a later
// entry of the same key replaces an earlier one, as a later line does.
ConfigMap configOf(const std::vector<Entry>& entries) {
    ConfigMap config;
    for (const auto& [letter, key, value] : entries) {
        if (letter.size() != 1 || std::string("ifcs").find(letter[0]) == std::string::npos)
            throw nb::value_error(
                ("configuration entry \"" + key + "\": type letter must be i, f, c or s, got \"" + letter + "\"")
                    .c_str());
        keyvalue kv;
        kv.type = letter[0];
        kv.key = key;
        switch (kv.type) {
            case 'i':
                kv.setInt(nb::cast<int>(value));
                break;
            case 'f':
                kv.setFloat(nb::cast<float>(value));
                break;
            case 'c': {
                const std::string c = nb::cast<std::string>(value);
                if (c.size() != 1)
                    throw nb::value_error(("configuration entry \"" + key + "\": a c value is one character").c_str());
                kv.setChar(c[0]);
                break;
            }
            default:
                kv.text = nb::cast<std::string>(value);
        }
        config[key] = kv;
    }
    return config;
}

// The settings of the entries, read by the program's reader; its message on a
// bad value becomes a ValueError.
SegmentationSettings settingsOf(const std::vector<Entry>& entries) {
    ConfigMap config = configOf(entries);
    SegmentationSettings settings;
    std::string error;
    if (!readSegmentationSettings(config, settings, error)) throw nb::value_error(error.c_str());
    return settings;
}

// The hard labelling of run() (one 1 per pixel among its labels, L x plane)
// as label indices.
std::vector<std::int32_t> labelIndices(const std::vector<float>& hard, std::size_t plane, int numLabels) {
    std::vector<std::int32_t> result(plane);
    for (std::size_t i = 0; i < plane; ++i) {
        std::int32_t best = 0;
        for (int l = 1; l < numLabels; ++l)
            if (hard[l * plane + i] > hard[best * plane + i]) best = l;
        result[i] = best;
    }
    return result;
}

// The label indices of the hard labelling, and the relaxed one beside them
// when asked for.
nb::object labellingResult(const std::vector<float>& hard, std::vector<float>&& relaxed, std::size_t h, std::size_t w,
                           int numLabels, bool returnRelaxed) {
    std::vector<std::int32_t> result = labelIndices(hard, h * w, numLabels);
    nb::object labels = nb::cast(ownedArray(std::move(result), {h, w}));
    if (!returnRelaxed) return labels;
    nb::object layers = nb::cast(ownedArray(std::move(relaxed), {static_cast<std::size_t>(numLabels), h, w}));
    return nb::make_tuple(labels, layers);
}

// --- Functions of the module --------------------------------------------------

std::string backend() { return vela::device::backendName(vela::device::backend()); }

// readTrackFrame on a fresh label image.  Returns a status (0 read, 1 the file
// cannot be opened, 2 the frame lies outside the file, 3 malformed), the
// reader's message, the H x W label indices and the track label of each index.
std::tuple<int, std::string, nb::ndarray<nb::numpy, std::int32_t>, std::vector<int>> readTrackFrameIndices(
    const std::string& path, unsigned int frame, int height, int width) {
    if (height < 1 || width < 1) throw nb::value_error("shape must be (height, width) with both at least 1");
    const unsigned int w = static_cast<unsigned int>(width), h = static_cast<unsigned int>(height);
    std::vector<float> labels(static_cast<std::size_t>(w) * h, -1.0f);
    vela::Array<float, 2> host = vela::arrayFromHostMemory(labels.data(), make_uint2(w, h));
    std::vector<int> labelIds;
    int count;
    // The reader reports on the standard streams; its lines become the message.
    std::ostringstream said;
    {
        std::lock_guard<std::mutex> lock(engineMutex);
        std::streambuf* out = std::cout.rdbuf(said.rdbuf());
        std::streambuf* err = std::cerr.rdbuf(said.rdbuf());
        try {
            count = readTrackFrame(path, frame, width, height, host, labelIds);
        } catch (...) {
            std::cout.rdbuf(out);
            std::cerr.rdbuf(err);
            throw;
        }
        std::cout.rdbuf(out);
        std::cerr.rdbuf(err);
    }
    std::string message = said.str();
    while (!message.empty() && message.back() == '\n') message.pop_back();
    int status = 0;
    if (count == kNoTrackFrame) {
        std::FILE* f = std::fopen(path.c_str(), "rb");
        if (f == nullptr)
            status = 1;
        else
            status = message.empty() ? 2 : 3;
        if (f != nullptr) std::fclose(f);
    }
    std::vector<std::int32_t> indices(labels.size());
    for (std::size_t i = 0; i < labels.size(); ++i) indices[i] = static_cast<std::int32_t>(labels[i]);
    return {status, message, ownedArray(std::move(indices), {h, w}), labelIds};
}

// A colour image file read as the program reads its frames.  Returns a
// status (0 read, 1 the file cannot be opened, 2 unreadable or not a colour
// image), a message and the H x W x 3 samples.
std::tuple<int, std::string, std::optional<nb::ndarray<nb::numpy, float>>> readImage(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return {1, "image " + path + " cannot be opened", std::nullopt};
    std::fclose(f);
    CTensor<float> tensor;
    try {
        tensor.readFromImage(path.c_str());
    } catch (const std::exception& e) {
        std::string what = e.what();
        if (what.find(path) == std::string::npos) what = "image " + path + ": " + what;
        return {2, what, std::nullopt};
    }
    if (tensor.xSize < 1 || tensor.ySize < 1 || tensor.zSize != 3)
        return {2, "image " + path + " is not a colour image", std::nullopt};
    const std::size_t w = static_cast<std::size_t>(tensor.xSize), h = static_cast<std::size_t>(tensor.ySize);
    const std::size_t plane = w * h;
    std::vector<float> samples(3 * plane);
    for (std::size_t i = 0; i < plane; ++i)
        for (std::size_t c = 0; c < 3; ++c) samples[3 * i + c] = tensor.data[c * plane + i];
    return {0, std::string(), ownedArray(std::move(samples), {h, w, 3})};
}

// The configuration file's entries as (type letter, key, value), read by the
// program's reader; with its message when the file cannot be read.
std::tuple<std::string, std::vector<Entry>> readConfig(const std::string& path) {
    ConfigMap config;
    std::string error;
    std::vector<Entry> entries;
    if (!parseConfigINI(path, config, error)) return {error, entries};
    for (const auto& [key, kv] : config) {
        nb::object value;
        switch (kv.type) {
            case 'i':
                value = nb::int_(kv.intValue());
                break;
            case 'f':
                value = nb::float_(kv.floatValue());
                break;
            case 'c':
                value = nb::str(std::string(1, kv.charValue()).c_str());
                break;
            default:
                value = nb::str(kv.text.c_str());
        }
        entries.emplace_back(std::string(1, kv.type), key, value);
    }
    return {std::string(), entries};
}

// Every key of the settings with its type letter and the engine's default,
// for the package's keywords.
std::vector<Entry> settingKeyTable() {
    const SegmentationSettings defaults;
    std::vector<Entry> keys;
    for (const SettingKey& entry : settingKeys())
        std::visit(
            [&](auto member) {
                const auto value = defaults.*member;
                using Value = std::remove_const_t<decltype(value)>;
                if constexpr (std::is_same_v<Value, int>)
                    keys.emplace_back("i", entry.key, nb::int_(value));
                else if constexpr (std::is_same_v<Value, float>)
                    keys.emplace_back("f", entry.key, nb::float_(value));
                else
                    keys.emplace_back("s", entry.key, nb::str(entry.words[static_cast<int>(value)]));
            },
            entry.member);
    return keys;
}

// The program's message for the first bad value among the entries, or "".
std::string settingsError(const std::vector<Entry>& entries) {
    ConfigMap config = configOf(entries);
    SegmentationSettings settings;
    std::string error;
    return readSegmentationSettings(config, settings, error) ? std::string() : error;
}

// Checks a frame of h x w pixels with `labels` labels and its image.
void requireFrame(const Image& image, std::size_t h, std::size_t w, std::size_t labels) {
    requireImage(image, h, w);
    if (h < 1 || w < 1) throw nb::value_error("image must not be empty");
    requireAddressable(w, h, labels);
}

// Runs `solve` (device image -> solved FrameSolver) on the frame under the
// engine's lock, without the GIL, and returns its labelling.
template <class Solve>
nb::object labellingOf(const Image& image, int numLabels, bool returnRelaxed, Solve solve) {
    const std::size_t h = image.shape(0), w = image.shape(1);
    std::vector<float> hard, relaxed;
    {
        nb::gil_scoped_release released;
        std::lock_guard<std::mutex> lock(engineMutex);
        vela::ScopedArray<float4, 2> frame =
            deviceImage(image.data(), static_cast<unsigned int>(w), static_cast<unsigned int>(h));
        const std::unique_ptr<FrameSolver> seg = solve(frame.a);
        hard = readLayers(seg->u);
        if (returnRelaxed) relaxed = readLayers(seg->uResult);
    }
    return labellingResult(hard, std::move(relaxed), h, w, numLabels, returnRelaxed);
}

nb::object segment(const Image& image, const Indices& seeds, int numLabels, const std::vector<Entry>& entries,
                   bool returnRelaxed) {
    const std::size_t h = seeds.shape(0), w = seeds.shape(1);
    if (numLabels < 1 || numLabels > seg::kMaxLabels)
        throw nb::value_error(("num_labels must be from 1 to " + std::to_string(seg::kMaxLabels)).c_str());
    requireFrame(image, h, w, static_cast<std::size_t>(numLabels));
    for (std::size_t i = 0; i < h * w; ++i)
        if (seeds.data()[i] >= numLabels) throw nb::value_error("seeds holds an index not below num_labels");
    const SegmentationSettings settings = settingsOf(entries);
    return labellingOf(image, numLabels, returnRelaxed, [&](vela::Array<float4, 2>& frame) {
        const vela::ScopedArray<float, 2> labels =
            deviceLabels(seeds.data(), static_cast<unsigned int>(w), static_cast<unsigned int>(h));
        auto seg = std::make_unique<FrameSolver>(frame);
        segmentFrame(*seg, FrameSeeds{labels.a, std::vector<int>(static_cast<std::size_t>(numLabels))}, settings);
        return seg;
    });
}

// The solver on the costs of given per-label probabilities (L x H x W): the
// cost map from probabilitiesToCost(), the solver's settings from the entries,
// as a frame sets them.
nb::object refine(const Image& image, const Layers& probabilities, const std::vector<Entry>& entries,
                  bool returnRelaxed) {
    const std::size_t L = probabilities.shape(0), h = probabilities.shape(1), w = probabilities.shape(2);
    if (L < 1 || L > static_cast<std::size_t>(seg::kMaxLabels))
        throw nb::value_error(("probabilities must hold 1 to " + std::to_string(seg::kMaxLabels) + " labels").c_str());
    requireFrame(image, h, w, L);
    const SegmentationSettings settings = settingsOf(entries);
    return labellingOf(image, static_cast<int>(L), returnRelaxed, [&](vela::Array<float4, 2>& frame) {
        const unsigned int W = static_cast<unsigned int>(w), H = static_cast<unsigned int>(h);
        const unsigned int layers = static_cast<unsigned int>(L);
        vela::ScopedArray<float, 3> given(seg::deviceArray3D<float>(W, H, layers));
        // L x H x W in C order is the host layout of a W x H x L array.
        vela::arrayCopy(given.a, vela::arrayFromHostMemory(const_cast<float*>(probabilities.data()), W, H, layers));
        vela::ScopedArray<float, 3> costMap(seg::deviceArray3D<float>(W, H, layers));
        probabilitiesToCost(costMap.a, given.a);
        auto seg = std::make_unique<FrameSolver>(frame, costMap.a);
        costMap.release();  // the object has taken it over
        applySolverSettings(*seg, settings, settings.lambda);
        solveFrame(*seg);
        return seg;
    });
}

// A video, frame after frame, as the program's whole-folder mode runs it: each
// frame's seeds from the tracks (points T x N x 2, visible T x N, labels N) by
// the program's rule, and with "temporal 1" each frame starting from the one
// before.  It holds the tracks and what the next frame needs, nothing of the
// frames before: a video of any length takes the memory of one frame.
class Video {
 public:
    Video(const Points& points, const Visible& visible, const TrackLabels& trackLabels,
          const std::vector<Entry>& entries)
        : settings_(settingsOf(entries)) {
        const std::size_t T = points.shape(0), N = trackLabels.shape(0);
        if (points.shape(1) != N || points.shape(2) != 2)
            throw nb::value_error("points must be T x N x 2, one row per frame and track");
        if (visible.shape(0) != T || visible.shape(1) != N) throw nb::value_error("visible must be T x N like points");
        tracks_.resize(N);
        for (std::size_t n = 0; n < N; ++n) {
            const std::int32_t label = trackLabels.data()[n];
            if (label < 0 || label >= kTrackLabelLimit)
                throw nb::value_error(
                    ("track labels must be from 0 to " + std::to_string(kTrackLabelLimit - 1)).c_str());
            tracks_[n].label = label;
            for (std::size_t t = 0; t < T; ++t)
                if (visible.data()[t * N + n])
                    tracks_[n].points.push_back(make_float3(points.data()[(t * N + n) * 2],
                                                            points.data()[(t * N + n) * 2 + 1], static_cast<float>(t)));
        }
    }

    // Frame t (H x W x 3): H x W int32 track labels (-1 throughout a frame
    // without seeds) and whether it started from the frame before.
    std::tuple<nb::ndarray<nb::numpy, std::int32_t>, bool> segment(const Image& image, std::size_t t) {
        const std::size_t h = image.shape(0), w = image.shape(1);
        if (h < 1 || w < 1) throw nb::value_error("frames must not be empty");
        if (image.shape(2) != 3) throw nb::value_error("a frame must be H x W x 3");
        const unsigned int W = static_cast<unsigned int>(w), H = static_cast<unsigned int>(h);
        const std::size_t plane = w * h;
        std::vector<std::int32_t> result(plane, -1);
        bool continued = false;
        {
            nb::gil_scoped_release released;
            std::lock_guard<std::mutex> lock(engineMutex);
            const unsigned int frame = static_cast<unsigned int>(t);
            std::vector<float> seedValues(plane, -1.0f);
            vela::Array<float, 2> seedView = vela::arrayFromHostMemory(seedValues.data(), make_uint2(W, H));
            FrameSeeds seeds;
            if (seedsOfTracks(tracks_, frame, static_cast<int>(W), static_cast<int>(H), seedView, seeds.labelIds) < 1) {
                carry_ = {};
            } else {
                requireAddressable(w, h, seeds.labelIds.size());
                vela::ScopedArray<float4, 2> device(deviceImage(image.data(), W, H));
                const vela::ScopedArray<float, 2> labels = seg::deviceCopy(seedView);
                seeds.labels = labels.a;
                if (settings_.temporal == 1)
                    seeds.motion = motionOfTracks(tracks_, frame, static_cast<int>(W), static_cast<int>(H));
                FrameSolver seg(device.a);
                carry_ = segmentFrame(seg, seeds, settings_, std::move(carry_));
                continued = carry_.continued;
                const std::vector<std::int32_t> indices =
                    labelIndices(readLayers(seg.u), plane, static_cast<int>(seeds.labelIds.size()));
                for (std::size_t i = 0; i < plane; ++i) result[i] = seeds.labelIds[indices[i]];
            }
        }
        return {ownedArray(std::move(result), {h, w}), continued};
    }

 private:
    SegmentationSettings settings_;
    std::vector<TrackPoints> tracks_;
    video::Carry carry_;
};

// A video propagated from annotations or clicks with tracks made from the
// optical flow, frame after frame (src/propagate/propagator.h).  It holds the
// tracks through the current frame and nothing of the frames before.
class Propagation {
 public:
    explicit Propagation(const std::vector<Entry>& entries) {
        const ConfigMap config = configOf(entries);
        SegmentationSettings settings;
        propagate::TrackerSettings tracker;
        std::string error;
        if (!propagate::propagationSettings(config, settings, tracker, error)) throw nb::value_error(error.c_str());
        propagator_ = std::make_unique<propagate::Propagator>(settings, tracker, nullptr);
    }

    // The next frame (H x W x 3) with its annotation (H x W label values,
    // 255 open) and clicks (x, y, label rows), either may be None: the frame's
    // H x W int32 label values.
    nb::ndarray<nb::numpy, std::int32_t> next(const Image& image, std::optional<Visible> annotation,
                                              std::optional<Clicks> clicks) {
        const std::size_t h = image.shape(0), w = image.shape(1);
        if (h < 1 || w < 1 || image.shape(2) != 3) throw nb::value_error("a frame must be H x W x 3, not empty");
        if (annotation && (annotation->shape(0) != h || annotation->shape(1) != w))
            throw nb::value_error("an annotation must have its frame's height and width");
        if (clicks && clicks->shape(1) != 3) throw nb::value_error("clicks must be rows of x, y and label");
        std::vector<std::int32_t> result(w * h);
        {
            nb::gil_scoped_release released;
            std::lock_guard<std::mutex> lock(engineMutex);
            std::vector<float4> pixels;
            const vela::Array<float4, 2> host =
                hostImage(image.data(), static_cast<unsigned int>(w), static_cast<unsigned int>(h), pixels);
            propagate::FrameInput input;
            std::vector<std::uint8_t> values;
            if (annotation) {
                values.assign(annotation->data(), annotation->data() + w * h);
                input.annotation = &values;
            }
            if (clicks)
                for (std::size_t i = 0; i < clicks->shape(0); ++i) {
                    const float* row = clicks->data() + 3 * i;
                    input.clicks.push_back(propagate::Click{row[0], row[1], static_cast<int>(row[2])});
                }
            propagator_->next(host, input);
            const std::vector<std::uint8_t>& labels = propagator_->labels();
            std::copy(labels.begin(), labels.end(), result.begin());
        }
        return ownedArray(std::move(result), {h, w});
    }

 private:
    std::unique_ptr<propagate::Propagator> propagator_;
};

std::pair<nb::ndarray<nb::numpy, std::uint8_t>, std::optional<nb::ndarray<nb::numpy, std::uint8_t>>> render(
    const Indices& labels, const std::vector<int>& labelIds, std::optional<Image> image, float alpha) {
    const std::size_t h = labels.shape(0), w = labels.shape(1);
    if (h < 1 || w < 1) throw nb::value_error("labels must not be empty");
    if (image) requireImage(*image, h, w);
    const std::size_t n = labelIds.size();
    if (n < 1 || n > static_cast<std::size_t>(seg::kMaxLabels))
        throw nb::value_error(("label_ids must hold 1 to " + std::to_string(seg::kMaxLabels) + " labels").c_str());
    requireAddressable(w, h, n);
    const std::size_t plane = h * w;
    for (std::size_t i = 0; i < plane; ++i)
        if (labels.data()[i] < 0 || static_cast<std::size_t>(labels.data()[i]) >= n)
            throw nb::value_error("labels must hold indices from 0 to len(label_ids) - 1");

    // The hard labelling of run(): one 1 per pixel, in the layer of its label.
    std::vector<float> layers(plane * n, 0.0f);
    for (std::size_t i = 0; i < plane; ++i) layers[static_cast<std::size_t>(labels.data()[i]) * plane + i] = 1.0f;
    std::vector<float> black;
    const float* pixels = image ? image->data() : nullptr;
    if (!pixels) {
        black.assign(3 * plane, 0.0f);
        pixels = black.data();
    }

    const unsigned int W = static_cast<unsigned int>(w), H = static_cast<unsigned int>(h);
    const unsigned int L = static_cast<unsigned int>(n);
    std::vector<std::uint8_t> dense, overlay;
    {
        nb::gil_scoped_release released;
        std::lock_guard<std::mutex> lock(engineMutex);
        vela::ScopedArray<float4, 2> frame(deviceImage(pixels, W, H));
        // The object takes the (unused) cost map over; its u receives the labelling.
        vela::ScopedArray<float, 3> costMap(seg::deviceArray3D<float>(W, H, L));
        FrameSolver seg(frame.a, costMap.a);
        costMap.release();  // the object has taken it over
        vela::arrayCopy(seg.u, vela::arrayFromHostMemory(layers.data(), W, H, L));
        setLabelColours(seg, labelIds);
        seg.computeColorRepresentation(seg.u, true, false);
        dense = renderingBytes(seg.colorImage);
        if (image) overlay = renderingBytes(seg.getColorImageOverlay(alpha));
    }
    std::optional<nb::ndarray<nb::numpy, std::uint8_t>> blended;
    if (image) blended = ownedArray(std::move(overlay), {h, w, 3});
    return {ownedArray(std::move(dense), {h, w, 3}), blended};
}

}  // namespace

NB_MODULE(_core, m) {
    m.doc() = "The segmentation engine of denseseg; use the functions of the denseseg package.";
    m.attr("MAX_LABELS") = seg::kMaxLabels;
    m.attr("TRACK_LABEL_LIMIT") = kTrackLabelLimit;
    m.def("backend", &backend, "The backend this process runs the engine on: \"cuda\" or \"host\".");
    m.def("read_track_frame", &readTrackFrameIndices, nb::arg("path"), nb::arg("frame"), nb::arg("height"),
          nb::arg("width"), "The label indices of one frame of a track file, with a status and the reader's message.");
    m.def("read_image", &readImage, nb::arg("path"),
          "A colour PPM file as H x W x 3 float32 samples, with a status and a message.");
    m.def("read_config", &readConfig, nb::arg("path"),
          "The entries (type letter, key, value) of a configuration file, with the reader's message on failure.");
    m.def("settings_error", &settingsError, nb::arg("entries"),
          "The program's message for the first bad value among configuration entries, or an empty string.");
    m.def("segment", &segment, nb::arg("image"), nb::arg("seeds"), nb::arg("num_labels"), nb::arg("entries"),
          nb::arg("return_relaxed"),
          "Segments a float32 H x W x 3 image from int32 H x W seed indices with the settings of configuration "
          "entries (type letter, key, value).");
    m.def("refine", &refine, nb::arg("image"), nb::arg("probabilities"), nb::arg("entries"), nb::arg("return_relaxed"),
          "Runs the solver on the costs of float32 L x H x W per-label probabilities with the settings of "
          "configuration entries.");
    nb::class_<Video>(m, "Video",
                      "A video's tracks (T x N x 2 float32 points, T x N uint8 visibility, N int32 labels) and "
                      "settings; segments its frames in order as the program's whole-folder mode does.")
        .def(nb::init<const Points&, const Visible&, const TrackLabels&, const std::vector<Entry>&>(),
             nb::arg("points"), nb::arg("visible"), nb::arg("track_labels"), nb::arg("entries"))
        .def("segment", &Video::segment, nb::arg("image"), nb::arg("t"),
             "Frame t (float32 H x W x 3): its track labels and whether it started from the frame before.");
    nb::class_<Propagation>(m, "Propagation",
                            "A video propagated from annotations or clicks with tracks made from the optical flow.")
        .def(nb::init<const std::vector<Entry>&>(), nb::arg("entries"))
        .def("next", &Propagation::next, nb::arg("image"), nb::arg("annotation").none(), nb::arg("clicks").none(),
             "Segments the next frame: H x W int32 label values.");
    m.def("setting_keys", &settingKeyTable,
          "Every configuration key of the settings: (key, type letter, the engine's default).");
    m.def("render", &render, nb::arg("labels"), nb::arg("label_ids"), nb::arg("image").none(), nb::arg("alpha"),
          "The colour picture of a labelling and, given the image, its overlay.");
}
