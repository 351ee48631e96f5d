// Helpers shared by the lang, model and golden tests: a small symbol table, a compiled equation
// with its column map, and the finite-difference check of a program's derivatives.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "base/report.h"
#include "lang/compiler.h"
#include "testing/stop_lines.h"

namespace kx::lang::testing {

// Variables x, y, z, w, u, v are columns 1..6 ($x is column 6 + 1, ...); c is the constant
// 2.5; names added with AddIntermediate resolve to intermediates.
class Symbols {
 public:
  static constexpr int kNumVars = 6;
  Resolver resolver() {
    return [this](std::string_view name, bool derivative) {
      Symbol s;
      const std::string key(name);
      static const char* kVars[kNumVars] = {"x", "y", "z", "w", "u", "v"};
      for (int k = 0; k < kNumVars; ++k) {
        if (key == kVars[k]) {
          s.kind = Symbol::Kind::kColumn;
          s.column = k + 1 + (derivative ? kNumVars : 0);
          return s;
        }
      }
      if (derivative) return s;
      if (auto it = constants_.find(key); it != constants_.end()) {
        s.kind = Symbol::Kind::kConstant;
        s.value = it->second;
      } else if (auto it2 = intermediates_.find(key); it2 != intermediates_.end()) {
        s.kind = Symbol::Kind::kIntermediate;
        s.intermediate = it2->second;
      }
      return s;
    };
  }
  void AddIntermediate(Compiler* c, const std::string& name, const std::string& text) {
    intermediates_[name] = c->DefineIntermediate(text, resolver());
  }

 private:
  std::map<std::string, double> constants_{{"c", 2.5}};
  std::map<std::string, int> intermediates_;
};

// A compiled equation evaluated at points given per model column (1-based, columns 1..12).
struct Compiled {
  Program program;
  std::vector<int> columns;

  std::vector<double> Gather(const std::vector<double>& point) const {
    std::vector<double> in;
    for (int col : columns) in.push_back(point[col]);
    return in;
  }
  double Residual(const std::vector<double>& point, DomainErrors* errs = nullptr) const {
    std::vector<double> work(program.work_size());
    return program.Residual(Gather(point).data(), work.data(), errs);
  }
};

// Residual and gradient of `p` at local inputs `in`.
inline double Eval(const Program& p, const std::vector<double>& in) {
  std::vector<double> work(p.work_size());
  return p.Residual(in.data(), work.data(), nullptr);
}
inline std::vector<double> EvalGradient(const Program& p, const std::vector<double>& in) {
  std::vector<double> work(p.work_size()), grad(p.num_inputs());
  p.Gradient(in.data(), work.data(), grad.data(), nullptr);
  return grad;
}

// Checks the three entry points agree on the value and the gradient, the gradient against
// central differences of the residual, and the full Hessian (so a missing pair fails too)
// against central differences of the gradient, all at local inputs `in`.
inline void CheckDerivatives(const Program& p, const std::vector<double>& in,
                             const std::string& what) {
  const int n = p.num_inputs();
  std::vector<double> work(p.work_size()), grad(n), hess(p.hess_pairs().size());
  DomainErrors errs;
  const double r = p.Hessian(in.data(), work.data(), grad.data(), hess.data(), &errs);
  EXPECT_EQ(errs.Total(), 0) << what;
  EXPECT_DOUBLE_EQ(r, Eval(p, in)) << what;
  EXPECT_EQ(grad, EvalGradient(p, in)) << what;
  std::vector<double> dense(n * n, 0.0);
  for (size_t q = 0; q < hess.size(); ++q) {
    const HessPair pr = p.hess_pairs()[q];
    ASSERT_GE(pr.i, pr.j) << what;
    dense[pr.i * n + pr.j] = dense[pr.j * n + pr.i] = hess[q];
  }
  for (int k = 0; k < n; ++k) {
    std::vector<double> hi = in, lo = in;
    const double h = 1e-5 * std::max(1.0, std::fabs(in[k]));
    hi[k] += h;
    lo[k] -= h;
    const double fd = (Eval(p, hi) - Eval(p, lo)) / (2 * h);
    EXPECT_NEAR(grad[k], fd, 1e-6 * std::max(1.0, std::fabs(fd))) << what << " d/d in" << k;
    const std::vector<double> ghi = EvalGradient(p, hi), glo = EvalGradient(p, lo);
    for (int j = 0; j < n; ++j) {
      const double fd2 = (ghi[j] - glo[j]) / (2 * h);
      EXPECT_NEAR(dense[k * n + j], fd2, 1e-5 * std::max(1.0, std::fabs(fd2)))
          << what << " d2/d in" << k << " d in" << j;
    }
  }
}

inline Compiled Compile(Compiler* c, Symbols* s, const std::string& text, int eqn = 1) {
  Compiled out;
  out.program = c->CompileEquation(eqn, text, s->resolver(), &out.columns);
  return out;
}

using kx::testing::StopLines;

}  // namespace kx::lang::testing
