// The random walker's steps on the host backend, a span of a row at a time:
// the interior of the row in runs of pixels held in vector lanes, the border
// pixels one by one.  Every pixel gets the same operations as its GPU thread
// (src/dataterms/walker_steps.h), and the sums add the pixels' values in x
// order, so the results are those of a plain loop over the pixels, bit for
// bit.
#pragma once

#include "src/dataterms/walker_steps.h"

namespace seg::walker {

// At most this many rows at a time.
constexpr unsigned int kRowsAtOnce = 4;

// Runs Step (one of the steps of walker_steps.h) at pixels x0 .. x1 - 1 of
// rows y0 .. y0 + n - 1 (n from 1 to kRowsAtOnce), label l, with the label's
// coefficient, and sets first[k] and second[k] to the sums, in x order and in
// double, of the two values it gives each pixel of row y0 + k.
template <class Step>
void hostRows(const WalkerArrays& a, unsigned int x0, unsigned int x1, unsigned int y0, unsigned int n, unsigned int l,
              float coefficient, double* first, double* second);

}  // namespace seg::walker
