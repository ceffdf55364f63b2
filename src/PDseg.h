// Multi-label segmentation by a first-order primal-dual iteration on a convex
// relaxation of the multi-label total-variation energy.
#pragma once

#include "src/ImgSeg.h"
#include "src/settings.h"

class PDseg : public ImgSeg {
 public:
    enum SegmentationModel : int {
        TV = 0,
        WEIGHTED_TV = 1,
        WEIGHTED_TV_FAST = 2,
        ANISOTROPIC_TV = 3,
        ANISOTROPIC_EXP_TV = 4,
    };

    explicit PDseg(vela::Array<float4, 2>& image);
    // Takes the cost map over: the object releases it.
    PDseg(vela::Array<float4, 2>& image, vela::Array<float, 3>& costMap);
    ~PDseg();

    void init();
    void setAlgorithmParameter(SegmentationModel model);
    void run() override;

    void labelsToCostMap(vela::Array<float, 2>& labels, int nLabels);
    void labelImageToCostMap(vela::Array<float4, 2>& labelImage);
    void imageToCostMap(vela::Array<float4, 2>& image, float4* colors, int nColors);
    void computeColorRepresentation(vela::Array<float, 3>& labeling, bool project, bool useColorCode);

    // Solver arrays start empty, so an object without a cost map is destroyed safely.
    vela::Array<float, 3> costMap;
    vela::Array<float, 3> u;        // relaxed labelling; hard after run()
    vela::Array<float, 3> uResult;  // relaxed labelling of the last iteration
    vela::Array<float, 2> g;        // edge weights

    int nLabels;
    int nIterations;
    float lambda;
    int diffusivityType;
    float alpha;
    int costMapType;
    SegmentationModel model;
    float normBound;
    float tau;
    float sigma;

    // Optional ways of running the solver, off by default.
    //
    // The boundary weights of model 1: the model's own diffusivity g, or
    // CONTRAST_EDGES: one weight per edge between neighbours, normalised by the
    // frame's contrast (seg::contrastEdgeWeights), applied inside the gradient
    // so that the dual field stays in the unit disc.
    enum EdgeWeights : int { MODEL_WEIGHTS = 0, CONTRAST_EDGES = 1 };
    EdgeWeights edgeWeights;
    // Stop before nIterations once an iteration moves the relaxed labelling by
    // less than this, summed over the labels and averaged over the pixels
    // (checked every few iterations; 0 runs all nIterations).  Model 2 keeps
    // no over-relaxed field to measure and always runs all of them.
    float tolerance;
    // With a radius > 0, run() first smooths a copy of the cost map along the
    // image's colours (seg::guidedFilter, windows of this radius, colour
    // variances below filterEpsilon taken as noise) and iterates on that; the
    // member costMap is left as it is.
    int filterRadius;
    float filterEpsilon;
    // A warm start, for the frames of a video: when set with the extents of u,
    // run() starts from startU (and ū = startU) instead of 1/L, and from the
    // dual field startDual instead of 0.
    vela::ScopedArray<float, 3> startU;
    vela::ScopedArray<float2, 3> startDual;
    // With keepDual, run() leaves its final dual field in `dual` (a later run
    // replaces it).
    bool keepDual = false;
    vela::ScopedArray<float2, 3> dual;
    // Costs that run() adds to the cost map after the cost filter (W x H x L;
    // empty: none): evidence that the image's colours do not explain, such as
    // the motion of a frame, which the filter would average away.
    vela::ScopedArray<float, 3> costsAfterFilter;
    // With heldLabels (W x H, a label index per pixel, negative for none),
    // every pixel with a label keeps it: run() gives its other labels a cost
    // whose step outweighs any boundary, after the cost filter.
    vela::ScopedArray<float, 2> heldLabels;
    // The iterations the last run() took.
    int iterationsDone = 0;

 private:
    // Sets nLabels and gives the object a fresh costMap, u and uResult of
    // W x H x L, releasing the ones it held.  L = 0 gives layerless arrays
    // without memory.
    void allocateSolverArrays(unsigned int w, unsigned int h, int labels, const char* caller);
};

// Sets the solver's parameters from the settings: the model, lambda (given
// apart: a frame may lower it), the iterations, the edge weights, the
// tolerance and the filter of the costs.  The one place PDseg's parameters
// are set from settings, its own defaults included.
void applySolverSettings(PDseg& seg, const SegmentationSettings& settings, float lambda);
