// How a colour-coded label image is read: black marks an unlabelled pixel, and
// a pixel carries the label whose colour has exactly its r, g and b.
#pragma once

#include "vela/device/types.h"

namespace seg {

VELA_HD inline bool isUnlabelled(const float4& p) { return p.x == 0.0f && p.y == 0.0f && p.z == 0.0f; }

// The fourth component is not part of a label's colour.
VELA_HD inline bool sameLabelColour(const float4& a, const float4& b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

}  // namespace seg
