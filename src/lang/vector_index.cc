#include "lang/vector_index.h"

#include <charconv>
#include <cmath>
#include <string>

#include "base/report.h"
#include "base/text.h"

namespace kx::lang {
namespace {

// Largest index magnitude accepted.
constexpr long kMaxIndex = 1000000000;

// index-bound -> integer | constant-expression
long EvaluateBound(std::string_view text, int line_number, const IndexEvaluator& evaluate) {
  std::string t(Trim(text));
  if (t.empty()) {
    Fatal({"model error: missing vector index", fmt::format("line number: {}", line_number)});
  }
  double v;
  if (auto n = ParseNumber(t)) {
    v = *n;
  } else {
    v = evaluate(t);
  }
  if (!std::isfinite(v) || v != std::floor(v) || std::fabs(v) > kMaxIndex) {
    Fatal({"ZPM model error: problem with vector index", "non-integer value: " + t,
           fmt::format("line number: {}", line_number)});
  }
  return static_cast<long>(v);
}

// index -> bound | bound ':' bound
IndexRange ParseIndex(std::string_view text, size_t open, size_t close, int line_number,
                      const IndexEvaluator& evaluate) {
  std::string_view inner = text.substr(open + 1, close - open - 1);
  if (Trim(inner).empty()) {
    Fatal({fmt::format("Empty vector index at Line {}", line_number), std::string(text)},
          "Stopping...");
  }
  IndexRange r;
  r.open = open;
  r.close = close;
  size_t colon = inner.find(':');
  if (colon == std::string_view::npos) {
    r.first = r.last = EvaluateBound(inner, line_number, evaluate);
    return r;
  }
  if (inner.find(':', colon + 1) != std::string_view::npos) {
    Fatal({"model error: problem with vector index", "non-integer value: " + std::string(inner),
           fmt::format("line number: {}", line_number)});
  }
  r.range = true;
  r.first = EvaluateBound(inner.substr(0, colon), line_number, evaluate);
  r.last = EvaluateBound(inner.substr(colon + 1), line_number, evaluate);
  if (r.last < r.first) {
    Fatal({"ZPM model error: vector index range < 0", fmt::format("start index: {}", r.first),
           fmt::format("end index  : {}", r.last), fmt::format("line number: {}", line_number)});
  }
  return r;
}

}  // namespace

std::vector<IndexRange> FindIndices(std::string_view text, int line_number,
                                    const IndexEvaluator& evaluate) {
  std::vector<IndexRange> out;
  size_t pos = 0;
  while ((pos = text.find_first_of("[]", pos)) != std::string_view::npos) {
    size_t close = text.find_first_of("[]", pos + 1);
    if (text[pos] == ']' || close == std::string_view::npos || text[close] != ']') {
      Fatal({"model error: missing vector index", fmt::format("line number: {}", line_number),
             "line string: " + std::string(text)});
    }
    out.push_back(ParseIndex(text, pos, close, line_number, evaluate));
    pos = close + 1;
  }
  return out;
}

long CountCopies(const std::vector<IndexRange>& indices, long max_copies) {
  const IndexRange* first = nullptr;
  for (const auto& r : indices) {
    if (!r.range) continue;
    if (!first) {
      first = &r;
    } else if (r.last - r.first != first->last - first->first) {
      Fatal({"ZPM model error: vector index ranges inconsistent",
             fmt::format("index range for first vector: {}:{}", first->first, first->last),
             fmt::format("index range for inconsistent vector {}:{}", r.first, r.last)});
    }
  }
  long copies = first ? first->last - first->first + 1 : 1;
  if (copies > max_copies) {
    Fatal({"ZPM model error: vector index range too large",
           fmt::format("index range: {}:{}", first->first, first->last),
           fmt::format("longest range accepted: {}", max_copies)});
  }
  return copies;
}

std::string WriteCopy(std::string_view text, const std::vector<IndexRange>& indices, long k) {
  std::string out;
  out.reserve(text.size() + 8 * indices.size());
  size_t pos = 0;
  char digits[24];
  for (const auto& r : indices) {
    out.append(text.data() + pos, r.open + 1 - pos);
    const long index = r.range ? r.first + k : r.first;
    const auto written = std::to_chars(digits, digits + sizeof digits, index);
    out.append(digits, written.ptr);
    pos = r.close;
  }
  out.append(text.data() + pos, text.size() - pos);
  return out;
}

bool SplitElement(std::string_view name, std::string_view* base, long* index) {
  constexpr size_t kMaxIndexDigits = 9;
  if (name.size() < 3 || name.back() != ']') return false;
  const size_t open = name.rfind('[');
  if (open == std::string_view::npos || open == 0) return false;
  const std::string_view digits = name.substr(open + 1, name.size() - open - 2);
  if (digits.empty() || digits.size() > kMaxIndexDigits) return false;
  if (digits.size() > 1 && digits[0] == '0') return false;
  long value = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return false;
    value = 10 * value + (c - '0');
  }
  *base = name.substr(0, open);
  *index = value;
  return true;
}

std::string ElementName(std::string_view base, long index) {
  char digits[24];
  const auto written = std::to_chars(digits, digits + sizeof digits, index);
  std::string name;
  name.reserve(base.size() + (written.ptr - digits) + 2);
  name.append(base);
  name += '[';
  name.append(digits, written.ptr);
  name += ']';
  return name;
}

std::string ShiftIndex(std::string_view name, long k) {
  if (k == 0) return std::string(name);
  const size_t open = name.find('['), close = name.find(']', open);
  const long first = std::stol(std::string(name.substr(open + 1, close - open - 1)));
  std::string out(name.substr(0, open + 1));
  out += std::to_string(first + k);
  out.append(name.substr(close));
  return out;
}

}  // namespace kx::lang
