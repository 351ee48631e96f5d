// Small text helpers shared by every folder: case folding, trimming, splitting, number parsing.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kx {

// Hash of a map keyed by std::string that is searched with a string_view, without making a
// string for each search.
struct TextHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};
template <typename T>
using TextMap = std::unordered_map<std::string, T, TextHash, std::equal_to<>>;

// Case folding is ASCII: the engine runs in the "C" locale, where only A-Z and a-z change.
inline char LowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
std::string ToLower(std::string_view s);
// `s` in lower case into `out`, which keeps its capacity (names read in a loop).
void AssignLower(std::string_view s, std::string* out);
std::string ToUpper(std::string_view s);
std::string_view Trim(std::string_view s);
// Removes every blank (space and tab): section keywords are compared this way.
std::string RemoveBlanks(std::string_view s);
std::vector<std::string> Split(std::string_view s, char sep);
bool StartsWith(std::string_view s, std::string_view prefix);
bool EndsWith(std::string_view s, std::string_view suffix);
// Parses the whole of s (blanks around allowed) as a finite real number; "d"/"D" exponents
// accepted. Every number the engine reads from a file passes here: "inf", "nan", hex and a
// magnitude past the largest double ("1e999") are not numbers.
std::optional<double> ParseNumber(std::string_view s);
// Shortest text that reads back to exactly v ("%.17g" style, trimmed). Only for finite v:
// files are written through WritableValue (base/sentinels.h) first.
std::string FormatReal(double v);

}  // namespace kx
