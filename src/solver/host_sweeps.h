// The solver steps on the host backend as row sweeps: OpenMP threads take
// contiguous bands of rows, and each row is processed in runs of 8 and 4
// pixels held in vector lanes, the border pixels one by one.  Every pixel gets
// the same operations, in the same order, as its GPU thread, so the results are
// the kernels' bit for bit.  Arguments and the per-pixel arithmetic are those of
// the kernels of the same names (src/solver/steps.h); L is checked by the
// caller.
#pragma once

#include "vela/tools.h"

namespace seg::host {

void updateDual(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& v, float sigma);
void updateDual(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& v, float sigma,
                const vela::Array<float, 2>& g);
void updatePrimal(const vela::Array<float, 3>& u, const vela::Array<float, 3>& ubar, const vela::Array<float, 3>& f,
                  const vela::Array<float2, 3>& p, float tau, float lambda);

void updateDualAniso(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& ubar, float sigma,
                     const vela::Array<float4, 2>& D, const vela::Array<float, 2>& g);
void updatePrimalAniso(const vela::Array<float, 3>& u, const vela::Array<float, 3>& ubar,
                       const vela::Array<float, 3>& f, const vela::Array<float2, 3>& p, const vela::Array<float4, 2>& D,
                       float tau, float lambda);

void updateDualAnisoExp(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& ubar, float sigma,
                        const vela::Array<float4, 2>& D);
void updatePrimalAnisoExp(const vela::Array<float, 3>& u, const vela::Array<float, 3>& ubar,
                          const vela::Array<float, 3>& f, const vela::Array<float2, 3>& p,
                          const vela::Array<float4, 2>& D, float tau, float lambda);

// One iteration of a model, its dual step and then its primal step, as one
// pass over the rows; the same values as the two steps one after the other.
void iterateTv(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& u, const vela::Array<float, 3>& ubar,
               const vela::Array<float, 3>& f, float sigma, float tau, float lambda);
void iterateWeightedTv(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& u,
                       const vela::Array<float, 3>& ubar, const vela::Array<float, 3>& f,
                       const vela::Array<float, 2>& g, float sigma, float tau, float lambda);
void iterateAniso(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& u, const vela::Array<float, 3>& ubar,
                  const vela::Array<float, 3>& f, const vela::Array<float4, 2>& D, const vela::Array<float, 2>& g,
                  float sigma, float tau, float lambda);
void iterateAnisoExp(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& u, const vela::Array<float, 3>& ubar,
                     const vela::Array<float, 3>& f, const vela::Array<float4, 2>& D, float sigma, float tau,
                     float lambda);

}  // namespace seg::host
