// The primal-dual solver's device operations, one launch each on the default
// stream.  Every operation takes W, H and L from its first array; the caller
// gives arrays of matching sizes and checks the device error state afterwards.
// Operations holding a pixel's labels in thread-local storage throw
// std::runtime_error for more than kMaxLabels labels.
#pragma once

#include "vela/tools.h"

namespace seg {

// Which code the host backend runs for the per-pixel dual and primal steps: the
// vectorised row sweeps of src/solver/host_sweeps.h (the default), or the
// per-thread kernel bodies through the generic launcher, exactly as a GPU runs
// them.  Both give the same bits; the second is there to show it and to time
// the difference.  The cuda backend always runs the kernels.
enum class HostSweep { Rows, Threads };
void setHostSweep(HostSweep sweep);
HostSweep hostSweep();

// Model 0: p = proj_unit_disc(p + sigma * grad v).
void update_dual(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& v, float sigma);
// Model 1: p = proj_disc_g(p + sigma * grad v).
void update_dual(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& v, float sigma,
                 const vela::Array<float, 2>& g);
// Models 0 and 1: u = proj_simplex(u + tau * (div p - lambda * f)); ū = 2 u_new - u_old.
void update_primal(const vela::Array<float, 3>& u, const vela::Array<float, 3>& ubar, const vela::Array<float, 3>& f,
                   const vela::Array<float2, 3>& p, float tau, float lambda);

// Model 3, the structure-tensor field D with weights g.
void update_dual_aniso(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& ubar, float sigma,
                       const vela::Array<float4, 2>& D, const vela::Array<float, 2>& g);
void update_primal_aniso(const vela::Array<float, 3>& u, const vela::Array<float, 3>& ubar,
                         const vela::Array<float, 3>& f, const vela::Array<float2, 3>& p,
                         const vela::Array<float4, 2>& D, float tau, float lambda);

// Model 4, the reflection tensor field D.
void update_dual_aniso_exp(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& ubar, float sigma,
                           const vela::Array<float4, 2>& D);
void update_primal_aniso_exp(const vela::Array<float, 3>& u, const vela::Array<float, 3>& ubar,
                             const vela::Array<float, 3>& f, const vela::Array<float2, 3>& p,
                             const vela::Array<float4, 2>& D, float tau, float lambda);

// One iteration of models 0, 1, 3 and 4: the model's dual step and then its
// primal step, as above (model 0's dual step reads u, the others' ū).  The
// host's row sweeps take both in one pass over the rows, with the same values;
// otherwise the two steps are two launches.
void tv_iteration(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& u, const vela::Array<float, 3>& ubar,
                  const vela::Array<float, 3>& f, float sigma, float tau, float lambda);
void weighted_tv_iteration(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& u,
                           const vela::Array<float, 3>& ubar, const vela::Array<float, 3>& f,
                           const vela::Array<float, 2>& g, float sigma, float tau, float lambda);
void aniso_iteration(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& u, const vela::Array<float, 3>& ubar,
                     const vela::Array<float, 3>& f, const vela::Array<float4, 2>& D, const vela::Array<float, 2>& g,
                     float sigma, float tau, float lambda);
void aniso_exp_iteration(const vela::Array<float2, 3>& p, const vela::Array<float, 3>& u,
                         const vela::Array<float, 3>& ubar, const vela::Array<float, 3>& f,
                         const vela::Array<float4, 2>& D, float sigma, float tau, float lambda);

// Model 2: the primal and then the dual step of overlapping 32 x 2 tiles in one
// launch, ū kept in block-shared memory only.  Tiles read p of their neighbours,
// which other blocks of the launch update: on a GPU the result depends on the
// order of the blocks.  The host backend uses one fixed order.
void update_fast(const vela::Array<float, 3>& u, const vela::Array<float, 3>& f, const vela::Array<float2, 3>& p,
                 const vela::Array<float, 2>& g, float tau, float sigma, float lambda);

// Where `held` gives a pixel a label index, that label costs nothing in f and
// every other `cost`.
void holdLabels(const vela::Array<float, 3>& f, const vela::Array<float, 2>& held, float cost);

// Makes u hard: 1 at the first label of largest value (ties to the lower
// label), 0 elsewhere.  A pixel with no positive value gets label 0.
void binarize(const vela::Array<float, 3>& u);

}  // namespace seg
