#include "horizon/terms.h"

#include "base/check.h"
#include "base/report.h"
#include "lang/compiler.h"
#include "model/builder.h"

namespace kx::horizon {

int TermBuilder::AddMember(std::string name, double value, double lower, double upper,
                           bool fixed, bool differential) {
  KX_CHECK(!sealed_);
  model::Variable v;
  v.name = std::move(name);
  v.vtype = model::kVarGenerated;
  v.val = value;
  v.lower = lower;
  v.upper = upper;
  v.fixed = fixed;
  v.diff = differential;
  queued_.push_back(std::move(v));
  return store_.nvar + static_cast<int>(queued_.size());
}

void TermBuilder::Seal() {
  KX_CHECK(!sealed_);
  sealed_ = true;
  const int old_nvar = store_.nvar;
  const int added = static_cast<int>(queued_.size());
  if (added == 0) return;
  // Time-derivative columns are nvar + number: they move past the new variables.
  for (model::Equation& q : store_.eqns)
    for (int& c : q.columns)
      if (c > old_nvar) c += added;
  for (model::Intermediate& m : store_.intermediates)
    for (int& c : m.columns)
      if (c > old_nvar) c += added;
  store_.vars.reserve(store_.vars.size() + queued_.size());
  for (model::Variable& v : queued_) {
    v.number = v.number_v = ++store_.nvar;
    if (v.diff) v.idiff = ++store_.ndiff;
    store_.order.push_back(static_cast<int>(store_.vars.size()));
    store_.vars.push_back(std::move(v));
  }
  queued_.clear();
}

const TermBuilder::Compiled& TermBuilder::Compile(std::string_view expr,
                                                  const std::vector<RowInput>& inputs) {
  if (auto it = programs_.find(expr); it != programs_.end()) return it->second;
  // Placeholders get stand-in columns in order of first use; the program's local inputs are
  // then named by placeholder, so any caller can map them to its own variables.
  std::vector<std::string> seen;
  auto resolve = [&](std::string_view name, bool derivative) {
    std::string key = (derivative ? "$" : "") + std::string(name);
    lang::Symbol s;
    bool known = false;
    for (const RowInput& in : inputs) known = known || in.placeholder == name;
    if (!known) return s;  // unknown: the compiler stops with the name
    s.kind = lang::Symbol::Kind::kColumn;
    for (size_t i = 0; i < seen.size(); ++i)
      if (seen[i] == key) s.column = static_cast<int>(i) + 1;
    if (s.column == 0) {
      seen.push_back(key);
      s.column = static_cast<int>(seen.size());
    }
    return s;
  };
  lang::Compiler compiler;
  std::vector<int> columns;
  Compiled c;
  lang::Program program = compiler.CompileEquation(1, expr, resolve, &columns);
  for (int col : columns) c.inputs.push_back(seen[col - 1]);
  c.program = static_cast<int>(store_.programs.size());
  store_.programs.push_back(std::move(program));
  return programs_.emplace(std::string(expr), std::move(c)).first->second;
}

int TermBuilder::AddRow(std::string name, std::string text, std::string_view expr,
                        const std::vector<RowInput>& inputs, RowKind kind) {
  KX_CHECK(sealed_);
  const Compiled& c = Compile(expr, inputs);
  model::Equation q;
  q.name = std::move(name);
  q.text = std::move(text);
  q.program = c.program;
  q.obj_eqn = kind == RowKind::kObjective;
  q.type = kind == RowKind::kNonNegative ? model::kGreater : model::kEqual;
  q.lower = 0.0;
  q.upper = kind == RowKind::kNonNegative ? kUnlimited : 0.0;
  for (const std::string& placeholder : c.inputs) {
    const bool derivative = placeholder[0] == '$';
    const std::string_view bare = std::string_view(placeholder).substr(derivative ? 1 : 0);
    int column = 0;
    for (const RowInput& in : inputs)
      if (in.placeholder == bare) column = derivative ? store_.nvar + in.number : in.number;
    KX_CHECK(column > 0);
    q.differential = q.differential || derivative;
    q.columns.push_back(column);
  }
  store_.eqns.push_back(std::move(q));
  return static_cast<int>(store_.eqns.size()) - 1;
}

void TermBuilder::Finish() { model::CountEquationKinds(&store_); }

}  // namespace kx::horizon
