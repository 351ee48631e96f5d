// Sharing one program among the equations of one shape.
#include "model/program_reuse.h"

#include <cstring>

#include "base/text.h"

namespace kx::model {
namespace {

using Kind = lang::Symbol::Kind;

// Leaves up to this count find repeated columns by a linear search; longer rows use a map.
constexpr size_t kLinearRepeatSearch = 16;

// The residual text with the digits of every bracketed index dropped: `x[12]` reads `x[]`.
void ShapeText(std::string_view text, std::string* key) {
  key->clear();
  key->reserve(text.size());
  bool in_index = false;
  for (char c : text) {
    if (c == '[') in_index = true;
    if (c == ']') in_index = false;
    if (in_index && c >= '0' && c <= '9') continue;
    key->push_back(c);
  }
}

bool SameValue(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace

int ProgramShapes::Find(std::string_view residual_text, std::vector<int>* columns) {
  ShapeText(residual_text, &key_);
  eligible_ = ReadLeaves(residual_text);
  if (!eligible_) return -1;
  MarkRepeats();
  const auto it = shapes_.find(key_);
  if (it == shapes_.end() || !SameResolution(it->second)) return -1;
  *columns = ColumnsOf(it->second);
  return it->second.program;
}

// The program inputs of `shape` read off the leaves of the last Find.
std::vector<int> ProgramShapes::ColumnsOf(const Shape& shape) const {
  std::vector<int> columns(shape.input_leaf.size());
  for (size_t k = 0; k < shape.input_leaf.size(); ++k)
    columns[k] = leaves_[shape.input_leaf[k]].column;
  return columns;
}

bool ProgramShapes::PlanCopies(std::string_view residual_text,
                               const std::vector<lang::IndexRange>& placed, int program) {
  plan_ = {};
  if (!eligible_) return false;
  const auto it = shapes_.find(key_);
  if (it == shapes_.end() || it->second.program != program) return false;
  CopyPlan plan;
  for (const lang::IndexRange& r : placed) {
    if (!r.range) continue;  // a single index stays as it is in every copy
    Moved moved;
    if (!MoveLeaf(residual_text, r, &moved)) return false;
    if (slices_) moved.slice = slices_(moved.base);
    plan.moved.push_back(std::move(moved));
  }
  plan.shape = &it->second;
  plan.leaves = leaves_;
  plan_ = std::move(plan);
  return true;
}

// The leaf whose name ends in the index range `r` of the first copy's text.
bool ProgramShapes::MoveLeaf(std::string_view text, const lang::IndexRange& r,
                             Moved* moved) const {
  for (size_t i = 0; i < leaf_tokens_.size(); ++i) {
    const lang::Token& t = leaf_tokens_[i];
    if (r.open < static_cast<size_t>(t.pos) || r.open >= static_cast<size_t>(t.pos + t.len))
      continue;
    if (r.close + 1 != static_cast<size_t>(t.pos + t.len)) return false;
    moved->derivative = t.kind == lang::Tok::kDerivName;
    const size_t start = t.pos + (moved->derivative ? 1 : 0);
    AssignLower(text.substr(start, r.open - start), &moved->base);
    moved->index = r.first;
    moved->leaf = static_cast<int>(i);
    return true;
  }
  return false;
}

int ProgramShapes::FindCopy(long k, std::vector<int>* columns) {
  eligible_ = false;  // a Remember after a failed FindCopy must not store the plan's leaves
  if (plan_.shape == nullptr) return -1;
  leaves_ = plan_.leaves;
  for (const Moved& m : plan_.moved) {
    const long index = m.index + k;
    if (m.slice.numbers != nullptr) {
      // An index outside the slice names no element: the text path reports it.
      if (index < m.slice.first || index > m.slice.last) return -1;
      const int number = m.slice.numbers[index - m.slice.first];
      leaves_[m.leaf].column = m.derivative ? m.slice.derivative_offset + number : number;
      continue;
    }
    const lang::Symbol s = lookup_(lang::ElementName(m.base, index), m.derivative);
    if (s.kind != Kind::kColumn) return -1;
    leaves_[m.leaf].column = s.column;
  }
  MarkRepeats();
  if (!SameResolution(*plan_.shape)) return -1;
  *columns = ColumnsOf(*plan_.shape);
  return plan_.shape->program;
}

// Every name of the text through the lookup, in reading order; false when one of them is not
// a constant or a column. `pi` is the compiler's own constant and never looked up.
bool ProgramShapes::ReadLeaves(std::string_view text) {
  leaves_.clear();
  leaf_tokens_.clear();
  lexer_.Scan(text);
  for (const lang::Token& t : lexer_.tokens()) {
    if (t.kind != lang::Tok::kName && t.kind != lang::Tok::kDerivName) continue;
    const bool derivative = t.kind == lang::Tok::kDerivName;
    const int start = t.pos + (derivative ? 1 : 0);
    AssignLower(text.substr(start, t.pos + t.len - start), &name_);
    if (!derivative && name_ == "pi") continue;
    const lang::Symbol s = lookup_(name_, derivative);
    if (s.kind != Kind::kConstant && s.kind != Kind::kColumn) return false;
    leaves_.push_back({s.kind, s.value, s.column, 0});
    leaf_tokens_.push_back(t);
  }
  return true;
}

// Sets each column leaf's `first`: the first leaf that reads the same column.
void ProgramShapes::MarkRepeats() {
  const bool linear = leaves_.size() <= kLinearRepeatSearch;
  if (!linear) first_of_.clear();
  for (size_t i = 0; i < leaves_.size(); ++i) {
    Leaf& leaf = leaves_[i];
    if (leaf.kind != Kind::kColumn) continue;
    leaf.first = static_cast<int>(i);
    if (linear) {
      for (size_t j = 0; j < i; ++j) {
        if (leaves_[j].kind == Kind::kColumn && leaves_[j].column == leaf.column) {
          leaf.first = static_cast<int>(j);
          break;
        }
      }
    } else {
      leaf.first = first_of_.try_emplace(leaf.column, static_cast<int>(i)).first->second;
    }
  }
}

// The names of the last Find resolve as those the shape's program was compiled from, up to
// the columns themselves.
bool ProgramShapes::SameResolution(const Shape& shape) const {
  if (shape.leaves.size() != leaves_.size()) return false;
  for (size_t i = 0; i < leaves_.size(); ++i) {
    const Leaf& a = shape.leaves[i];
    const Leaf& b = leaves_[i];
    if (a.kind != b.kind) return false;
    if (a.kind == Kind::kConstant && !SameValue(a.value, b.value)) return false;
    if (a.kind == Kind::kColumn && a.first != b.first) return false;
  }
  return true;
}

void ProgramShapes::Remember(int program, const std::vector<int>& columns) {
  if (!eligible_ || shapes_.count(key_) > 0) return;
  Shape shape;
  shape.program = program;
  std::unordered_map<int, int> leaf_of;  // column -> first leaf reading it
  for (size_t i = 0; i < leaves_.size(); ++i)
    if (leaves_[i].kind == Kind::kColumn) leaf_of.try_emplace(leaves_[i].column, static_cast<int>(i));
  shape.input_leaf.reserve(columns.size());
  for (int column : columns) {
    const auto found = leaf_of.find(column);
    if (found == leaf_of.end()) return;  // an input no name of the text feeds: not shared
    shape.input_leaf.push_back(found->second);
  }
  shape.leaves = leaves_;
  shapes_.emplace(key_, std::move(shape));
}

}  // namespace kx::model
