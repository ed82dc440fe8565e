// The one macro that marks what the shared library exports. Everything else is built with hidden
// visibility; tests/abi/exports.txt lists the result and a test compares the two. A standard
// attribute, so that it may stand beside others such as [[nodiscard]].
#pragma once

#if defined(_WIN32)
#define ORB_API [[gnu::dllexport]]
#else
#define ORB_API [[gnu::visibility("default")]]
#endif
