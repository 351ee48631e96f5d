// model/help_texts: the help text of every selector-coded model routine (selector 0) and the
// common reply to an unknown selector. The texts are data: one table, printed line by line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kx::model {

// The help text of `routine` (e.g. "zpm_var_vals"), one string per printed line; empty for an
// unknown routine.
const std::vector<std::string>& HelpText(std::string_view routine);

// Names of every routine that has a help text, in table order.
std::vector<std::string> HelpRoutines();

// Prints the help text of `routine`.
void PrintHelp(std::string_view routine);

// Prints "ERROR: invalid option" with the selector and " for " + `routine`, and stops.
[[noreturn]] void InvalidOption(std::string_view routine, int imsg);

}  // namespace kx::model
