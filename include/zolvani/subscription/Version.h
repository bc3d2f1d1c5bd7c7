// The library's version symbols.
#pragma once

namespace zolvani {

// The version as a number (major.minor).
extern const double ZolvaniClientSubscriptionManagerVersionNumber;
// The version as text.
extern const unsigned char ZolvaniClientSubscriptionManagerVersionString[];

}  // namespace zolvani
