// The labels' colour models against a plain reading of them, and the seed
// check that asks them as a second witness.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "engine_test_util.h"
#include "src/dataterms/colour_model.h"
#include "src/dataterms/seed_check.h"

namespace {

using namespace enginetest;

struct Frame {
    unsigned int w, h;
    std::vector<float4> image;
    std::vector<float> labels;  // -1: no seed
};

unsigned int state = 2024;
unsigned int next() { return (state = state * 1103515245u + 12345u) >> 8; }

// Colours of three families with some spread and overlap; labels 0 and 1
// seeded on a grid, label 2 by four clicks (so it learns from patches).
Frame threeLabels(unsigned int w, unsigned int h) {
    Frame f{w, h, std::vector<float4>(w * h), std::vector<float>(w * h, -1.0f)};
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            const int region = x < w / 3 ? 0 : x < 2 * w / 3 ? 1 : 2;
            const float base[3][3] = {{200, 40, 40}, {60, 180, 60}, {70, 70, 200}};
            const float spread = 50;
            f.image[y * w + x] = make_float4(base[region][0] + float(next() % 50) - spread / 2,
                                             base[region][1] + float(next() % 50) - spread / 2,
                                             base[region][2] + float(next() % 50) - spread / 2, 0);
            if (region < 2 && x % 3 == 1 && y % 3 == 1) f.labels[y * w + x] = float(region);
        }
    for (unsigned int k = 0; k < 4; ++k) f.labels[(3 + 5 * k) * w + w - 4 - k] = 2;
    return f;
}

// The models as plain loops: histograms of 16 levels a channel, smoothed by a
// normalised Gaussian of one level (radius 3), read as densities.
struct PlainModel {
    unsigned int L;
    std::vector<std::vector<double>> density;  // [label][bin]
    std::vector<double> n;
    std::vector<int> seeds;

    static int level(float v) { return std::clamp(int(v * 16.0f / 256.0f), 0, 15); }
    static int bin(const float4& c) { return (level(c.x) * 16 + level(c.y)) * 16 + level(c.z); }
    static double weight(int k) {
        double sum = 0;
        for (int j = -3; j <= 3; ++j) sum += std::exp(-j * j / 2.0);
        return std::exp(-k * k / 2.0) / sum;
    }

    PlainModel(const Frame& f, unsigned int labels) : L(labels), density(L), n(L, 0), seeds(L, 0) {
        std::vector<std::vector<double>> counts(L, std::vector<double>(4096, 0.0));
        int total = 0;
        for (float v : f.labels)
            if (v >= 0) ++seeds[int(v)], ++total;
        // A label with few seeds learns from patches: of radius 5 in a frame
        // of clicks (seeds on less than 0.1 % of its pixels), else 1.
        const int patch = total < 0.001 * f.w * f.h ? 5 : 1;
        for (unsigned int y = 0; y < f.h; ++y)
            for (unsigned int x = 0; x < f.w; ++x) {
                const float v = f.labels[y * f.w + x];
                if (v < 0) continue;
                const int l = int(v), r = seeds[l] < 16 ? patch : 0;
                for (int j = int(y) - r; j <= int(y) + r; ++j)
                    for (int i = int(x) - r; i <= int(x) + r; ++i)
                        if (i >= 0 && j >= 0 && i < int(f.w) && j < int(f.h)) {
                            counts[l][bin(f.image[j * f.w + i])] += 1;
                            n[l] += 1;
                        }
            }
        for (unsigned int l = 0; l < L; ++l) {
            density[l].assign(4096, 0.0);
            for (int r = 0; r < 16; ++r)
                for (int g = 0; g < 16; ++g)
                    for (int b = 0; b < 16; ++b)
                        for (int dr = -3; dr <= 3; ++dr)
                            for (int dg = -3; dg <= 3; ++dg)
                                for (int db = -3; db <= 3; ++db) {
                                    const int rr = r + dr, gg = g + dg, bb = b + db;
                                    if (rr < 0 || gg < 0 || bb < 0 || rr > 15 || gg > 15 || bb > 15) continue;
                                    density[l][(r * 16 + g) * 16 + b] +=
                                        weight(dr) * weight(dg) * weight(db) * counts[l][(rr * 16 + gg) * 16 + bb];
                                }
        }
    }
    // Without one sample of label `without` at this bin.
    double at(int b, unsigned int l, int without = -1) const {
        double count = density[l][b], m = n[l];
        if (int(l) == without) count = std::max(0.0, count - std::pow(weight(0), 3)), m -= 1;
        return count / std::max(m, 1.0) + 1e-6;
    }
};

