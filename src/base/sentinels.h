// Sentinel values kept exactly: they tell "never set" apart from a value set to a large number.
#pragma once

#include <cmath>

namespace kx {

inline constexpr double kUnsetLower = -1.23456789e+20;  // lower bound not set
inline constexpr double kUnsetUpper = 1.23456789e+20;   // upper bound not set
inline constexpr double kNoValue = 1.23456789e-40;      // measured/computed value never set
inline constexpr double kUnlimited = 1.0e+20;           // unlimited step or validity limit

// A value every reader of the engine's files accepts: an infinity becomes the unlimited value
// of its sign and NaN the never-set value. Files never hold "inf" or "nan".
inline double WritableValue(double v) {
  if (std::isnan(v)) return kNoValue;
  if (std::isinf(v)) return v > 0 ? kUnlimited : -kUnlimited;
  return v;
}

}  // namespace kx
