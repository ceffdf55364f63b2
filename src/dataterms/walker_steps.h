// The random walker's conjugate-gradient steps at one pixel and label,
// written once for every backend: the kernels of src/dataterms/walker.cpp run
// them per GPU thread, the host backend per pixel or, in the interior of a
// row, over runs of pixels held in vector lanes (src/dataterms/walker_rows.h).
//
// The arithmetic each step does to a pixel's values is a function over a value
// type V, float for one pixel or a seg::Pack for a run of a row, with the same
// IEEE operations in the same order, so both give the same bits.
#pragma once

#include "src/dataterms/seeds.h"
#include "src/solver/lanes.h"
#include "vela/access.h"

namespace seg::walker {

// The arrays of the solve; x, r, p and q are W x H x L.
struct WalkerArrays {
    vela::Array<float, 3> x, r, p, q;
    vela::Array<float, 3> guess;  // a restricted solve's start (StartOutsideStep)
    vela::Array<float, 2> labels;
    vela::Array<float2, 2> weights;
    vela::Array<float2, 2> diagonal;  // degree, and its inverse or 0 at a seed
};

// ---------------------------------------------------------------------------
// The arithmetic
// ---------------------------------------------------------------------------

// sum_j w_ij v_j over the 4 neighbours of a pixel that has all four, in the
// order neighbourSum() adds them.
template <class V>
VELA_HD inline V interiorNeighbourSum(const V& wRight, const V& right, const V& wDown, const V& down, const V& wLeft,
                                      const V& left, const V& wUp, const V& up) {
    V sum(0.0f);
    sum = sum + wRight * right;
    sum = sum + wDown * down;
    sum = sum + wLeft * left;
    sum = sum + wUp * up;
    return sum;
}

// q = A p: the degree times p less the neighbours' weighted p, and 0 where the
// solve leaves the pixel (1 / degree is 0 at a seed or a frozen pixel).
template <class V>
VELA_HD inline V appliedValue(const V& degree, const V& inverse, const V& here, const V& neighbours) {
    const V product = degree * here - neighbours;
    return select(inverse > V(0.0f), product, V(0.0f));
}

// x + alpha p, and r - alpha q.
template <class V>
VELA_HD inline V stepped(const V& value, float alpha, const V& by) {
    return value + alpha * by;
}
template <class V>
VELA_HD inline V steppedResidual(const V& residual, float alpha, const V& q) {
    return residual - alpha * q;
}

// r / degree + beta p.
template <class V>
VELA_HD inline V nextDirection(const V& residual, const V& inverse, float beta, const V& direction) {
    return residual * inverse + beta * direction;
}

// ---------------------------------------------------------------------------
// The steps at one pixel
// ---------------------------------------------------------------------------

// sum_j w_ij v_j over the 4 neighbours j of (x, y), in one fixed order.
template <class Value>
VELA_HD inline float neighbourSum(const vela::Array<float2, 2>& weights, unsigned int x, unsigned int y, Value value) {
    const unsigned int w = weights.extents.x, h = weights.extents.y;
    const float2 here = vela::at(weights, x, y);
    float sum = 0.0f;
    if (x + 1 < w) sum += here.x * value(x + 1, y);
    if (y + 1 < h) sum += here.y * value(x, y + 1);
    if (x > 0) sum += vela::at(weights, x - 1, y).x * value(x - 1, y);
    if (y > 0) sum += vela::at(weights, x, y - 1).y * value(x, y - 1);
    return sum;
}

// Seeds fix x; elsewhere x starts at 0, so the residual is the right-hand
// side, the pull of the neighbouring seeds of the label, and p = r / degree.
// Adds r.z and r.r.
VELA_HD inline float2 startAt(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l) {
    const unsigned int nLabels = a.x.extents.z;
    const int seed = seedOf(a.labels, x, y, nLabels);
    float residual = 0.0f, direction = 0.0f;
    if (seed >= 0) {
        vela::at(a.x, x, y, l) = seed == static_cast<int>(l) ? 1.0f : 0.0f;
    } else {
        vela::at(a.x, x, y, l) = 0.0f;
        residual = neighbourSum(a.weights, x, y, [&](unsigned int i, unsigned int j) {
            return seedOf(a.labels, i, j, nLabels) == static_cast<int>(l) ? 1.0f : 0.0f;
        });
        direction = residual * vela::at(a.diagonal, x, y).y;
    }
    vela::at(a.r, x, y, l) = residual;
    vela::at(a.p, x, y, l) = direction;
    return make_float2(residual * direction, residual * residual);
}

// The steps below keep r, p and q at 0 on the seeds, and so x as it started.

// q = A p on the unseeded pixels (p is 0 at the seeds).  Adds p.q.
VELA_HD inline float applyAt(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l) {
    const float2 diagonal = vela::at(a.diagonal, x, y);
    const float here = vela::at(a.p, x, y, l);
    const float neighbours =
        neighbourSum(a.weights, x, y, [&](unsigned int i, unsigned int j) { return vela::at(a.p, i, j, l); });
    const float value = appliedValue(diagonal.x, diagonal.y, here, neighbours);
    vela::at(a.q, x, y, l) = value;
    return here * value;
}

// x += alpha p and r -= alpha q.  Adds r.z and r.r, z = r / degree.
VELA_HD inline float2 stepAt(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l, float alpha) {
    float& value = vela::at(a.x, x, y, l);
    value = stepped(value, alpha, vela::at(a.p, x, y, l));
    const float residual = steppedResidual(vela::at(a.r, x, y, l), alpha, vela::at(a.q, x, y, l));
    vela::at(a.r, x, y, l) = residual;
    return make_float2(residual * residual * vela::at(a.diagonal, x, y).y, residual * residual);
}

// p = r / degree + beta p.
VELA_HD inline void directionAt(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l, float beta) {
    float& direction = vela::at(a.p, x, y, l);
    direction = nextDirection(vela::at(a.r, x, y, l), vela::at(a.diagonal, x, y).y, beta, direction);
}

// The steps as the kernels and row loops call them: each adds two values to
// the label's sums (0 where it adds fewer) and takes a per-label coefficient.
struct StartStep {
    VELA_HD float2 operator()(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l, float) const {
        return startAt(a, x, y, l);
    }
};
struct ApplyStep {
    VELA_HD float2 operator()(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l, float) const {
        return make_float2(applyAt(a, x, y, l), 0.0f);
    }
};
struct StepStep {
    VELA_HD float2 operator()(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l,
                              float alpha) const {
        return stepAt(a, x, y, l, alpha);
    }
};
struct DirectionStep {
    VELA_HD float2 operator()(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l, float beta) const {
        directionAt(a, x, y, l, beta);
        return make_float2(0.0f, 0.0f);
    }
};

// A restricted solve: x = 0 where the solve runs (1 / degree above 0), the
// start (clamped to [0, 1]) at the other unseeded pixels, which it keeps like
// seeds; the seeds keep the values start() gave them.
struct StartOutsideStep {
    VELA_HD float2 operator()(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l, float) const {
        if (seedOf(a.labels, x, y, a.x.extents.z) < 0)
            vela::at(a.x, x, y, l) =
                vela::at(a.diagonal, x, y).y > 0.0f ? 0.0f : fminf(fmaxf(vela::at(a.guess, x, y, l), 0.0f), 1.0f);
        return make_float2(0.0f, 0.0f);
    }
};
// A warm start: x from the start (clamped to [0, 1]) at every unseeded pixel.
struct StartFromGuessStep {
    VELA_HD float2 operator()(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l, float) const {
        if (seedOf(a.labels, x, y, a.x.extents.z) < 0)
            vela::at(a.x, x, y, l) = fminf(fmaxf(vela::at(a.guess, x, y, l), 0.0f), 1.0f);
        return make_float2(0.0f, 0.0f);
    }
};
// r = b - A x from there, on the unseeded pixels, and p = r / degree.  Adds
// r.z and r.r.
struct ResidualStep {
    VELA_HD float2 operator()(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l, float) const {
        const float2 diagonal = vela::at(a.diagonal, x, y);
        float residual = 0.0f;
        if (diagonal.y > 0.0f)
            residual =
                neighbourSum(a.weights, x, y, [&](unsigned int i, unsigned int j) { return vela::at(a.x, i, j, l); }) -
                diagonal.x * vela::at(a.x, x, y, l);
        const float direction = residual * diagonal.y;
        vela::at(a.r, x, y, l) = residual;
        vela::at(a.p, x, y, l) = direction;
        return make_float2(residual * direction, residual * residual);
    }
};

}  // namespace seg::walker
