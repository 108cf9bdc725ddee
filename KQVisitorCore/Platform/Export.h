#pragma once

// Marks the declarations that make up the shared library's interface. Everything else is
// built with hidden visibility and stays private to libKQVisitorCore.so.
#if defined(__GNUC__) || defined(__clang__)
#define KQ_EXPORT __attribute__((visibility("default")))
#else
#define KQ_EXPORT
#endif
