/// The export mark. The library is built with hidden visibility; what carries this mark can be
/// linked against, everything else stays inside.

#pragma once

/// Marks what an application can be linked against.
#define VORNFC_EXPORT __attribute__((visibility("default")))
