// Helpers shared by the lang tests: a small symbol table, a compiled equation with its column
// map, and finite-difference references.
#pragma once

#include <gtest/gtest.h>

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
  void AddConstant(const std::string& name, double v) { constants_[name] = v; }
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

inline Compiled Compile(Compiler* c, Symbols* s, const std::string& text, int eqn = 1) {
  Compiled out;
  out.program = c->CompileEquation(eqn, text, s->resolver(), &out.columns);
  return out;
}

using kx::testing::StopLines;

}  // namespace kx::lang::testing
