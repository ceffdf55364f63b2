// The primal-dual solver's per-pixel steps, written once for every backend.
//
// A step works on one pixel or on a run of pixels of one row (V = float or a
// seg::Pack) through an accessor that loads and stores the pixel's values.
// The accessors here serve one pixel with the image-border rules and are what
// GPU threads use; the host's row sweeps add pack accessors for the interior of
// a row, where no border rule applies, and use these for the border pixels.
#pragma once

#include "src/solver/simplex.h"
#include "vela/access.h"

namespace seg {

// How the label gradient is measured: plainly, through the structure-tensor
// field (symmetric, read as (a, b, b, d)) or through the reflection tensor
// (all four components).
enum class TvForm { Isotropic, StructureTensor, Reflection };

template <class V>
struct Quad {
    V a, b, c, d;
};

VELA_HD inline unsigned int lastIndex(unsigned int n) { return n - 1; }

// Dual ascent on all labels of a pixel group:
//   q = p + sigma * T (dx, dy),  p = q / max(1, |q| / g)   (|q| alone when unweighted),
// with forward differences of the second argument v that vanish past the last
// column and row.
template <class V, TvForm F, bool Weighted, class Access>
VELA_HD inline void dualStep(const Access& at, float sigma, int L) {
    Quad<V> D{};
    if constexpr (F != TvForm::Isotropic) D = at.tensor();
    V radius(1.0f);
    if constexpr (Weighted) radius = at.radius();
    for (int l = 0; l < L; ++l) {
        const V here = at.here(l);
        const V dx = at.right(l) - here;
        const V dy = at.down(l) - here;
        V tx = dx, ty = dy;
        if constexpr (F == TvForm::StructureTensor) {
            tx = D.a * dx + D.b * dy;
            ty = D.b * dx + D.d * dy;
        } else if constexpr (F == TvForm::Reflection) {
            tx = D.a * dx + D.b * dy;
            ty = D.c * dx + D.d * dy;
        }
        V px, py;
        at.loadP(l, px, py);
        const V qx = px + V(sigma) * tx;
        const V qy = py + V(sigma) * ty;
        const V norm = lanesSqrt(qx * qx + qy * qy);
        // Inside the disc (|q| <= g, so |q| / g <= 1) the scale is exactly 1 and
        // q / 1 = q: the divisions are skipped, with the same bits.  (A NaN
        // compares false here and gets the scale 1 of maxOne as well.)
        if (noLanes(norm > radius)) {
            at.storeP(l, qx, qy);
            continue;
        }
        V scale;
        if constexpr (Weighted)
            scale = maxOne(norm / radius);
        else
            scale = maxOne(norm);
        at.storeP(l, qx / scale, qy / scale);
    }
}

// Primal descent on all labels of a pixel group: the divergence of p by
// backward differences (p taken as zero outside the image), then
//   v = u + tau * (div - lambda * f)
// projected onto the simplex.  Leaves the projected values in w and the
// values read from u in uold; the caller stores w and 2 w - uold.
//
// The zeroing of border terms differs between the forms on purpose: the
// structure-tensor form zeroes the components before the tensor acts and keeps
// the cross components, the reflection form applies the tensor first.
template <int C, class V, TvForm F, class Access>
VELA_HD inline void primalStep(const Access& at, float tau, float lambda, int L, V* w, V* uold) {
    Quad<V> Dh{}, Dl{}, Du{};
    if constexpr (F != TvForm::Isotropic) at.tensors(Dh, Dl, Du);
    const V zero(0.0f);
    for (int l = 0; l < L; ++l) {
        V px, py, pxl, pyl, pxu, pyu;
        at.loadP(l, px, py);
        at.loadPLeft(l, pxl, pyl);
        at.loadPUp(l, pxu, pyu);
        V div;
        if constexpr (F == TvForm::Reflection) {
            const V qxHere = at.zeroHereX ? zero : Dh.a * px + Dh.b * py;
            const V qyHere = at.zeroHereY ? zero : Dh.c * px + Dh.d * py;
            const V qxLeft = at.zeroLeft ? zero : Dl.a * pxl + Dl.b * pyl;
            const V qyUp = at.zeroUp ? zero : Du.c * pxu + Du.d * pyu;
            div = (qxHere - qxLeft) + (qyHere - qyUp);
        } else {
            const V pxHere = at.zeroHereX ? zero : px;
            const V pyHere = at.zeroHereY ? zero : py;
            const V pxLeft = at.zeroLeft ? zero : pxl;
            const V pyUp = at.zeroUp ? zero : pyu;
            if constexpr (F == TvForm::Isotropic) {
                div = (pxHere - pxLeft) + (pyHere - pyUp);
            } else {
                div = (Dh.a * pxHere + Dh.b * pyHere) - (Dl.a * pxLeft + Dl.b * pyl) + (Dh.c * pxHere + Dh.d * pyHere) -
                      (Du.c * pxu + Du.d * pyUp);
            }
        }
        uold[l] = at.loadU(l);
        w[l] = uold[l] + V(tau) * (div - V(lambda) * at.loadF(l));
    }
    projectSimplexLanes(w, L);
}

// The over-relaxed primal 2 w - uold.
template <class V>
VELA_HD inline V overRelaxed(const V& w, const V& uold) {
    return V(2.0f) * w - uold;
}

// ---------------------------------------------------------------------------
// One-pixel accessors with the border rules
// ---------------------------------------------------------------------------

// Dual step of pixel (x, y): v of the pixel, its right and lower neighbour
// (clamped, so the difference vanishes at the border), p, g and D there.
struct DualPixel {
    vela::Array<float2, 3> p;
    vela::Array<float, 3> v;
    vela::Array<float, 2> g;   // unset when unweighted
    vela::Array<float4, 2> D;  // unset without a tensor
    unsigned int x, y, xr, yd;

