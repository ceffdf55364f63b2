#include "reference.h"

#include <algorithm>
#include <cmath>

namespace solvertest {
namespace {

enum class Form { Isotropic, Structure, Reflection };
constexpr float kLambda = 10.0f;

unsigned int up(unsigned int i, unsigned int n) { return i + 1 < n ? i + 1 : i; }
unsigned int down(unsigned int i) { return i > 0 ? i - 1 : 0; }
float rgb(const float4& p, int c) { return c == 0 ? p.x : c == 1 ? p.y : p.z; }
float4 tensorAt(const Grid<float4>* D, unsigned int x, unsigned int y) {
    return D ? (*D)(x, y) : make_float4(1, 0, 0, 1);
}

template <class T, class F>
Grid<T> perPixel(unsigned int w, unsigned int h, F f) {
    Grid<T> out(w, h);
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) out(x, y) = f(x, y);
    return out;
}

// p + sigma * t, scaled back into the disc of the given radius.
float2 ascend(float2 p, float tx, float ty, float sigma, float radius) {
    const float qx = p.x + sigma * tx, qy = p.y + sigma * ty;
    const float s = std::fmax(1.0f, std::sqrt(qx * qx + qy * qy) / radius);
    return make_float2(qx / s, qy / s);
}

// Forward differences of v, through D (nullptr: the identity), onto discs of
// radius g (nullptr: 1).
void refDual(Grid<float2>& p, const Grid<float>& v, float sigma, const Grid<float>* g, const Grid<float4>* D,
             Form form) {
    for (unsigned int l = 0; l < p.L; ++l)
        for (unsigned int y = 0; y < p.H; ++y)
            for (unsigned int x = 0; x < p.W; ++x) {
                const float dx = v(up(x, p.W), y, l) - v(x, y, l), dy = v(x, up(y, p.H), l) - v(x, y, l);
                const float4 d = tensorAt(D, x, y);
                const float c = form == Form::Structure ? d.y : d.z;  // read as symmetric
                p(x, y, l) = ascend(p(x, y, l), d.x * dx + d.y * dy, c * dx + d.w * dy, sigma, g ? (*g)(x, y) : 1.0f);
            }
}

// The primal step of pixel (x, y): w the projected values, uold those read.
void primalPixel(const Grid<float>& u, const Grid<float>& f, const Grid<float2>& p, const Grid<float4>* D, float tau,
                 Form form, unsigned int x, unsigned int y, std::vector<float>& w, std::vector<float>& uold) {
    const unsigned int xl = down(x), yu = down(y);
    const bool lastX = x + 1 == u.W && x != 0, lastY = y + 1 == u.H && y != 0;
    const float4 dh = tensorAt(D, x, y), dl = tensorAt(D, xl, y), du = tensorAt(D, x, yu);
    for (unsigned int l = 0; l < u.L; ++l) {
        const float2 ph = p(x, y, l), pl = p(xl, y, l), pu = p(x, yu, l);
        float qxHere, qyHere, qxLeft, qyUp;
        if (form == Form::Reflection) {  // the tensor first, then the border
            qxHere = lastX ? 0 : dh.x * ph.x + dh.y * ph.y;
            qyHere = lastY ? 0 : dh.z * ph.x + dh.w * ph.y;
            qxLeft = x == 0 ? 0 : dl.x * pl.x + dl.y * pl.y;
            qyUp = y == 0 ? 0 : du.z * pu.x + du.w * pu.y;
        } else {  // the border on the components; the neighbours' cross terms stay
            const float pxHere = lastX ? 0 : ph.x, pyHere = lastY ? 0 : ph.y;
            const float pxLeft = x == 0 ? 0 : pl.x, pyUp = y == 0 ? 0 : pu.y;
            qxHere = dh.x * pxHere + dh.y * pyHere;
            qyHere = dh.z * pxHere + dh.w * pyHere;
            qxLeft = dl.x * pxLeft + dl.y * pl.y;
            qyUp = du.z * pu.x + du.w * pyUp;
        }
        uold[l] = u(x, y, l);
        w[l] = uold[l] + tau * ((qxHere - qxLeft) + (qyHere - qyUp) - kLambda * f(x, y, l));
    }
    refProjectSimplex(w.data(), static_cast<int>(u.L));
}

// One iteration of model 0, 1, 3 or 4: the dual step (model 0 reads u, the
// others ū; models 1 and 3 weighted by g, 3 and 4 through D), then the primal
// step.
void refIteration(int model, Grid<float2>& p, Grid<float>& u, Grid<float>& ubar, const Grid<float>& f,
                  const Grid<float>& g, const Grid<float4>& D, float sigma, float tau) {
    const Form form = model == 3 ? Form::Structure : model == 4 ? Form::Reflection : Form::Isotropic;
    const Grid<float4>* tensors = model >= 3 ? &D : nullptr;
    refDual(p, model == 0 ? u : ubar, sigma, model == 1 || model == 3 ? &g : nullptr, tensors, form);
    std::vector<float> w(u.L), uold(u.L);
    for (unsigned int y = 0; y < u.H; ++y)
        for (unsigned int x = 0; x < u.W; ++x) {
            primalPixel(u, f, p, tensors, tau, form, x, y, w, uold);
            for (unsigned int l = 0; l < u.L; ++l) {
                u(x, y, l) = w[l];
                ubar(x, y, l) = 2.0f * w[l] - uold[l];
            }
        }
}

// Tiles of 32 x 2 pixels advancing by 31 columns and one row; rows of tiles
// with even index first, then odd, each from left to right.  A tile takes the
// primal step of its pixels (clamped into the image), then the dual step of
// its upper row's first 31 pixels from their ū, and stores their u.
void refFast(Grid<float>& u, const Grid<float>& f, Grid<float2>& p, const Grid<float>& g, float tau, float sigma) {
    std::vector<float> w(u.L), uold(u.L);
    for (unsigned int parity = 0; parity < 2; ++parity)
        for (unsigned int y = parity; y < u.H; y += 2)
            for (unsigned int x0 = 0; x0 < u.W; x0 += 31) {
                Grid<float> next(32, 2, u.L), bar(32, 2, u.L);
                for (unsigned int ty = 0; ty < 2; ++ty)
                    for (unsigned int tx = 0; tx < 32; ++tx) {
                        primalPixel(u, f, p, nullptr, tau, Form::Isotropic, std::min(x0 + tx, u.W - 1),
                                    std::min(y + ty, u.H - 1), w, uold);
                        for (unsigned int l = 0; l < u.L; ++l) {
                            next(tx, ty, l) = w[l];
                            bar(tx, ty, l) = 2.0f * w[l] - uold[l];
                        }
                    }
                for (unsigned int tx = 0; tx < 31 && x0 + tx < u.W; ++tx)
                    for (unsigned int l = 0; l < u.L; ++l) {
                        float2& q = p(x0 + tx, y, l);
                        q = ascend(q, bar(tx + 1, 0, l) - bar(tx, 0, l), bar(tx, 1, l) - bar(tx, 0, l), sigma,
                                   g(x0 + tx, y));
                        u(x0 + tx, y, l) = next(tx, 0, l);
                    }
            }
}

// Forward or central differences over clamped neighbours, per channel.
void differences(const Grid<float4>& image, unsigned int x, unsigned int y, bool central, float* dx, float* dy) {
    for (int c = 0; c < 3; ++c) {
        dx[c] = rgb(image(up(x, image.W), y), c) - rgb(image(central ? down(x) : x, y), c);
        dy[c] = rgb(image(x, up(y, image.H)), c) - rgb(image(x, central ? down(y) : y), c);
    }
}

// The norm n of the colour Jacobian and the structure tensor of its unit
// columns, taken as (1, 0, 0) and 0 where n < 1e-6.
struct Structure {
    float n, sxx, sxy, syy;
};

Structure structureAt(const Grid<float4>& image, unsigned int x, unsigned int y) {
    float dx[3], dy[3], n2 = 0;
    differences(image, x, y, true, dx, dy);
    for (int c = 0; c < 3; ++c) n2 += (0.5f * dx[c]) * (0.5f * dx[c]) + (0.5f * dy[c]) * (0.5f * dy[c]);
    Structure s{std::sqrt(n2), 0, 0, 0};
    for (int c = 0; c < 3; ++c) {
        const float ex = s.n < 1e-6f ? (c == 0 ? 1.0f : 0.0f) : 0.5f * dx[c] / s.n;
        const float ey = s.n < 1e-6f ? 0.0f : 0.5f * dy[c] / s.n;
        s.sxx += ex * ex;
        s.sxy += ex * ey;
        s.syy += ey * ey;
    }
    return s;
}

// w on the structure tensor, 1 on its adjugate.
float4 weighted(float w, float sxx, float sxy, float syy) {
    return make_float4(w * sxx + syy, (w - 1) * sxy, (w - 1) * sxy, w * syy + sxx);
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

Grid<float2> refGradient(const Grid<float4>& image) {
    return perPixel<float2>(image.W, image.H, [&](unsigned int x, unsigned int y) {
        float dx[3], dy[3];
        differences(image, x, y, false, dx, dy);
        return make_float2(dx[0] + dx[1] + dx[2], dy[0] + dy[1] + dy[2]);
    });
}

Grid<float> refDiffusivity(const Grid<float4>& image, int type, float alpha) {
    return perPixel<float>(image.W, image.H, [&](unsigned int x, unsigned int y) {
        float dx[3], dy[3], s = 0;
        differences(image, x, y, true, dx, dy);
        for (int c = 0; c < 3; ++c) s += dx[c] * dx[c] + dy[c] * dy[c];
        return type == 0 ? 1.0f / std::sqrt(s + 1e-6f) : type == 1 ? std::exp(-alpha * s) : 1.0f;
    });
}

void refStructureTensor(const Grid<float4>& image, Grid<float4>& D, Grid<float>& g) {
    D = perPixel<float4>(image.W, image.H, [&](unsigned int x, unsigned int y) {
        const Structure s = structureAt(image, x, y);
        return make_float4(s.syy + 1e-4f, -s.sxy, -s.sxy, s.sxx + 1e-4f);
    });
    g = perPixel<float>(image.W, image.H, [&](unsigned int x, unsigned int y) {
        const float n = structureAt(image, x, y).n;
        return 1.0f / (n * n + 2e-4f);
    });
}

Grid<float4> refGradientTensor(const Grid<float2>& gradient, bool reflection) {
    return perPixel<float4>(gradient.W, gradient.H, [&](unsigned int x, unsigned int y) {
        const float2 d = gradient(x, y);
        const float n = std::sqrt(d.x * d.x + d.y * d.y), small = reflection ? 1e-4f : 1e-6f;
        const float ex = n < small ? 1.0f : d.x / n, ey = n < small ? 0.0f : d.y / n;
        return reflection ? make_float4(ex, ey, ey, -ex) : weighted(std::exp(-n * n), ex * ex, ex * ey, ey * ey);
    });
}

Grid<float4> refContrastWeights(const Grid<float4>& image) {
    double sum = 0, edges = 0;
    auto square = [&](const float4& a, const float4& b) {
        float s = 0;
        for (int c = 0; c < 3; ++c) s += (rgb(a, c) - rgb(b, c)) * (rgb(a, c) - rgb(b, c));
        return s;
    };
    for (unsigned int y = 0; y < image.H; ++y)
        for (unsigned int x = 0; x < image.W; ++x) {
            if (x + 1 < image.W) sum += square(image(x + 1, y), image(x, y)), ++edges;
            if (y + 1 < image.H) sum += square(image(x, y + 1), image(x, y)), ++edges;
        }
    const float b = sum > 0 ? static_cast<float>(edges / (2 * sum)) : 0.0f;
    return perPixel<float4>(image.W, image.H, [&](unsigned int x, unsigned int y) {
        const float wx = x + 1 < image.W ? std::exp(-b * square(image(x + 1, y), image(x, y))) : 0.0f;
        const float wy = y + 1 < image.H ? std::exp(-b * square(image(x, y + 1), image(x, y))) : 0.0f;
        return make_float4(wx, 0, 0, wy);
    });
}

Grid<float4> refImageTensor(const Grid<float4>& image) {
    return perPixel<float4>(image.W, image.H, [&](unsigned int x, unsigned int y) {
        const Structure s = structureAt(image, x, y);
        return weighted(std::exp(-2.0f * s.n * s.n), s.sxx, s.sxy, s.syy);
    });
}

Grid<float> refSolve(const Grid<float4>& image, const Grid<float>& cost, int model, int iterations,
                     int diffusivityType) {
    const unsigned int W = cost.W, H = cost.H, L = cost.L;
    Grid<float4> scaled = image;
    const float k = 0.0039215689f;  // 1 / 255
    for (auto& px : scaled.data) px = make_float4(px.x * k, px.y * k, px.z * k, px.w * k);
    Grid<float> u(W, H, L, 1.0f / static_cast<float>(L)), ubar(W, H, L, 0.0f), g(W, H, 1, 1.0f);
    Grid<float2> p(W, H, L, make_float2(0, 0));
    Grid<float4> D;
    if (model == 1 || model == 2) g = refDiffusivity(scaled, diffusivityType, 0.5f);
    if (model == 3) refStructureTensor(scaled, D, g);
    if (model == 4) D = refGradientTensor(refGradient(scaled), true);
    if (model == 5) D = refContrastWeights(scaled);
    const bool tensorSteps = model == 3 || model == 4;
    const float tau = tensorSteps ? 1.0f : 0.1f, sigma = model == 3 ? 1.0f / 12.0f : model == 4 ? 0.05f : 1.25f;
    for (int i = 0; static_cast<float>(iterations) > static_cast<float>(i); ++i) {
        if (model == 2) refFast(u, cost, p, g, tau, sigma);
        // Per-edge weights are the reflection form's steps with a diagonal tensor.
        if (model != 2) refIteration(model == 5 ? 4 : model, p, u, ubar, cost, g, D, sigma, tau);
    }
    return u;
}

}  // namespace solvertest
