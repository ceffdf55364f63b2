#include "src/video/motion_cells.h"

#include <algorithm>
#include <cmath>

#include "src/block_sums.h"
#include "src/engine_arrays.h"
#include "vela/device/launch.h"

namespace video {
namespace {

using vela::Array;
using vela::device::Thread;

constexpr const char* kSource = "src/video/motion_cells";
constexpr unsigned int kBlockX = 32, kBlockY = 8;
constexpr float kSigma = 12.0f;        // of the points' Gaussian weights, in pixels
constexpr float kReach = 3.0f;         // points count within kReach * kSigma
constexpr float kLeastWeight = 1e-4f;  // less total weight: no motion known
// Rows of cells above and below a cell whose points can lie within reach of
// its centre.
constexpr int kReachRows = static_cast<int>(kReach * kSigma) / kCell + 1;

// The weighted mean motion at each cell's centre and the weights' sum, from
// the points within reach, one grid layer per group of points.  The points
// (x, y, fromX, fromY) come sorted by group and by the row of cells they lie
// in: those of group g in cell row r are first(g, r) .. first(g, r + 1) - 1.
struct cellMotion_kernel {
    VELA_HD void operator()(const Thread& t, Array<float4, 3> cells, Array<float4, 1> points,
                            Array<int, 2> first) const {
        const seg::GridPixel cell(t, cells.extents.x, cells.extents.y);
        if (!cell.inside) return;
        const unsigned int cx = cell.x, cy = cell.y, layer = t.blockIdx.z;
        const float x = (static_cast<float>(cx) + 0.5f) * kCell, y = (static_cast<float>(cy) + 0.5f) * kCell;
        const float reach2 = kReach * kReach * kSigma * kSigma;
        const int rows = static_cast<int>(cells.extents.y);
        const int top = static_cast<int>(cy) - kReachRows > 0 ? static_cast<int>(cy) - kReachRows : 0;
        const int bottom = static_cast<int>(cy) + kReachRows < rows ? static_cast<int>(cy) + kReachRows : rows - 1;
        float sx = 0.0f, sy = 0.0f, sw = 0.0f;
        const int end = vela::at(first, static_cast<unsigned int>(bottom + 1), layer);
        for (int i = vela::at(first, static_cast<unsigned int>(top), layer); i < end; ++i) {
            const float4 p = vela::at(points, static_cast<unsigned int>(i));
            const float dx = p.x - x, dy = p.y - y, d2 = dx * dx + dy * dy;
            if (d2 > reach2) continue;
            const float weight = expf(-d2 / (2.0f * kSigma * kSigma));
            sx += weight * (p.x - p.z);
            sy += weight * (p.y - p.w);
            sw += weight;
        }
        vela::at(cells, cx, cy, layer) =
            sw > kLeastWeight ? make_float4(sx / sw, sy / sw, sw, 0.0f) : make_float4(0.0f, 0.0f, 0.0f, 0.0f);
    }
};

}  // namespace

TrackMotion::TrackMotion(unsigned int w, unsigned int h, const std::vector<MotionPoint>& points,
                         const std::vector<int>& trackLabels)
    : width_(w), height_(h), labels_(trackLabels) {
    // Layer 0 holds every point, layer g + 1 those of track label g; within a
    // layer, by row of cells and otherwise in their order.
    const unsigned int groups = static_cast<unsigned int>(trackLabels.size());
    std::vector<int> pointLabels(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) pointLabels[i] = points[i].label;
    const std::vector<int> layerOf = layersOf(pointLabels);
    const unsigned int cw = vela::device::blocksFor(w, kCell), ch = vela::device::blocksFor(h, kCell);
    std::vector<unsigned int> rowOf(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        const float row = std::floor(points[i].y / static_cast<float>(kCell));
        rowOf[i] = row < 0.0f ? 0u : std::min(static_cast<unsigned int>(row), ch - 1);
    }
    std::vector<float4> packed;
    std::vector<int> first(static_cast<std::size_t>(ch + 1) * (groups + 1), 0);
    std::vector<std::size_t> layerPoints;
    for (unsigned int layer = 0; layer <= groups; ++layer) {
        layerPoints.clear();
        for (std::size_t i = 0; i < points.size(); ++i)
            if (layer == 0 || layerOf[i] == static_cast<int>(layer)) layerPoints.push_back(i);
        std::stable_sort(layerPoints.begin(), layerPoints.end(),
                         [&](std::size_t a, std::size_t b) { return rowOf[a] < rowOf[b]; });
        int* rowStart = &first[static_cast<std::size_t>(layer) * (ch + 1)];
        std::size_t next = 0;
        for (unsigned int row = 0; row <= ch; ++row) {
            rowStart[row] = static_cast<int>(packed.size());
            for (; row < ch && next < layerPoints.size() && rowOf[layerPoints[next]] == row; ++next) {
                const MotionPoint& p = points[layerPoints[next]];
                packed.push_back(make_float4(p.x, p.y, p.fromX, p.fromY));
            }
        }
    }
    const unsigned int n = static_cast<unsigned int>(packed.size());
    vela::ScopedArray<float4, 1> devicePoints(seg::deviceArray1D<float4>(n));
    if (n > 0) vela::arrayCopy(devicePoints.a, seg::hostView1D(packed.data(), n));
    const vela::ScopedArray<int, 2> deviceFirst =
        seg::deviceCopy(vela::arrayFromHostMemory(first.data(), make_uint2(ch + 1, groups + 1)));
    cells_.a = seg::deviceArray3D<float4>(cw, ch, groups + 1);
    const dim3 grid(vela::device::blocksFor(cw, kBlockX), vela::device::blocksFor(ch, kBlockY), groups + 1);
    vela::device::launch<cellMotion_kernel>(grid, dim3(kBlockX, kBlockY), nullptr, cells_.a, devicePoints.a,
                                            deviceFirst.a);
    vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
}

std::vector<int> TrackMotion::layersOf(const std::vector<int>& trackLabels) const {
    std::vector<int> layers(trackLabels.size(), -1);
    for (std::size_t i = 0; i < trackLabels.size(); ++i) {
        const auto found = std::find(labels_.begin(), labels_.end(), trackLabels[i]);
        if (found != labels_.end()) layers[i] = static_cast<int>(found - labels_.begin()) + 1;
    }
    return layers;
}

}  // namespace video
