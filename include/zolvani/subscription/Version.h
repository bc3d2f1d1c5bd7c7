// The library's version symbols.
#pragma once

#include "zolvani/subscription/Export.h"

namespace zolvani {

// The version as a number (major.minor).
extern ZSM_EXPORT const double ZolvaniClientSubscriptionManagerVersionNumber;
// The version as text.
extern ZSM_EXPORT const unsigned char ZolvaniClientSubscriptionManagerVersionString[];

}  // namespace zolvani
