// options.json: the option store after the cycle as one JSON object,
//   {"ZPM": {"KEY": value, ...}, "NLC": {outcome keys}, "variable": {"PROPERTY": value,
//    "PRED": [step values], ...}, ...}
// Integer records are written as JSON integers.
#pragma once

#include <string>

#include "dbs/option_store.h"

namespace kx::dbs {

// The JSON text (indented, keys in store order).
std::string FormatOptionsJson(const OptionStore& store);

// Writes FormatOptionsJson() to `path` atomically; false (after a warning) on failure.
bool WriteOptionsJson(const std::string& path, const OptionStore& store);

}  // namespace kx::dbs
