#include "base/text.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace kx {

std::string ToLower(std::string_view s) {
  std::string out;
  AssignLower(s, &out);
  return out;
}

void AssignLower(std::string_view s, std::string* out) {
  out->assign(s);
  for (char& c : *out) c = LowerAscii(c);
}

std::string ToUpper(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return out;
}

std::string_view Trim(std::string_view s) {
  size_t b = 0, e = s.size();
  while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
  return s.substr(b, e - b);
}

std::string RemoveBlanks(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (char c : s)
    if (c != ' ' && c != '\t' && c != '\r') out += c;
  return out;
}

std::vector<std::string> Split(std::string_view s, char sep) {
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t i = 0; i <= s.size(); ++i) {
    if (i == s.size() || s[i] == sep) {
      out.emplace_back(s.substr(start, i - start));
      start = i + 1;
    }
  }
  return out;
}

bool StartsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

bool EndsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

std::optional<double> ParseNumber(std::string_view s) {
  std::string t(Trim(s));
  if (t.empty()) return std::nullopt;
  for (char& c : t)
    if (c == 'd' || c == 'D') c = 'e';
  // strtod accepts hex, inf and nan; a model or DBS number never has those.
  for (char c : t)
    if (!(std::isdigit(static_cast<unsigned char>(c)) || c == '.' || c == 'e' || c == 'E' ||
          c == '+' || c == '-'))
      return std::nullopt;
  errno = 0;
  char* end = nullptr;
  double v = std::strtod(t.c_str(), &end);
  if (end != t.c_str() + t.size() || end == t.c_str()) return std::nullopt;
  // An overflow gives an infinity; an underflow a tiny or zero value, which is kept.
  if (!std::isfinite(v)) return std::nullopt;
  return v;
}

std::string FormatReal(double v) {
  char buf[40];
  for (int prec = 15; prec <= 17; ++prec) {
    std::snprintf(buf, sizeof buf, "%.*g", prec, v);
    if (std::strtod(buf, nullptr) == v) break;
  }
  return buf;
}

}  // namespace kx
