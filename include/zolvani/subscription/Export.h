// ZSM_EXPORT marks what the shared library libzsm exports of the C++ API: the
// public classes and functions. The library is compiled with hidden visibility,
// so whatever a public header does not mark stays inside it.
#pragma once

#if defined(__GNUC__)
#define ZSM_EXPORT __attribute__((visibility("default")))
#else
#define ZSM_EXPORT
#endif
