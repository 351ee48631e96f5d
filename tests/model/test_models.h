// Small model stores for the model tests, compiled from residual strings with lang::Compiler.
// `$x` in a residual reads the time derivative of x; variables whose derivative is read get an
// idiff in variable order. Intermediates are inlined by the compiler into the rows that use them.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "base/report.h"
#include "lang/compiler.h"
#include "model/records.h"
#include "model/sparsity.h"
#include "testing/stop_lines.h"

namespace kx::model::testing {

struct VarSpec {
  std::string name;
  double value = 0;
  double lower = -kUnlimited;
  double upper = kUnlimited;
  bool fixed = false;
};

struct EqnSpec {
  std::string residual;     // residual expression
  bool objective = false;   // an objective row
};

// An intermediate: `name` = `text`, defined in order before the equations.
struct IntermediateSpec {
  std::string name;
  std::string text;
};

// Sets diff, idiff and ndiff from the columns the equations read.
inline void AssignDifferentials(ModelStore& store) {
  store.ndiff = 0;
  for (Variable& v : store.vars) {
    v.diff = false;
    v.idiff = 0;
  }
  for (Equation& e : store.eqns) {
    e.differential = false;
    for (int col : e.columns) {
      if (col <= store.nvar) continue;
      e.differential = true;
      store.Var(col - store.nvar).diff = true;
    }
  }
  for (int n = 1; n <= store.nvar; ++n) {
    if (store.Var(n).diff) store.Var(n).idiff = ++store.ndiff;
  }
}

inline ModelStore MakeModel(const std::vector<VarSpec>& vars, const std::vector<EqnSpec>& eqns,
                            const std::vector<IntermediateSpec>& intermediates = {}) {
  ModelStore store;
  store.nvar = static_cast<int>(vars.size());
  for (const VarSpec& s : vars) {
    Variable v;
    v.name = s.name;
    v.number = static_cast<int>(store.vars.size()) + 1;
    v.val = s.value;
    v.lower = s.lower;
    v.upper = s.upper;
    v.fixed = s.fixed;
    v.obj_def = s.name.rfind("obj", 0) == 0;
    v.slack = s.name.rfind("slk", 0) == 0;
    store.order.push_back(static_cast<int>(store.vars.size()));
    store.vars.push_back(v);
  }
  lang::Compiler compiler;
  std::vector<std::pair<std::string, int>> handles;
  lang::Resolver resolve = [&](std::string_view name, bool derivative) {
    lang::Symbol sym;
    for (int n = 1; n <= store.nvar; ++n) {
      if (store.Var(n).name != name) continue;
      sym.kind = lang::Symbol::Kind::kColumn;
      sym.column = n + (derivative ? store.nvar : 0);
    }
    for (const auto& [known, handle] : handles) {
      if (known != name || derivative) continue;
      sym.kind = lang::Symbol::Kind::kIntermediate;
      sym.intermediate = handle;
    }
    return sym;
  };
  for (const IntermediateSpec& q : intermediates) {
    handles.emplace_back(q.name, compiler.DefineIntermediate(q.text, resolve));
  }
  for (const EqnSpec& s : eqns) {
    Equation e;
    e.name = "eqn " + std::to_string(store.eqns.size() + 1);
    e.text = s.residual;
    e.obj_eqn = s.objective;
    e.program = static_cast<int>(store.programs.size());
    store.programs.push_back(compiler.CompileEquation(static_cast<int>(store.eqns.size()) + 1,
                                                      s.residual, resolve, &e.columns));
    store.eqns.push_back(e);
  }
  AssignDifferentials(store);
  return store;
}

// Replaces `old_number` by `new_number` in every equation that reads it (values and time
// derivatives), as a connection that merges the two does; `old_number` is then read by no row.
inline void MergeVariable(ModelStore& store, int old_number, int new_number) {
  for (int e = 0; e < static_cast<int>(store.eqns.size()); ++e) {
    const std::vector<int>& cols = store.eqns[e].columns;
    bool reads = std::find(cols.begin(), cols.end(), old_number) != cols.end() ||
                 std::find(cols.begin(), cols.end(), store.nvar + old_number) != cols.end();
    if (reads) UpdateSparsity(store, e, old_number, new_number);
  }
  AssignDifferentials(store);
}

// A random model: variables v1..v{nvar} with values in [0.5, 1.5] and an objective variable
// obj1 (number nvar+1, read by the first row); intermediates q1 and q2 (q2 reads q1); neqn rows
// of three nonlinear terms each, some reading time derivatives or the intermediates, and one
// objective row without derivatives. Two variables whose values the first row reads are then
// merged, so that row reads one column through two inputs and the absorbed column is
// structurally zero.
inline ModelStore MakeRandomModel(unsigned seed, int nvar, int neqn) {
  std::mt19937 rng(seed);
  auto pick = [&](int n) { return static_cast<int>(rng() % n) + 1; };
  auto fill = [&](std::string text) {
    for (const char* key : {"{a}", "{b}"}) {
      for (size_t at; (at = text.find(key)) != std::string::npos;) {
        text.replace(at, 3, std::to_string(pick(nvar)));
      }
    }
    return text;
  };
  std::uniform_real_distribution<double> value(0.5, 1.5);
  std::vector<VarSpec> vars;
  for (int n = 1; n <= nvar; ++n) vars.push_back({"v" + std::to_string(n), value(rng)});
  vars.push_back({"obj1", value(rng)});
  std::vector<IntermediateSpec> qs = {{"q1", fill("v{a}*exp(v{b}/4)")},
                                      {"q2", fill("q1^2 + log(v{a}+2)")}};
  const char* kTerms[] = {"v{a}*v{b}", "sin(v{a})*v{b}", "exp(0.3*v{a})", "v{a}^2*v{b}",
                          "q2*v{a}",   "sqrt(q1)",       "$v{a}*v{b}",    "log(v{a}+2)*$v{b}",
                          "v{a}/(v{b}+3)", "$v{a}*q1"};
  std::vector<EqnSpec> eqns;
  for (int e = 0; e <= neqn; ++e) {
    std::string text;
    for (int t = 0; t < 3; ++t) {
      text += (t == 0 ? "" : " + ") + fill(kTerms[rng() % (e == neqn ? 6 : 10)]);
    }
    eqns.push_back({text + (e == 0 ? " - obj1" : " - 1"), e == neqn});
  }
  ModelStore store = MakeModel(vars, eqns, qs);
  std::vector<int> first;
  for (int col : store.eqns[0].columns) {
    if (col <= nvar && std::find(first.begin(), first.end(), col) == first.end()) {
      first.push_back(col);
    }
  }
  // Without a merged column and time derivatives the tests over these models prove less.
  EXPECT_GE(first.size(), 2u) << "seed " << seed;
  if (first.size() >= 2) MergeVariable(store, first[1], first[0]);
  EXPECT_GT(store.ndiff, 0) << "seed " << seed;
  return store;
}

using kx::testing::StopLines;

}  // namespace kx::model::testing
