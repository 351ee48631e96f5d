// Sentinel values kept exactly: they tell "never set" apart from a value set to a large number.
#pragma once

namespace kx {

inline constexpr double kUnsetLower = -1.23456789e+20;  // lower bound not set
inline constexpr double kUnsetUpper = 1.23456789e+20;   // upper bound not set
inline constexpr double kNoValue = 1.23456789e-40;      // measured/computed value never set
inline constexpr double kUnlimited = 1.0e+20;           // unlimited step or validity limit

}  // namespace kx
