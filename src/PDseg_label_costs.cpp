#include <climits>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <map>
#include <tuple>
#include <vector>

#include "src/PDseg.h"
#include "src/PDseg_colour_costs.h"
#include "src/engine_arrays.h"
#include "src/label_colours.h"
#include "src/solver/simplex.h"
#include "vela/access.h"
#include "vela/cmatrixlib_interface.h"
#include "vela/device/launch.h"

namespace {

using vela::device::Thread;

constexpr const char* kSource = "src/PDseg";
constexpr unsigned int kBlock = 32;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

// A labelled pixel costs 0 for its own label and 1 for every other; an
// unlabelled one (negative value) costs 0 for all.
struct labelsToCostMap_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 3> cost, vela::Array<float, 2> labels) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        if (x >= cost.extents.x || y >= cost.extents.y) return;
        const float v = vela::at(labels, x, y);
        for (unsigned int l = 0; l < cost.extents.z; ++l) {
            // trunc(v) == l exactly when l <= v < l + 1; comparing in float keeps
            // huge or non-numeric values from an undefined integer conversion.
            const float label = static_cast<float>(l);
            const bool own = v >= label && v < label + 1.0f;
            vela::at(cost, x, y, l) = (v < 0.0f || own) ? 0.0f : 1.0f;
        }
    }
};

// The same indicator from a colour-coded label image.  The colours are staged
// once per block so that the per-pixel comparisons read no global memory.
struct labelColorsToCostMap_kernel {
    struct Shared {
        float4 colors[seg::kMaxLabels];
    };
    struct Local {};
    static constexpr int phases = 2;

    VELA_HD void operator()(int phase, const Thread& t, Shared& s, Local&, vela::Array<float, 3> cost,
                            vela::Array<float4, 2> labelImage, vela::Array<float4, 1> colors) const {
        const unsigned int labels = cost.extents.z;
        if (phase == 0) {
            if (t.threadIdx.x == 0 && t.threadIdx.y == 0)
                for (unsigned int l = 0; l < labels; ++l) s.colors[l] = vela::at(colors, l);
            return;
        }
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        if (x >= cost.extents.x || y >= cost.extents.y) return;
        const float4 p = vela::at(labelImage, x, y);
        const bool unlabelled = seg::isUnlabelled(p);
        for (unsigned int l = 0; l < labels; ++l)
            vela::at(cost, x, y, l) = (unlabelled || seg::sameLabelColour(p, s.colors[l])) ? 0.0f : 1.0f;
    }
};

// ---------------------------------------------------------------------------
// Host helpers
// ---------------------------------------------------------------------------

dim3 gridFor(unsigned int w, unsigned int h) {
    return dim3(vela::device::blocksFor(w, kBlock), vela::device::blocksFor(h, kBlock));
}

// A device copy of `a` when it lives on the host, so kernels can read it.
template <class T>
vela::Array<T, 2> onDevice(const vela::Array<T, 2>& a, seg::ScopedArray<T, 2>& staging) {
    if (a.device != vela::kHostDevice) return a;
    staging = seg::deviceCopy(a);
    return staging.a;
}

// Channel values as the listing prints them: truncated, and kept within int.
int truncated(float v) {
    if (std::isnan(v)) return INT_MIN;
    if (v >= 2147483648.0f) return INT_MAX;
    if (v <= -2147483648.0f) return INT_MIN;
    return static_cast<int>(v);
}

// The distinct colours of a label image, numbered by first appearance in
// row-major order; black is no label.  Each entry keeps its first pixel's
// fourth component.
std::vector<float4> numberLabelColours(const std::vector<float4>& pixels) {
    std::vector<float4> list;
    // Exact float equality of r, g and b; NaN equals nothing, so a pixel with a
    // NaN channel always starts a new label, as a linear search would.
    std::map<std::tuple<float, float, float>, std::size_t> seen;
    for (const float4& p : pixels) {
        if (seg::isUnlabelled(p)) continue;
        if (std::isnan(p.x) || std::isnan(p.y) || std::isnan(p.z)) {
            list.push_back(p);
            continue;
        }
        if (seen.emplace(std::make_tuple(p.x, p.y, p.z), list.size()).second) list.push_back(p);
    }
    return list;
}

