// Export — marks what a shared library shows to programs; it keeps everything else to itself.
#pragma once

// Stands between `class` and its name, and before a function.
#if defined(__GNUC__) && !defined(_WIN32)
#define MLNN_EXPORT __attribute__((visibility("default")))
#else
#define MLNN_EXPORT
#endif
