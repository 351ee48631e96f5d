// Helpers of the object tests: a model run by the kestrix program in a scratch directory, its
// results.csv read by column, and an object's generated expression evaluated at a point.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "base/text.h"
#include "driver/cycle_fixture.h"
#include "lang/compiler.h"
#include "lang/model_file.h"
#include "objects/expander.h"
#include "testing/scratch_dir.h"

namespace kx::objects::testing {

struct Run {
  int status = -1;
  std::string out;
  std::map<std::string, std::vector<double>> results;  // results.csv by column
  bool Has(const std::string& s) const { return out.find(s) != std::string::npos; }
  double At(const std::string& column, size_t row = 0) const {
    auto it = results.find(column);
    if (it == results.end() || row >= it->second.size()) {
      ADD_FAILURE() << "no value of " << column << " in row " << row << "\n" << out;
      return 0;
    }
    return it->second[row];
  }
};

inline std::map<std::string, std::vector<double>> ReadResults(const std::string& csv) {
  std::map<std::string, std::vector<double>> out;
  std::istringstream in(csv);
  std::string line;
  std::vector<std::string> names;
  if (!std::getline(in, line)) return out;
  for (const std::string& n : Split(line, ',')) names.emplace_back(Trim(n));
  while (std::getline(in, line)) {
    std::vector<std::string> cells = Split(line, ',');
    for (size_t k = 0; k < cells.size() && k < names.size(); ++k)
      out[names[k]].push_back(ParseNumber(cells[k]).value_or(0));
  }
  return out;
}

// Writes the files (name -> text) into a fresh directory and runs `kestrix app` there.
inline Run RunModel(const std::map<std::string, std::string>& files, const std::string& app = "m") {
  kx::testing::ScratchDir dir("kx_objects");
  for (const auto& [name, text] : files) dir.Write(name, text);
  const driver::RunResult r = driver::RunIn(dir, app);
  return {r.status, r.out, ReadResults(dir.Read("results.csv"))};
}

// Prepares one object of `type_text` ("cspline(k.csv)") named `s`, reading files from `dir`.
inline ObjectInstance Prepare(const std::string& type_text, const std::string& dir) {
  lang::ObjectDeclText decl = lang::ParseObjectStatement({1, "s = " + type_text});
  const ObjectType* type = FindObjectType(decl.type);
  EXPECT_NE(type, nullptr);
  auto evaluate = [&](std::string_view t) { return *ParseNumber(t); };
  return MakeInstance(decl, *type, {}, evaluate, dir);
}

// Value of an instantiated text at s.x = x (a function of the member x only).
inline double EvalAt(const std::string& text, double x) {
  lang::Compiler compiler;
  lang::Resolver resolve = [&](std::string_view name, bool) {
    lang::Symbol s;
    EXPECT_EQ(name, "s.x");
    s.kind = lang::Symbol::Kind::kConstant;
    s.value = x;
    return s;
  };
  return compiler.EvalOnce(text, resolve);
}

}  // namespace kx::objects::testing
