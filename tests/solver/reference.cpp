#include "reference.h"

#include <algorithm>
#include <cmath>

namespace solvertest {
namespace {

unsigned int clampUp(unsigned int i, unsigned int n) { return i + 1 < n ? i + 1 : i; }
unsigned int clampDown(unsigned int i) { return i > 0 ? i - 1 : 0; }

float rgb(const float4& p, int c) { return c == 0 ? p.x : c == 1 ? p.y : p.z; }

void primalPixel(const Grid<float>& u, const Grid<float>& f, const Grid<float2>& p, const Grid<float4>* D, float tau,
                 float lambda, Form form, unsigned int x, unsigned int y, std::vector<float>& w,
                 std::vector<float>& uold) {
    const unsigned int W = u.W, H = u.H, L = u.L;
    const unsigned int xl = clampDown(x), yu = clampDown(y);
    const bool lastX = x == W - 1 && x != 0, lastY = y == H - 1 && y != 0;
    for (unsigned int l = 0; l < L; ++l) {
        const float2 ph = p(x, y, l), pl = p(xl, y, l), pu = p(x, yu, l);
        float div = 0;
        if (form == Form::Isotropic) {
            const float pxHere = lastX ? 0 : ph.x, pxLeft = x == 0 ? 0 : pl.x;
            const float pyHere = lastY ? 0 : ph.y, pyUp = y == 0 ? 0 : pu.y;
            div = (pxHere - pxLeft) + (pyHere - pyUp);
        } else if (form == Form::Structure) {
            const float4 dh = (*D)(x, y), dl = (*D)(xl, y), du = (*D)(x, yu);
            const float pxHere = lastX ? 0 : ph.x, pxLeft = x == 0 ? 0 : pl.x;
            const float pyHere = lastY ? 0 : ph.y, pyUp = y == 0 ? 0 : pu.y;
            const float qyLeft = pl.y, qxUp = pu.x;
            div = (dh.x * pxHere + dh.y * pyHere) - (dl.x * pxLeft + dl.y * qyLeft) + (dh.z * pxHere + dh.w * pyHere) -
                  (du.z * qxUp + du.w * pyUp);
        } else {
            const float4 dh = (*D)(x, y), dl = (*D)(xl, y), du = (*D)(x, yu);
            float qxHere = dh.x * ph.x + dh.y * ph.y, qyHere = dh.z * ph.x + dh.w * ph.y;
            float qxLeft = dl.x * pl.x + dl.y * pl.y, qyUp = du.z * pu.x + du.w * pu.y;
            if (lastX) qxHere = 0;
            if (x == 0) qxLeft = 0;
            if (lastY) qyHere = 0;
            if (y == 0) qyUp = 0;
            div = (qxHere - qxLeft) + (qyHere - qyUp);
        }
        uold[l] = u(x, y, l);
        w[l] = uold[l] + tau * (div - lambda * f(x, y, l));
    }
    refProjectSimplex(w.data(), static_cast<int>(L));
}

}  // namespace

void refProjectSimplex(float* v, int L) {
    float theta = -1e20f;
    for (int round = 0; round < L; ++round) {
        float sum = 0;
        int count = 0;
        for (int k = 0; k < L; ++k)
            if (v[k] > theta) {
                sum += v[k];
                ++count;
            }
        theta = (sum - 1.0f) / static_cast<float>(count);
    }
    for (int k = 0; k < L; ++k) v[k] = std::max(0.0f, v[k] - theta);
}

void refDual(Grid<float2>& p, const Grid<float>& v, float sigma, const Grid<float>* g, const Grid<float4>* D,
             Form form) {
    for (unsigned int l = 0; l < p.L; ++l)
        for (unsigned int y = 0; y < p.H; ++y)
            for (unsigned int x = 0; x < p.W; ++x) {
                const float dx = v(clampUp(x, p.W), y, l) - v(x, y, l);
                const float dy = v(x, clampUp(y, p.H), l) - v(x, y, l);
                float tx = dx, ty = dy;
                if (form == Form::Structure) {
                    const float4 d = (*D)(x, y);
                    tx = d.x * dx + d.y * dy;
                    ty = d.y * dx + d.w * dy;
                } else if (form == Form::Reflection) {
                    const float4 d = (*D)(x, y);
                    tx = d.x * dx + d.y * dy;
                    ty = d.z * dx + d.w * dy;
                }
                const float qx = p(x, y, l).x + sigma * tx, qy = p(x, y, l).y + sigma * ty;
                const float n = std::sqrt(qx * qx + qy * qy);
                const float s = g ? std::fmax(1.0f, n / (*g)(x, y)) : std::fmax(1.0f, n);
                p(x, y, l) = make_float2(qx / s, qy / s);
            }
}

void refPrimal(Grid<float>& u, Grid<float>& ubar, const Grid<float>& f, const Grid<float2>& p, const Grid<float4>* D,
               float tau, float lambda, Form form) {
    std::vector<float> w(u.L), uold(u.L);
    for (unsigned int y = 0; y < u.H; ++y)
        for (unsigned int x = 0; x < u.W; ++x) {
            primalPixel(u, f, p, D, tau, lambda, form, x, y, w, uold);
            for (unsigned int l = 0; l < u.L; ++l) {
                u(x, y, l) = w[l];
                ubar(x, y, l) = 2.0f * w[l] - uold[l];
            }
        }
}

void refFast(Grid<float>& u, const Grid<float>& f, Grid<float2>& p, const Grid<float>& g, float tau, float sigma,
             float lambda) {
    const unsigned int W = u.W, H = u.H, L = u.L;
    const unsigned int tilesX = (W + 30) / 31;
    std::vector<float> uold(L);
    for (unsigned int parity = 0; parity < 2; ++parity)
        for (unsigned int by = parity; by < H; by += 2)
            for (unsigned int bx = 0; bx < tilesX; ++bx) {
                // [tx][ty] -> the tile pixel's new u and its over-relaxed value
                std::vector<std::vector<float>> w(64, std::vector<float>(L)), shared(64, std::vector<float>(L));
                for (unsigned int ty = 0; ty < 2; ++ty)
                    for (unsigned int tx = 0; tx < 32; ++tx) {
                        const unsigned int x = std::min(31 * bx + tx, W - 1), y = std::min(by + ty, H - 1);
                        const unsigned int slot = tx * 2 + ty;
                        primalPixel(u, f, p, nullptr, tau, lambda, Form::Isotropic, x, y, w[slot], uold);
                        for (unsigned int l = 0; l < L; ++l) shared[slot][l] = 2.0f * w[slot][l] - uold[l];
                    }
                for (unsigned int tx = 0; tx < 31; ++tx) {
                    const unsigned int x = 31 * bx + tx, y = by, slot = tx * 2;
                    if (x >= W) continue;
                    for (unsigned int l = 0; l < L; ++l) {
                        const float dx = shared[slot + 2][l] - shared[slot][l];
                        const float dy = shared[slot + 1][l] - shared[slot][l];
                        const float qx = p(x, y, l).x + sigma * dx, qy = p(x, y, l).y + sigma * dy;
                        const float s = std::fmax(1.0f, std::sqrt(qx * qx + qy * qy) / g(x, y));
                        p(x, y, l) = make_float2(qx / s, qy / s);
                        u(x, y, l) = w[slot][l];
                    }
                }
            }
}

void refBinarize(Grid<float>& u) {
    for (unsigned int y = 0; y < u.H; ++y)
        for (unsigned int x = 0; x < u.W; ++x) {
            int best = -1;
            float most = 0;
            for (unsigned int l = 0; l < u.L; ++l) {
                if (u(x, y, l) > most) {
                    most = u(x, y, l);
                    best = static_cast<int>(l);
                }
                u(x, y, l) = 0;
            }
            u(x, y, best < 0 ? 0 : static_cast<unsigned int>(best)) = 1.0f;
        }
}

Grid<float2> refGradient(const Grid<float4>& image) {
    Grid<float2> out(image.W, image.H);
    for (unsigned int y = 0; y < image.H; ++y)
        for (unsigned int x = 0; x < image.W; ++x) {
            float gx = 0, gy = 0;
            for (int c = 0; c < 3; ++c) {
                gx += rgb(image(clampUp(x, image.W), y), c) - rgb(image(x, y), c);
                gy += rgb(image(x, clampUp(y, image.H)), c) - rgb(image(x, y), c);
            }
            out(x, y) = make_float2(gx, gy);
        }
    return out;
}

namespace {
float centralEnergy(const Grid<float4>& image, unsigned int x, unsigned int y) {
    float sx = 0, sy = 0;
    for (int c = 0; c < 3; ++c) {
        const float dx = rgb(image(clampUp(x, image.W), y), c) - rgb(image(clampDown(x), y), c);
        const float dy = rgb(image(x, clampUp(y, image.H)), c) - rgb(image(x, clampDown(y)), c);
        sx += dx * dx;
        sy += dy * dy;
    }
    return sx + sy;
}

struct Structure {
    float n, sxx, sxy, syy;
};

Structure structureAt(const Grid<float4>& image, unsigned int x, unsigned int y) {
    float jx[3], jy[3], n2 = 0;
    for (int c = 0; c < 3; ++c) {
        jx[c] = 0.5f * (rgb(image(clampUp(x, image.W), y), c) - rgb(image(clampDown(x), y), c));
        jy[c] = 0.5f * (rgb(image(x, clampUp(y, image.H)), c) - rgb(image(x, clampDown(y)), c));
        n2 += jx[c] * jx[c] + jy[c] * jy[c];
    }
    const float n = std::sqrt(n2);
    float ex[3] = {1, 0, 0}, ey[3] = {0, 0, 0};
    if (n >= 1e-6f)
        for (int c = 0; c < 3; ++c) {
            ex[c] = jx[c] / n;
            ey[c] = jy[c] / n;
        }
    Structure s{n, 0, 0, 0};
    for (int c = 0; c < 3; ++c) {
        s.sxx += ex[c] * ex[c];
        s.sxy += ex[c] * ey[c];
        s.syy += ey[c] * ey[c];
    }
    return s;
}
}  // namespace

Grid<float> refDiffusivitySTD(const Grid<float4>& image) {
    Grid<float> g(image.W, image.H);
    for (unsigned int y = 0; y < image.H; ++y)
        for (unsigned int x = 0; x < image.W; ++x) g(x, y) = 1.0f / std::sqrt(centralEnergy(image, x, y) + 1e-6f);
    return g;
}

Grid<float> refDiffusivityEXP(const Grid<float4>& image, float alpha) {
    Grid<float> g(image.W, image.H);
    for (unsigned int y = 0; y < image.H; ++y)
        for (unsigned int x = 0; x < image.W; ++x) g(x, y) = std::exp(-alpha * centralEnergy(image, x, y));
    return g;
}

void refStructureTensor(const Grid<float4>& image, Grid<float4>& D, Grid<float>& g) {
    D = Grid<float4>(image.W, image.H);
    g = Grid<float>(image.W, image.H);
    for (unsigned int y = 0; y < image.H; ++y)
        for (unsigned int x = 0; x < image.W; ++x) {
            const Structure s = structureAt(image, x, y);
            D(x, y) = make_float4(s.syy + 1e-4f, -s.sxy, -s.sxy, s.sxx + 1e-4f);
            g(x, y) = 1.0f / (s.n * s.n + 2e-4f);
        }
}

Grid<float4> refReflectionTensor(const Grid<float2>& gradient) {
    Grid<float4> D(gradient.W, gradient.H);
    for (std::size_t i = 0; i < D.data.size(); ++i) {
        const float2 gr = gradient.data[i];
        const float n = std::sqrt(gr.x * gr.x + gr.y * gr.y);
        const float ex = n < 1e-4f ? 1.0f : gr.x / n, ey = n < 1e-4f ? 0.0f : gr.y / n;
        D.data[i] = make_float4(ex, ey, ey, -ex);
    }
    return D;
}

Grid<float4> refGradientTensor(const Grid<float2>& gradient) {
    Grid<float4> D(gradient.W, gradient.H);
    for (std::size_t i = 0; i < D.data.size(); ++i) {
        const float2 gr = gradient.data[i];
        const float n = std::sqrt(gr.x * gr.x + gr.y * gr.y);
        const float ex = n < 1e-6f ? 1.0f : gr.x / n, ey = n < 1e-6f ? 0.0f : gr.y / n;
        const float w = std::exp(-n * n);
        D.data[i] = make_float4(w * ex * ex + ey * ey, (w - 1) * ex * ey, (w - 1) * ex * ey, w * ey * ey + ex * ex);
    }
    return D;
}

Grid<float4> refImageTensor(const Grid<float4>& image) {
    Grid<float4> D(image.W, image.H);
    for (unsigned int y = 0; y < image.H; ++y)
        for (unsigned int x = 0; x < image.W; ++x) {
            const Structure s = structureAt(image, x, y);
            const float w = std::exp(-2.0f * s.n * s.n);
            D(x, y) = make_float4(w * s.sxx + s.syy, (w - 1) * s.sxy, (w - 1) * s.sxy, w * s.syy + s.sxx);
        }
    return D;
}

Grid<float> refSolve(const Grid<float4>& image, const Grid<float>& cost, int model, int iterations, float lambda,
                     int diffusivityType, float alpha) {
    const unsigned int W = cost.W, H = cost.H, L = cost.L;
    Grid<float4> scaled = image;
    for (auto& px : scaled.data) {
        const float k = 0.0039215689f;
        px = make_float4(px.x * k, px.y * k, px.z * k, px.w * k);
    }
    Grid<float> u(W, H, L, 1.0f / static_cast<float>(L)), ubar(W, H, L, 0.0f);
    Grid<float2> p(W, H, L, make_float2(0, 0));
    const float tau = model >= 3 ? 1.0f : 0.1f;
    const float sigma = model == 3 ? 1.0f / 12.0f : model == 4 ? 0.05f : 1.25f;
    Grid<float> g(W, H, 1, 1.0f);
    if (model == 1 || model == 2) {
        if (diffusivityType == 0) g = refDiffusivitySTD(scaled);
        if (diffusivityType == 1) g = refDiffusivityEXP(scaled, alpha);
    }
    Grid<float4> D;
    if (model == 3) refStructureTensor(scaled, D, g);
    if (model == 4) D = refReflectionTensor(refGradient(scaled));
    const float n = static_cast<float>(iterations);
    for (int i = 0; n > static_cast<float>(i); ++i) {
        switch (model) {
            case 0:
                refDual(p, u, sigma, nullptr, nullptr, Form::Isotropic);
                refPrimal(u, ubar, cost, p, nullptr, tau, lambda, Form::Isotropic);
                break;
            case 1:
                refDual(p, ubar, sigma, &g, nullptr, Form::Isotropic);
                refPrimal(u, ubar, cost, p, nullptr, tau, lambda, Form::Isotropic);
                break;
            case 2:
                refFast(u, cost, p, g, tau, sigma, lambda);
                break;
            case 3:
                refDual(p, ubar, sigma, &g, &D, Form::Structure);
                refPrimal(u, ubar, cost, p, &D, tau, lambda, Form::Structure);
                break;
            default:
                refDual(p, ubar, sigma, nullptr, &D, Form::Reflection);
                refPrimal(u, ubar, cost, p, &D, tau, lambda, Form::Reflection);
                break;
        }
    }
    return u;
}

}  // namespace solvertest
