// Generates the demo: a short synthetic video of three textured objects
// moving over a textured background and hiding each other, with
//   frames/frame_NNN.ppm       the colour frames,
//   groundtruth/frame_NNN.pgm  the true object of every pixel (grey 0, 80,
//                              160, 240 for the background and objects 1-3),
//   tracks.dat                 labelled point tracks that follow the objects
//                              while they are visible, a few of them with a
//                              wrong label, as real tracks have,
//   filestructure              the configuration, with folders relative to
//                              the output folder.
// Everything comes from one fixed seed and a generator of our own, and only
// correctly rounded arithmetic (+, -, *, /, sqrt, no fused multiply-add) is
// used, so the output is the same on every machine.
//
//     make_demo <output folder> [maxiter] [lambda]
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/pnm.h"

namespace {

constexpr int kWidth = 320;
constexpr int kHeight = 240;
constexpr int kFrames = 8;
constexpr int kDefaultMaxiter = 500;
constexpr double kDefaultLambda = 50.0;

// splitmix64: small, fast and the same everywhere.
class Random {
 public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next() {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    // Uniform in [0, 1).
    double uniform() { return static_cast<double>(next() >> 11) * (1.0 / 9007199254740992.0); }
    int below(int n) { return static_cast<int>(next() % static_cast<std::uint64_t>(n)); }

 private:
    std::uint64_t state_;
};

// Smooth value noise over a lattice of random values, in [0, 1].
class ValueNoise {
 public:
    ValueNoise(Random& random, int cells) : cells_(cells), values_((cells + 1) * (cells + 1)) {
        for (double& v : values_) v = random.uniform();
    }
    // u, v in [0, 1] over the lattice.
    double at(double u, double v) const {
        const double x = clamp01(u) * cells_, y = clamp01(v) * cells_;
        const int i = std::min(static_cast<int>(x), cells_ - 1), j = std::min(static_cast<int>(y), cells_ - 1);
        const double fx = smooth(x - i), fy = smooth(y - j);
        const double a = value(i, j), b = value(i + 1, j), c = value(i, j + 1), d = value(i + 1, j + 1);
        return (a * (1 - fx) + b * fx) * (1 - fy) + (c * (1 - fx) + d * fx) * fy;
    }

