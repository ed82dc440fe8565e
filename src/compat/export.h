// The one macro that marks what the shared library exports. Everything else is built with hidden
// visibility; tests/abi/exports.txt lists the result and a test compares the two.
#pragma once

#if defined(_WIN32)
#define ORB_API __declspec(dllexport)
#else
#define ORB_API __attribute__((visibility("default")))
#endif
