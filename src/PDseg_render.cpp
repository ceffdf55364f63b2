#include <iostream>
#include <stdexcept>
#include <string>

#include "src/PDseg.h"
#include "src/engine_arrays.h"
#include "src/solver/simplex.h"
#include "vela/access.h"
#include "vela/device/launch.h"

namespace {

using vela::device::Thread;

constexpr const char* kSource = "src/PDseg";
constexpr unsigned int kBlockX = 32;
constexpr unsigned int kBlockY = 2;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

// Projects every pixel's label values onto the probability simplex, in place.
// Capacity bounds the label count (see seg::withLabelCapacity).
template <int Capacity>
struct projectSimplex_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 3> u) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        if (x >= u.extents.x || y >= u.extents.y) return;
        const int labels = static_cast<int>(u.extents.z);
        float v[Capacity];
        for (int l = 0; l < labels; ++l) v[l] = vela::at(u, x, y, static_cast<unsigned int>(l));
        seg::projectSimplex(v, labels);
        for (int l = 0; l < labels; ++l) vela::at(u, x, y, static_cast<unsigned int>(l)) = v[l];
    }
};

// Colour of a pixel = its label values weighting the label colours: a hard
// labelling shows its label's colour, a soft one the mixture.
struct label2color_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float4, 2> colorImage, vela::Array<float, 3> labels,
                            vela::Array<float4, 1> colors) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        if (x >= labels.extents.x || y >= labels.extents.y) return;
        float r = 0.0f, g = 0.0f, b = 0.0f;
        for (unsigned int l = 0; l < labels.extents.z; ++l) {
            const float weight = vela::at(labels, x, y, l);
            const float4 c = vela::at(colors, l);
            r += weight * c.x;
            g += weight * c.y;
            b += weight * c.z;
        }
        vela::at(colorImage, x, y) = make_float4(r, g, b, 0.0f);
    }
};

}  // namespace

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

void PDseg::computeColorRepresentation(vela::Array<float, 3>& labels, bool project, bool useColorCode) {
    if (nLabels < 0) {
        std::cerr << "ERROR: PDseg::computeColorRepresentation(): No cost map is given" << std::endl;
        return;
    }
    const int labelCount = static_cast<int>(labels.extents.z);
    vela::Array<float4, 1>& colours = useColorCode ? colorCode : labelColors;
    seg::checkLabelCount(labelCount, static_cast<int>(colours.extents.x),
                         useColorCode ? "the colour palette" : "the label colour table");
    if (labelCount > 0 && colours.device == vela::kHostDevice)
        throw std::runtime_error("PDseg::computeColorRepresentation(): the label colours must be on the device");
    if (project) seg::checkLabelCount(labelCount, seg::kMaxLabels, "the simplex projection");
    if (labels.extents.x != colorImage.extents.x || labels.extents.y != colorImage.extents.y)
        throw std::runtime_error("PDseg::computeColorRepresentation(): the labelling " +
                                 vela::internal::str_extents(labels.extents) + " does not fit the image " +
                                 vela::internal::str_extents(colorImage.extents));

    const dim3 block(kBlockX, kBlockY);
    const dim3 grid(vela::device::blocksFor(u.extents.x, kBlockX), vela::device::blocksFor(u.extents.y, kBlockY));

    // The caller's labelling is never changed: projection works on a copy, and
    // a host labelling is copied so that the kernels can read it.
    seg::ScopedArray<float, 3> copy;
    vela::Array<float, 3> source = labels;
    if (labelCount > 0 && (project || labels.device == vela::kHostDevice)) {
        copy = seg::deviceCopy(labels);
        source = copy.a;
        if (project) {
            seg::withLabelCapacity(labelCount, [&](auto capacity) {
                vela::device::launch<projectSimplex_kernel<decltype(capacity)::value>>(grid, block, nullptr, source);
            });
        }
    }
    vela::device::launch<label2color_kernel>(grid, block, nullptr, colorImage, source, colours);
    vela::_CHECK_CUDA_ERROR(kSource, project ? 1701 : 1686);
}
