/// The export mark. The library is built with hidden visibility; what carries this mark can be
/// linked against, everything else stays inside.

#pragma once

#define VORNFC_EXPORT __attribute__((visibility("default")))
