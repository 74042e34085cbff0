#pragma once

/// @file
/// The export macro of the public API.

/// Marks a symbol as part of the library's public ABI; everything else stays hidden.
#if defined(KWQIMAGE_STATIC)
#define KWQ_EXPORT
#else
#define KWQ_EXPORT __attribute__((visibility("default")))
#endif