std::vector<float> colourCost(const Frame& f, unsigned int L, float weight) {
    Image image(upload(f.image, f.w, f.h));
    seg::ScopedArray<float, 2> labels(upload(f.labels, f.w, f.h));
    seg::ScopedArray<float, 3> cost(seg::deviceArray3D<float>(f.w, f.h, L));
    vela::arrayCopy(cost.a, vela::arrayFromHostMemory(std::vector<float>(f.w * f.h * L, 0.0f).data(), f.w, f.h, L));
    ColourModel(image.a, labels.a, L).addCost(cost.a, weight);
    return download(cost.a);
}

// A frame of threeLabels with two seeds a label only: a frame of clicks.
Frame clicksOnly(unsigned int w, unsigned int h) {
    Frame f = threeLabels(w, h);
    std::vector<int> kept(3, 0);
    for (float& v : f.labels)
        if (v >= 0 && ++kept[int(v)] > 2) v = -1;
    return f;
}

TEST(ColourModel, CostFitAndSeparabilityFollowThePlainModels) {
    const unsigned int L = 3;
    for (const Frame& frame : {threeLabels(41, 23), clicksOnly(150, 80)}) {
        const PlainModel plain(frame, L);
        const std::vector<float> cost = colourCost(frame, L, 2.0f);
        for (unsigned int i = 0; i < frame.w * frame.h; ++i) {
            const int b = PlainModel::bin(frame.image[i]);
            double total = 0;
            for (unsigned int l = 0; l < L; ++l) total += plain.at(b, l);
            for (unsigned int l = 0; l < L; ++l) {
                const double want = 2.0 * std::log(plain.at(b, l) / total + 0.001) / std::log(0.001);
                ASSERT_NEAR(cost[l * frame.w * frame.h + i], want, 1e-4 + 1e-4 * want)
                    << frame.w << " x " << frame.h << ": " << i << ", label " << l;
            }
        }
    }

    const Frame f = threeLabels(41, 23);
    const PlainModel plain(f, L);

    Image image(upload(f.image, f.w, f.h));
    seg::ScopedArray<float, 2> labels(upload(f.labels, f.w, f.h));
    const ColourModel model(image.a, labels.a, L);
    EXPECT_EQ(model.seedCounts(), plain.seeds);
    seg::ScopedArray<float, 2> fit(seg::deviceArray2D<float>(f.w, f.h));
    model.seedFit(fit.a);
    const std::vector<float> got = download(fit.a);
    std::vector<double> right(L, 0);
    for (unsigned int i = 0; i < f.w * f.h; ++i) {
        const int own = int(f.labels[i]);
        if (own < 0) {
            ASSERT_EQ(got[i], 1.0f);
            continue;
        }
        const int b = PlainModel::bin(f.image[i]);
        double best = 0;
        for (unsigned int l = 0; l < L; ++l) best = std::max(best, plain.at(b, l, own));
        ASSERT_NEAR(got[i], plain.at(b, own, own) / best, 1e-4) << i;
        right[own] += plain.at(b, own, own) >= best;
    }
    double share = 0;
    for (unsigned int l = 0; l < L; ++l) share += right[l] / plain.seeds[l];
    EXPECT_NEAR(model.separability(), (share / L - 1.0 / L) / (1 - 1.0 / L), 1e-5);
}

// Colours that tell the labels apart completely, or not at all; one label.
TEST(ColourModel, SeparabilityRunsFromNoneToAll) {
    Frame f = threeLabels(30, 20);
    for (unsigned int i = 0; i < f.w * f.h; ++i) f.image[i] = make_float4(i % 2 ? 240 : 10, 128, 128, 0);
    for (unsigned int i = 0; i < f.w * f.h; ++i) f.labels[i] = i % 5 == 0 ? float(i % 2) : -1.0f;
    Image image(upload(f.image, f.w, f.h));
    seg::ScopedArray<float, 2> apart(upload(f.labels, f.w, f.h));
    EXPECT_FLOAT_EQ(ColourModel(image.a, apart.a, 2).separability(), 1.0f);
    for (float& v : f.labels)
        if (v >= 0) v = float(next() % 2);
    for (unsigned int i = 0; i < f.w * f.h; ++i) f.image[i] = make_float4(90, 90, 90, 0);
    Image grey(upload(f.image, f.w, f.h));
    seg::ScopedArray<float, 2> mixed(upload(f.labels, f.w, f.h));
    EXPECT_LT(ColourModel(grey.a, mixed.a, 2).separability(), 0.05f);
    for (float& v : f.labels)
        if (v >= 0) v = 0;
    seg::ScopedArray<float, 2> one(upload(f.labels, f.w, f.h));
    EXPECT_EQ(ColourModel(image.a, one.a, 2).separability(), 0.0f);
}