    VELA_HD DualPixel(const vela::Array<float2, 3>& p_, const vela::Array<float, 3>& v_,
                      const vela::Array<float, 2>& g_, const vela::Array<float4, 2>& D_, unsigned int x_,
                      unsigned int y_)
        : p(p_), v(v_), g(g_), D(D_), x(x_), y(y_) {
        xr = x + 1 < v.extents.x ? x + 1 : x;
        yd = y + 1 < v.extents.y ? y + 1 : y;
    }
    VELA_HD float here(int l) const { return vela::at(v, x, y, l); }
    VELA_HD float right(int l) const { return vela::at(v, xr, y, l); }
    VELA_HD float down(int l) const { return vela::at(v, x, yd, l); }
    VELA_HD float radius() const { return vela::at(g, x, y); }
    VELA_HD Quad<float> tensor() const {
        const float4 d = vela::at(D, x, y);
        return {d.x, d.y, d.z, d.w};
    }
    VELA_HD void loadP(int l, float& px, float& py) const {
        const float2 q = vela::at(p, x, y, l);
        px = q.x;
        py = q.y;
    }
    VELA_HD void storeP(int l, float px, float py) const { vela::at(p, x, y, l) = make_float2(px, py); }
};

// Primal step of pixel (x, y).  The left and upper neighbours clamp to the
// pixel itself at the first column and row, where their terms are zeroed (or,
// for the cross terms of the structure-tensor form, read there).  A single
// column or row keeps its own term: x = 0 is also x = W - 1 there.
struct PrimalPixel {
    vela::Array<float, 3> u;
    vela::Array<float, 3> f;
    vela::Array<float2, 3> p;
    vela::Array<float4, 2> D;  // unset without a tensor
    unsigned int x, y, xl, yu;
    bool zeroHereX, zeroHereY, zeroLeft, zeroUp;

    VELA_HD PrimalPixel(const vela::Array<float, 3>& u_, const vela::Array<float, 3>& f_,
                        const vela::Array<float2, 3>& p_, const vela::Array<float4, 2>& D_, unsigned int x_,
                        unsigned int y_)
        : u(u_), f(f_), p(p_), D(D_), x(x_), y(y_) {
        xl = x == 0 ? 0 : x - 1;
        yu = y == 0 ? 0 : y - 1;
        zeroHereX = x == lastIndex(u.extents.x) && x != 0;
        zeroHereY = y == lastIndex(u.extents.y) && y != 0;
        zeroLeft = x == 0;
        zeroUp = y == 0;
    }
    VELA_HD float loadU(int l) const { return vela::at(u, x, y, l); }
    VELA_HD float loadF(int l) const { return vela::at(f, x, y, l); }
    VELA_HD void loadP(int l, float& px, float& py) const { split(vela::at(p, x, y, l), px, py); }
    VELA_HD void loadPLeft(int l, float& px, float& py) const { split(vela::at(p, xl, y, l), px, py); }
    VELA_HD void loadPUp(int l, float& px, float& py) const { split(vela::at(p, x, yu, l), px, py); }
    VELA_HD void tensors(Quad<float>& here, Quad<float>& left, Quad<float>& up) const {
        here = quad(vela::at(D, x, y));
        left = quad(vela::at(D, xl, y));
        up = quad(vela::at(D, x, yu));
    }

 private:
    VELA_HD static void split(float2 q, float& px, float& py) {
        px = q.x;
        py = q.y;
    }
    VELA_HD static Quad<float> quad(float4 d) { return {d.x, d.y, d.z, d.w}; }
};

// Per-pixel driver of one primal step: loads through PrimalPixel, stores u and ū.
template <int C, TvForm F>
VELA_HD inline void primalPixel(const vela::Array<float, 3>& u, const vela::Array<float, 3>& ubar,
                                const vela::Array<float, 3>& f, const vela::Array<float2, 3>& p,
                                const vela::Array<float4, 2>& D, float tau, float lambda, unsigned int x,
                                unsigned int y) {
    const int L = static_cast<int>(u.extents.z);
    float w[C], uold[C];
    primalStep<C, float, F>(PrimalPixel(u, f, p, D, x, y), tau, lambda, L, w, uold);
    for (int l = 0; l < L; ++l) {
        vela::at(u, x, y, l) = w[l];
        vela::at(ubar, x, y, l) = overRelaxed(w[l], uold[l]);
    }
}

template <TvForm F, bool Weighted>
VELA_HD inline void dualPixel(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& v, float sigma,
                              const vela::Array<float, 2>& g, const vela::Array<float4, 2>& D, unsigned int x,
                              unsigned int y) {
    dualStep<float, F, Weighted>(DualPixel(p, v, g, D, x, y), sigma, static_cast<int>(p.extents.z));
}

}  // namespace seg
