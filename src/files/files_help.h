// The help text of the file routine (request 0): every request code grouped under its
// section title, with the exact code texts users know.
#pragma once

#include <span>
#include <string_view>

namespace kx::files {

// One help line: the request code it documents (0 for titles and header lines) and its text.
struct HelpLine {
  int code;
  std::string_view text;
};

// Every line of the help text, in print order.
std::span<const HelpLine> FileRoutineHelp();

// The first help line of `code` (its "N = ..." text), or "" for a code with no help line.
std::string_view RequestText(int code);

// Prints the help text.
void PrintFileRoutineHelp();

}  // namespace kx::files
