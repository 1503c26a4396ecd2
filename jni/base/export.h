// Marks what the library exports. The version script (tarnbooster.map) lists the same nine names.
#pragma once

#define TARN_EXPORT __attribute__((visibility("default")))