// A thin line of label 1 through label 0's seeds, in its own colour, is kept;
// seeds of label 2 in label 0's colour are dropped, but not a click of label 3
// with too few seeds around to judge it, nor the last seed of label 4.
TEST(SeedCheck, ColourWitnessKeepsTheMinorityThatLooksItsOwn) {
    const unsigned int w = 48, h = 32, L = 5;
    Frame f{w, h, std::vector<float4>(w * h), std::vector<float>(w * h, -1.0f)};
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            const bool line = x == 20 || x == 21;
            f.image[y * w + x] = line ? make_float4(40, 200, 60, 0) : make_float4(180, 90 + float(next() % 30), 90, 0);
            if (y % 3 == 0 && x % 3 == 0 && x < 44) f.labels[y * w + x] = 0;
            if (line && y % 4 == 1 && x == 20) f.labels[y * w + x] = 1;
        }
    // Label 2: a yellow block of its own at the right, and three seeds with
    // label 0's colours amid label 0's seeds.
    for (unsigned int y = 0; y < 20; ++y)
        for (unsigned int x = 44; x < 48; ++x) {
            f.image[y * w + x] = make_float4(250, 250, 10, 0);
            if ((x + y) % 2 == 0) f.labels[y * w + x] = 2;
        }
    const unsigned int wrong[] = {6 * w + 9, 18 * w + 30, 27 * w + 12};
    for (unsigned int i : wrong) f.labels[i] = 2;
    f.labels[28 * w + 46] = 3;  // a click, alone at the right border
    f.labels[9 * w + 40] = 4;   // label 4's only seed, among label 0's
    Image image(upload(f.image, w, h));
    seg::ScopedArray<float, 2> labels(upload(f.labels, w, h));
    const ColourModel colours(image.a, labels.a, L);
    seg::ScopedArray<float, 2> fit(seg::deviceArray2D<float>(w, h));
    colours.seedFit(fit.a);
    const float scale = -3.0f;
    seg::ScopedArray<float, 2> witnessed(checkSeeds(image.a, labels.a, L, 6, 0.25f, scale, fit.a, 0.5f));
    seg::ScopedArray<float, 2> voted(checkSeeds(image.a, labels.a, L, 6, 0.25f, scale));
    const std::vector<float> got = download(witnessed.a), byVote = download(voted.a);
    int lineKept = 0, lineVotedOut = 0;
    for (unsigned int i = 0; i < w * h; ++i)
        if (f.labels[i] == 1) {
            lineKept += got[i] == 1;
            lineVotedOut += byVote[i] < 0;
        }
    EXPECT_EQ(lineKept, 8);
    EXPECT_GT(lineVotedOut, 4);  // the vote alone drops the line
    for (unsigned int i : wrong) EXPECT_EQ(got[i], -1.0f) << i;
    EXPECT_EQ(got[0 * w + 44], 2.0f);
    EXPECT_EQ(got[28 * w + 46], 3.0f);
    EXPECT_EQ(got[9 * w + 40], 4.0f);
    EXPECT_EQ(byVote[9 * w + 40], -1.0f);

    // Were every seed a misfit, label 4 would still keep its only seed.
    seg::ScopedArray<float, 2> misfits(upload(std::vector<float>(w * h, 0.0f), w, h));
    seg::ScopedArray<float, 2> last(checkSeeds(image.a, labels.a, L, 6, 0.25f, scale, misfits.a, 0.5f));
    const std::vector<float> kept = download(last.a);
    EXPECT_EQ(kept[9 * w + 40], 4.0f);
    EXPECT_EQ(kept[wrong[0]], -1.0f);
}

}  // namespace
