// lang/vector_index: expansion of bracketed indices in one model statement. `x[1:3] = y[2:4]`
// becomes three statements, one per index; a single index written with a constant (`x[n]`)
// is replaced by its integer value so that every element name reads `x[5]`.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kx::lang {

// Evaluates an index bound written with constants (`n`, `n+1`); the caller decides how.
using IndexEvaluator = std::function<double(std::string_view text)>;

// One index range found in a statement: its place in the text and its bounds.
struct IndexRange {
  size_t open = 0;   // position of '['
  size_t close = 0;  // position of the matching ']'
  long first = 0;
  long last = 0;
  bool range = false;  // true for `a:b`, false for a single index
};

// Finds every bracketed index of `text` (line `line_number` of the model file, for messages)
// and evaluates its bounds. Stops the run on an empty, missing, non-integer or descending index.
std::vector<IndexRange> FindIndices(std::string_view text, int line_number,
                                    const IndexEvaluator& evaluate);

// Number of copies the statement expands to: 1 without ranges, else the common range length.
// Stops the run when two ranges differ in length or a range is longer than `max_copies`.
long CountCopies(const std::vector<IndexRange>& indices, long max_copies);

// The statement written for copy k (0-based): each range replaced by first + k, each single
// index by its value.
std::string WriteCopy(std::string_view text, const std::vector<IndexRange>& indices, long k);

// A vector equation statement whose copies differ from its first only in their indices:
// copy k's statement and residual are made from these on demand, so that the copies keep no
// texts of their own. Shared by the copies.
struct CopiedStatement {
  std::string text;                  // the statement with its index ranges, as written
  std::vector<IndexRange> ranges;    // the ranges in `text`
  std::string residual;              // the residual of copy 0
  std::vector<IndexRange> placed;    // where copy 0's indices stand in `residual`

  std::string Text(long k) const { return WriteCopy(text, ranges, k); }
  std::string Residual(long k) const { return WriteCopy(residual, placed, k); }
};

// The name of element `index` of the vector `base` (`x`, 5 -> `x[5]`).
std::string ElementName(std::string_view base, long index);

// The name of the element k places after `name`, whose one index is an integer
// (`x[3]`, 2 -> `x[5]`); `name` itself for k = 0.
std::string ShiftIndex(std::string_view name, long k);

// Splits an element name `base[index]` (index digits without a leading zero); false for any
// other name.
bool SplitElement(std::string_view name, std::string_view* base, long* index);

// True when `text` has a '[' (the fast path skips expansion otherwise).
inline bool HasIndex(std::string_view text) { return text.find('[') != std::string_view::npos; }

}  // namespace kx::lang
