// The settings of one frame: every configuration key the engine reads, as
// values it takes (const) and never patches.  The defaults are the members'
// initialisers; settingKeys() lists every key with its range, for the
// program's configuration reader and the Python package alike.
#pragma once

#include <variant>
#include <vector>

// Where the per-label data cost comes from.
enum class DataTerm : int {
    // 0 for a seed's own label, 1 for the others, 0 everywhere without a seed.
    SEEDS = 0,
    // The seed costs plus, at every pixel, -ln of the label's random-walker
    // probability, so unseeded pixels get a cost from the image too.
    WALKER = 1,
};

// How model 1 weighs the length of a boundary.
enum class EdgeWeights : int {
    // The model's own diffusivity g of the image ("diffusivity", "alpha").
    DIFFUSIVITY = 0,
    // One weight per edge between neighbours, exp(-b d^2), d the colour
    // difference across it and b set by the frame's mean contrast.
    CONTRAST = 1,
};

struct SegmentationSettings {
    // PDseg's own defaults.  The configuration file reads these two unchecked,
    // as it always has: an absent one is 0 there.
    float lambda = 10.0f;  // "lambda": weight of the data term
    int maxiter = 100;     // "maxiter": primal-dual iterations
    int model = 1;         // "model": PDseg::SegmentationModel, 0 to 4
    int diffusivity = 0;   // "diffusivity": edge weights of models 1 and 2, 0 standard, 1 exponential
    float alpha = 0.5f;    // "alpha": parameter of the exponential diffusivity
    EdgeWeights edgeWeights = EdgeWeights::DIFFUSIVITY;  // "edgeWeights": "diffusivity" or "contrast" (model 1)
    float solverTolerance = 0.0f;  // "solverTolerance": stop once an iteration moves the labelling less (0: never)
    // The cost map smoothed along the image's colours before the iteration
    // (src/solver/guided_filter.h).
    int costFilterRadius = 0;             // "costFilterRadius": window radius in pixels (0: off)
    float costFilterEpsilon = 1e-4f;      // "costFilterEpsilon": colour variance (channels in [0, 1]) taken as noise
    DataTerm dataTerm = DataTerm::SEEDS;  // "dataTerm": "seeds" or "walker"
    float dataWeight = 1.0f;              // "dataWeight": weight of the walker cost against the seed cost
    float walkerBeta = 500.0f;            // "walkerBeta": how sharply colour edges cut the walker's graph
    int walkerIterations = 400;           // "walkerIterations": most conjugate-gradient iterations per label
    float walkerTolerance = 1e-3f;        // "walkerTolerance": relative residual at which they stop
    // Seeds that the seeds around them contradict are dropped before the cost
    // map is built (src/dataterms/seed_check.h); radius 0 keeps every seed.
    int seedCheckRadius = 0;       // "seedCheckRadius": pixels around a seed that vote on it
    float seedCheckShare = 0.25f;  // "seedCheckShare": share of the vote its label needs
    float seedCheckBeta = 50.0f;   // "seedCheckBeta": how much a colour difference weakens a vote
    // "seedCheckFit": with a value > 0, a seed the vote rejects is dropped only
    // when its colour fits another label better (own fit below this share of
    // the best), and no label loses its last seeds; 0: the vote alone.
    float seedCheckFit = 0.0f;
    // The labels' colours learned from the frame's seeds (src/dataterms/colour_model.h)
    // as a further cost, weighted by how well they tell the labels apart at the seeds.
    float colourWeight = 0.0f;  // "colourWeight": its weight where colour separates the labels well (0: off)
    // "lambdaSeedDensity": where fewer than this share of a frame's pixels are
    // seeds (a few clicks rather than tracks), lambda shrinks with the square
    // root of their share: the data term then guesses far from any evidence,
    // and the boundary length deserves more say (0: lambda as given).
    float lambdaSeedDensity = 0.0f;
    // "sparseWalkerBeta": above 0, the walker's walkerBeta in a frame whose
    // seeds cover less than lambdaSeedDensity of its pixels: from a few clicks
    // the walker carries each label far, and colour edges must stop it more
    // sharply than among tracks, where a seed lies near every pixel (0:
    // walkerBeta in every frame).
    float sparseWalkerBeta = 0.0f;
    // "holdSeeds": 1, every seed the seed check keeps holds its label, whatever
    // the costs around it (smoothed by the cost filter, say) and the boundary
    // length say; 0, a seed only costs the other labels.
    int holdSeeds = 0;
    // Whole-folder mode: each frame starts from the one before
    // (src/video/temporal.h).
    int temporal = 0;             // "temporal": 0 every frame afresh, 1 on
    float temporalWeight = 0.3f;  // "temporalWeight": weight of the moved labelling as a cost
    // "temporalMotionWeight": weight of the motion term (src/video/motion_term.h).
    float temporalMotionWeight = 1.0f;
    // "temporalWalkerRadius": above 0, the walker keeps the frame before's
    // probabilities, moved, and solves again only within this many pixels of
    // where they may not hold (src/dataterms/walker_region.h), stopping at
    // "temporalWalkerTolerance" (0: walkerTolerance); 0, it solves every
    // frame afresh.
    int temporalWalkerRadius = 4;
    float temporalWalkerTolerance = 0.01f;
    // "temporalWalkerWarmStart": 1, with temporalWalkerRadius 0, the walker
    // solves every pixel of every frame, starting its conjugate gradients from
    // the frame before's probabilities, moved; 0, from nothing.
    int temporalWalkerWarmStart = 0;
};

// One configuration key of SegmentationSettings: its name, the member it
// sets and the values it takes (a number's range, or the words of an enum in
// the order of its values).  "lambda" and "maxiter" are `unchecked`.
struct SettingKey {
    using Member = std::variant<int SegmentationSettings::*, float SegmentationSettings::*,
                                DataTerm SegmentationSettings::*, EdgeWeights SegmentationSettings::*>;
    const char* key;
    Member member;
    double min = 0, max = 0;
    std::vector<const char*> words = {};
    bool unchecked = false;
};

// Every key, in the order the configuration reader checks them.
const std::vector<SettingKey>& settingKeys();
