// files/dumps: the text listings of the model's equations and variables (requests 21 to 28)
// and the infeasibility report written after a failed solve. Every listing is one header line
// of column names under a "!" title and one record a line.
#pragma once

#include <string>
#include <string_view>

#include "model/records.h"

namespace kx::files {

// Default file of each listing request (21..28), e.g. 24 -> "zpm_var.txt"; "" otherwise.
std::string_view DumpFileName(int imsg);

// Writes listing `imsg` (21..28) of `store` to `path`; false when the file cannot be written.
bool WriteDump(int imsg, const std::string& path, const model::ModelStore& store);

// "infeasibilities.txt": every active equation with its residual and bounds, the rows whose
// residual lies outside its bounds by more than `tolerance` marked and listed first.
bool WriteInfeasibilities(const std::string& path, const model::ModelStore& store,
                          double tolerance, std::string_view preamble = "");

}  // namespace kx::files
