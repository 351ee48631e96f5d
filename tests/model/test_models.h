// Small model stores for the model tests, compiled from residual strings with lang::Compiler.
// `$x` in a residual reads the time derivative of x; variables whose derivative is read get an
// idiff in variable order.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "base/report.h"
#include "lang/compiler.h"
#include "model/records.h"

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
  int type = kEqual;
};

inline ModelStore MakeModel(const std::vector<VarSpec>& vars, const std::vector<EqnSpec>& eqns) {
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
  lang::Resolver resolve = [&](std::string_view name, bool derivative) {
    lang::Symbol sym;
    for (int n = 1; n <= store.nvar; ++n) {
      if (store.Var(n).name != name) continue;
      sym.kind = lang::Symbol::Kind::kColumn;
      sym.column = n + (derivative ? store.nvar : 0);
    }
    return sym;
  };
  for (const EqnSpec& s : eqns) {
    Equation e;
    e.name = "eqn " + std::to_string(store.eqns.size() + 1);
    e.text = s.residual;
    e.obj_eqn = s.objective;
    e.type = s.type;
    if (s.type == kGreater) e.upper = kUnlimited;
    if (s.type == kLess) e.lower = -kUnlimited;
    e.program = static_cast<int>(store.programs.size());
    store.programs.push_back(compiler.CompileEquation(static_cast<int>(store.eqns.size()) + 1,
                                                      s.residual, resolve, &e.columns));
    for (int col : e.columns) {
      if (col <= store.nvar) continue;
      e.differential = true;
      store.Var(col - store.nvar).diff = true;
    }
    store.eqns.push_back(e);
  }
  for (int n = 1; n <= store.nvar; ++n) {
    if (store.Var(n).diff) store.Var(n).idiff = ++store.ndiff;
  }
  return store;
}

// A random model: nvar variables v1.. with values in [0.5, 1.5], derivatives read by some rows,
// neqn rows of a few nonlinear terms each, and one objective row.
inline ModelStore MakeRandomModel(unsigned seed, int nvar, int neqn) {
  std::mt19937 rng(seed);
  auto pick = [&](int n) { return static_cast<int>(rng() % n) + 1; };
  std::uniform_real_distribution<double> value(0.5, 1.5);
  std::vector<VarSpec> vars;
  for (int n = 1; n <= nvar; ++n) vars.push_back({"v" + std::to_string(n), value(rng)});
  const char* kTerms[] = {"v{a}*v{b}", "sin(v{a})*v{b}", "exp(0.3*v{a})", "v{a}^2*v{b}",
                          "$v{a}*v{b}", "log(v{a}+2)*$v{b}", "v{a}/(v{b}+3)", "$v{a}"};
  std::vector<EqnSpec> eqns;
  for (int e = 0; e <= neqn; ++e) {
    std::string text;
    for (int t = 0; t < 3; ++t) {
      std::string term = kTerms[rng() % (e == neqn ? 4 : 8)];
      for (auto [key, n] : {std::pair{"{a}", pick(nvar)}, std::pair{"{b}", pick(nvar)}}) {
        if (size_t at = term.find(key); at != std::string::npos) {
          term.replace(at, 3, std::to_string(n));
        }
      }
      text += (t == 0 ? "" : " + ") + term;
    }
    eqns.push_back({text + " - 1", e == neqn});
  }
  return MakeModel(vars, eqns);
}

// Runs `body`, expecting a stop; returns every printed line.
template <typename F>
std::vector<std::string> StopLines(F body) {
  OutputCapture capture;
  EXPECT_THROW(body(), Stop);
  return capture.lines();
}

}  // namespace kx::model::testing
