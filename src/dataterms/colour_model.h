// Colour models of the labels, learned from the seeds of one frame.
//
// Each label gets a colour histogram of its seeds (16 levels per channel,
// smoothed by a Gaussian of one level), read as a density; a label with few
// seeds (a person's clicks) takes the colours of a small patch around each.
// The probability of label l at a colour is its density over the sum of all
// labels' densities, every label counting alike however many seeds it has.
// Where the labels' colours overlap, the probabilities come out even and the
// cost they give is flat: the term only speaks where colour tells the labels
// apart.
#pragma once

#include <vector>

#include "vela/tools.h"

class ColourModel {
 public:
    // Learns the models of `nLabels` labels from the seeds in `labels` (device,
    // label index per pixel, negative for none) and their colours in `image`
    // (device, 0 to 255).
    ColourModel(const vela::Array<float4, 2>& image, const vela::Array<float, 2>& labels, unsigned int nLabels);
    ~ColourModel();
    ColourModel(const ColourModel&) = delete;
    ColourModel& operator=(const ColourModel&) = delete;

    // How well colour tells the labels apart at the seeds themselves: each
    // seed is classified by the models learned without it, and the share of
    // each label's seeds that come out right is averaged over the labels with
    // seeds.  0 is no better than guessing among them, 1 every seed right.
    // 0 with fewer than two labels seeded.
    float separability() const;

    // cost(x, y, l) += weight * -ln(P(l | colour) + 0.001) / -ln(0.001), for
    // the W x H x L device cost map of the frame.
    void addCost(vela::Array<float, 3>& cost, float weight) const;

    // Into `fit` (W x H, device): at every seed, P(own label) / max over the
    // labels of P(label), all read from the models learned without that seed
    // (1 when its own label fits best, near 0 when another fits far better);
    // 1 at pixels without a seed.
    void seedFit(vela::Array<float, 2>& fit) const;

    // Seeds per label (index = label).
    const std::vector<int>& seedCounts() const { return seeds_; }

 private:
    vela::Array<float4, 2> image_;
    vela::Array<float, 2> labels_;
    unsigned int nLabels_;
    vela::Array<float, 2> density_;  // smoothed counts, bins x labels
    vela::Array<float, 1> samples_;  // colours counted per label
    std::vector<int> seeds_;
    std::vector<int> sampleCounts_;
};