 private:
    static double clamp01(double t) { return t < 0 ? 0 : t > 1 ? 1 : t; }
    static double smooth(double t) { return t * t * (3 - 2 * t); }
    double value(int i, int j) const { return values_[j * (cells_ + 1) + i]; }
    int cells_;
    std::vector<double> values_;
};

struct Colour {
    double r, g, b;
};

Colour mix(const Colour& a, const Colour& b, double t) {
    return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

enum Shape { DISC, BOX, ELLIPSE };

// One moving object: a shape around its centre, moving at constant speed.
struct Object {
    Shape shape;
    double rx, ry;  // half width and half height
    double x0, y0;  // centre in frame 0
    double vx, vy;  // pixels per frame
    int label;      // track label (a palette index)
    int truth;      // grey value in the ground truth

    double cx(int t) const { return x0 + vx * t; }
    double cy(int t) const { return y0 + vy * t; }
    // (u, v) relative to the centre.
    bool contains(double u, double v) const {
        switch (shape) {
            case DISC:
            case ELLIPSE:
                return (u * u) / (rx * rx) + (v * v) / (ry * ry) <= 1.0;
            case BOX:
                return std::fabs(u) <= rx && std::fabs(v) <= ry;
        }
        return false;
    }
};

// Back to front; index 0 is the background.
const Object kObjects[] = {
    {ELLIPSE, 30, 45, 170, 40, 3, 14, 3, 240},  // green in the result
    {DISC, 36, 36, 60, 80, 22, 4, 2, 80},       // blue
    {BOX, 50, 28, 260, 150, -20, -3, 8, 160},   // orange
};
constexpr int kObjectCount = 3;
constexpr int kBackgroundLabel = 0;  // red

class Scene {
 public:
    explicit Scene(Random& random) : coarse_(random, 6), fine_(random, 24), skin_(random, 8) {}

    // Object at pixel (x, y) of frame t: 1 to kObjectCount, front-most wins; 0 for the background.
    int objectAt(double x, double y, int t) const {
        for (int o = kObjectCount - 1; o >= 0; --o)
            if (kObjects[o].contains(x - kObjects[o].cx(t), y - kObjects[o].cy(t))) return o + 1;
        return 0;
    }

    Colour colour(int x, int y, int t) const {
        const double px = x + 0.5, py = y + 0.5;
        const int o = objectAt(px, py, t);
        if (o == 0) return background(px, py);
        const Object& ob = kObjects[o - 1];
        const double u = px - ob.cx(t), v = py - ob.cy(t);
        switch (ob.shape) {
            case DISC: {  // rings 8 pixels apart
                const double r = std::sqrt(u * u + v * v) / 8.0;
                const double ring = 2.0 * std::fabs(r - std::floor(r) - 0.5);
                return mix(Colour{30, 60, 150}, Colour{90, 130, 210}, ring);
            }
            case BOX: {  // checkerboard
                const bool dark =
                    ((static_cast<int>(std::floor((u + 100) / 10)) + static_cast<int>(std::floor((v + 100) / 10))) &
                     1) != 0;
                return dark ? Colour{160, 120, 30} : Colour{215, 180, 60};
            }
            case ELLIPSE: {  // mottled
                const double n = skin_.at((u + ob.rx) / (2 * ob.rx), (v + ob.ry) / (2 * ob.ry));
                return mix(Colour{120, 40, 90}, Colour{200, 80, 150}, n);
            }
        }
        return background(px, py);
    }

 private:
    Colour background(double x, double y) const {
        const double a = coarse_.at(x / kWidth, y / kHeight), b = fine_.at(x / kWidth, y / kHeight);
        const Colour base = mix(Colour{70, 95, 60}, Colour{150, 150, 115}, a);
        return mix(base, Colour{105, 90, 70}, 0.6 * b);
    }

    ValueNoise coarse_, fine_, skin_;
};

std::uint8_t byte(double v) { return static_cast<std::uint8_t>(v < 0 ? 0 : v > 255 ? 255 : std::lround(v)); }

std::string frameName(int t) {
    char name[32];
    std::snprintf(name, sizeof name, "frame_%03d", t);
    return name;
}

struct Point {
    double x, y;
    int t;
};
struct Track {
    int label;
    std::vector<Point> points;
};

// Follows one point, fixed relative to object `o` (0 = background), through
// all frames; every run of frames in which it stays visible is one track.
void follow(const Scene& scene, int o, double u, double v, Random& random, std::vector<Track>& tracks) {
    const int label = o == 0 ? kBackgroundLabel : kObjects[o - 1].label;
    Track current{label, {}};
    auto flush = [&] {
        if (!current.points.empty()) tracks.push_back(current);
        current.points.clear();
    };
    for (int t = 0; t < kFrames; ++t) {
        const double x = o == 0 ? u : kObjects[o - 1].cx(t) + u;
        const double y = o == 0 ? v : kObjects[o - 1].cy(t) + v;
        const bool visible = x >= 1 && x < kWidth - 1 && y >= 1 && y < kHeight - 1 && scene.objectAt(x, y, t) == o;
        if (!visible) {
            flush();
            continue;
        }
        // Trackers are a little off: up to a quarter pixel.
        const double jx = (random.uniform() - 0.5) * 0.5, jy = (random.uniform() - 0.5) * 0.5;
        current.points.push_back({x + jx, y + jy, t});
    }
    flush();
}

std::vector<Track> makeTracks(const Scene& scene, Random& random) {
    std::vector<Track> tracks;
    for (int y = 4; y < kHeight; y += 8)
        for (int x = 4; x < kWidth; x += 8) follow(scene, 0, x + 0.5, y + 0.5, random, tracks);
    for (int o = 1; o <= kObjectCount; ++o) {
        const Object& ob = kObjects[o - 1];
        for (double v = -ob.ry + 3; v < ob.ry; v += 6)
            for (double u = -ob.rx + 3; u < ob.rx; u += 6)
                if (ob.contains(u, v)) follow(scene, o, u, v, random, tracks);
    }
    // About 3 % of the tracks carry another object's label.
    const int labels[] = {kBackgroundLabel, kObjects[0].label, kObjects[1].label, kObjects[2].label};
    for (Track& track : tracks) {
        if (random.below(100) >= 3) continue;
        int wrong;
        do wrong = labels[random.below(4)];
        while (wrong == track.label);
        track.label = wrong;
    }
    return tracks;
}

void writeTracks(const std::vector<Track>& tracks, const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr) throw std::runtime_error("cannot create " + path);
    std::fprintf(f, "%d\n%zu\n", kFrames, tracks.size());
    for (const Track& track : tracks) {
        std::fprintf(f, "%d %zu\n", track.label, track.points.size());
        for (const Point& p : track.points) std::fprintf(f, "%.2f %.2f %d\n", p.x, p.y, p.t);
    }
    if (std::fclose(f) != 0) throw std::runtime_error("cannot write " + path);
}

void writeConfig(const std::string& path, int maxiter, double lambda) {
    std::FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr) throw std::runtime_error("cannot create " + path);
    std::fprintf(f,
                 "# demo sequence: run denseseg in the folder of this file, the folders below are relative to it\n"
                 "s dataDir frames\n"
                 "s tracksDir -\n"
                 "s resultDir results\n"
                 "f lambda %g\n"
                 "i maxiter %d\n",
                 lambda, maxiter);
    if (std::fclose(f) != 0) throw std::runtime_error("cannot write " + path);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 4) {
        std::fprintf(stderr, "usage: make_demo <output folder> [maxiter (%d)] [lambda (%g)]\n", kDefaultMaxiter,
                     kDefaultLambda);
        return 2;
    }
    const std::string folder = argv[1];
    const int maxiter = argc > 2 ? std::atoi(argv[2]) : kDefaultMaxiter;
    const double lambda = argc > 3 ? std::atof(argv[3]) : kDefaultLambda;
    try {
        std::filesystem::create_directories(folder + "/frames");
        std::filesystem::create_directories(folder + "/groundtruth");
        Random random(20240611);
        const Scene scene(random);
        for (int t = 0; t < kFrames; ++t) {
            demo::Image frame(kWidth, kHeight, 3), truth(kWidth, kHeight, 1);
            for (int y = 0; y < kHeight; ++y) {
                for (int x = 0; x < kWidth; ++x) {
                    const Colour c = scene.colour(x, y, t);
                    // Sensor noise of up to 4 grey levels.
                    std::uint8_t* p = frame.at(x, y);
                    p[0] = byte(c.r + random.below(9) - 4);
                    p[1] = byte(c.g + random.below(9) - 4);
                    p[2] = byte(c.b + random.below(9) - 4);
                    const int o = scene.objectAt(x + 0.5, y + 0.5, t);
                    truth.at(x, y)[0] = static_cast<std::uint8_t>(o == 0 ? 0 : kObjects[o - 1].truth);
                }
            }
            demo::writePNM(frame, folder + "/frames/" + frameName(t) + ".ppm");
            demo::writePNM(truth, folder + "/groundtruth/" + frameName(t) + ".pgm");
        }
        const std::vector<Track> tracks = makeTracks(scene, random);
        writeTracks(tracks, folder + "/tracks.dat");
        writeConfig(folder + "/filestructure", maxiter, lambda);
        std::printf("demo: %d frames of %d x %d and %zu tracks in %s\n", kFrames, kWidth, kHeight, tracks.size(),
                    folder.c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "make_demo: %s\n", e.what());
        return 1;
    }
    return 0;
}