// Writes cost map layer 0 as a grey picture, scaled by 255.
void saveFirstLayer(const vela::Array<float, 3>& costMap, const vela::Array<float4, 2>& image) {
    const vela::Array<float, 4> layer4 =
        vela::block(vela::internal::increaseArrayDimension(costMap), vela::Range(0, -1), vela::Range(0, -1),
                    vela::Range(0, 0), vela::Range(0, 0));
    const vela::Array<float, 2> layer = vela::internal::decreaseArrayDimension<float, 4, 2>(layer4);
    std::vector<float> pixels(static_cast<std::size_t>(image.extents.x) * image.extents.y);
    vela::Array<float, 2> host = vela::arrayFromHostMemory(pixels.data(), image.extents);
    vela::arrayCopy(host, layer);
    vela::saveImage(host, "layer0.pgm", true);
}

}  // namespace

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

void PDseg::labelsToCostMap(vela::Array<float, 2>& labels, int labelCount) {
    allocateSolverArrays(labels.extents.x, labels.extents.y, labelCount, "PDseg::labelsToCostMap()");
    if (labelCount == 0) return;
    seg::ScopedArray<float, 2> staging;
    const vela::Array<float, 2> source = onDevice(labels, staging);
    vela::device::launch<labelsToCostMap_kernel>(gridFor(labels.extents.x, labels.extents.y), dim3(kBlock, kBlock),
                                                 nullptr, costMap, source);
    vela::_CHECK_CUDA_ERROR(kSource, 1483);
}

void PDseg::labelImageToCostMap(vela::Array<float4, 2>& labelImage) {
    const unsigned int w = labelImage.extents.x, h = labelImage.extents.y;
    std::vector<float4> pixels(static_cast<std::size_t>(w) * h);
    auto hostPixels = vela::arrayFromHostMemory(pixels.data(), make_uint2(w, h));
    vela::arrayCopy(hostPixels, labelImage);

    std::vector<float4> colours = numberLabelColours(pixels);
    const int labels = static_cast<int>(colours.size());
    // Both cost-map kernels keep the colours in a per-block table.
    seg::checkLabelCount(labels, seg::kMaxLabels, "the label colour table");

    std::cout << "depth = " << labels << std::endl << "colors: " << std::endl;
    for (int l = 0; l < labels; ++l) {
        const float4& c = colours[l];
        std::cout << l << " -> " << truncated(c.x) << " , " << truncated(c.y) << " , " << truncated(c.z) << std::endl;
    }

    allocateSolverArrays(w, h, labels, "PDseg::labelImageToCostMap()");
    labelColors = vela::Array<float4, 1>{};
    if (labels > 0)
        labelColors = seg::deviceCopy(seg::hostView1D(colours.data(), static_cast<unsigned int>(labels))).release();

    const dim3 grid = gridFor(w, h), block(kBlock, kBlock);
    if (labelImage.device != vela::kHostDevice) {
        switch (costMapType) {
            case 0:
                if (labels > 0)
                    vela::device::launch<labelColorsToCostMap_kernel>(grid, block, nullptr, costMap, labelImage,
                                                                      labelColors);
                break;
            case 1:
                std::cout << "use spatially varying color distribution to create the cost map" << std::endl;
                if (labels > 0) {
                    seg::spatiallyVaryColorDistCostMap(costMap, labelImage, image, labelColors);
                    saveFirstLayer(costMap, image);
                }
                break;
            default:
                std::cerr << "This choice of creating the cost map does not exist!" << std::endl;
                std::exit(0);
        }
    } else if (labels > 0) {
        // The spatially varying method needs the label image on the device.
        seg::ScopedArray<float4, 2> staging;
        const vela::Array<float4, 2> source = onDevice(labelImage, staging);
        vela::device::launch<labelColorsToCostMap_kernel>(grid, block, nullptr, costMap, source, labelColors);
    }
    vela::_CHECK_CUDA_ERROR(kSource, 1568);
}
