// Every message the model builder can give for a model file, with the exact lines printed
// (message lines, then the stop line with its own spelling), grouped by what is checked.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "builder_testing.h"
#include "model/connections.h"

namespace kx::model {
namespace {

using Lines = std::vector<std::string>;
using testing::Build;
using testing::BuildResult;
using testing::ScratchDir;

std::string Model(const std::string& variables, const std::string& equations,
                  const std::string& more = "") {
  return "Variables\n" + variables + "\nEnd Variables\n" + more + "Equations\n" + equations +
         "\nEnd Equations\n";
}

// The lines of a stop: everything printed from `first` on.
Lines From(const Lines& lines, const std::string& first) {
  for (size_t k = 0; k < lines.size(); ++k) {
    if (lines[k] == first) return Lines(lines.begin() + k, lines.end());
  }
  return lines;
}

TEST(BuilderMessages, PhasesAndSizeReportLayout) {
  ScratchDir dir;
  BuildOptions o;
  o.work_dir = dir.str();
  OutputCapture out;
  BuildModelFromText("Constants\nk = 2\nEnd Constants\n" +
                         Model("x[1:3] = 1", "x[1:2] = k*x[2:3]\nminimize x[1]",
                               "Intermediates\nm = x[1]\nEnd Intermediates\n"
                               "Connections\nx[3] = fixed\nEnd Connections\n"),
                     o);
  const Lines lines = out.lines();
  ASSERT_EQ(lines.size(), 20u) << out.text();
  const char* phases[] = {"Read model file (sec):",       "Initialize constants (sec):",
                          "Determine model size (sec):",  "Allocate memory (sec):",
                          "Parse and store model (sec):", "Error checking (sec):",
                          "Compile equations (sec):",
                          "Check for uninitialized intermediates (sec):"};
  for (size_t k = 0; k < 8; ++k) {
    // Label padded to 46 characters, then the seconds 12 wide with 6 decimals.
    EXPECT_EQ(lines[k].substr(0, 46), fmt::format("{:<46}", phases[k]));
    EXPECT_EQ(lines[k].size(), 58u);
    EXPECT_EQ(lines[k][lines[k].size() - 7], '.') << lines[k];
  }
  EXPECT_EQ(lines[8], std::string(54, '-'));
  EXPECT_EQ(lines[9].substr(0, 46), fmt::format("{:<46}", "Total Parse Time (sec):"));
  EXPECT_EQ(Lines(lines.begin() + 10, lines.end()),
            (Lines{"--------- ZPM Model Size ------------", "Each time step contains",
                   "   Objects       :          0", "   Constants     :          1",
                   "   Variables     :          3", "   Intermediates :          1",
                   "   Connections   :          1", "   Equations     :          3",
                   "   Residuals     :          2", "-------------------------------------"}));
}

TEST(BuilderMessages, ModelChecks) {
  struct Case {
    std::string text;
    Lines expected;  // lines of the stop
  } cases[] = {
      {"Variables\nx\nEnd Variables\n",
       {"Model must contain at least 1 variable and 1 equation", "STOPPING..."}},
      {"Equations\n1 = 1\nEnd Equations\n",
       {"Model must contain at least 1 variable and 1 equation", "STOPPING..."}},
      {Model("x", "x = 1", "Objects\np1 = pid\nEnd Objects\n"),
       {"Object p1 of type pid is not available yet",
        "The object library comes in a later version; declare its equations directly",
        "STOPPING..."}},
      {Model("x\n$q = 1", "x = 1"),
       {"model error: time derivative declared for an undeclared variable: $q",
        "line number: 3", "STOPPING..."}},
      {Model("x", "x = 1\n2 = 3"),
       {"ERROR: equation 2 has no variables", "eqn 2", "2 = 3", "stopping..."}},
      {Model("x\nqx", "x = 1\nqx + 2*Q = 1"),
       {"Invalid element: q", "*** Error in syntax of function string: qx + 2*Q = 1",
        "Position: 8", "STOPPING..."}},
      {Model("x\nqx", "x = 1\nx = qx + $q"),
       {"Invalid element: $q", "*** Error in syntax of function string: x = qx + $q",
        "Position: 10", "STOPPING..."}},
  };
  for (const Case& c : cases) {
    ScratchDir dir;
    BuildResult r = Build(c.text, dir);
    EXPECT_TRUE(r.stopped) << c.text;
    EXPECT_EQ(From(r.lines, c.expected.front()), c.expected) << c.text;
  }
}

TEST(BuilderMessages, IntermediateOrderAndValues) {
  ScratchDir dir;
  const std::string late = "Intermediates\nb = a*2\na = x+1\nEnd Intermediates\n";
  BuildResult order = Build(Model("x = 1\ny", "y = x\ny = b + $x", late), dir);
  ASSERT_TRUE(order.stopped);
  EXPECT_EQ(From(order.lines, "Intermediate variable is out of order"),
            (Lines{"Intermediate variable is out of order",
                   "  causing a non-zero sparsity element to be zero.",
                   "Intermediate variables that are a function of other",
                   "  intermediate variables must be listed after their dependencies.",
                   "Equation 2", "=> y = b + $x", "Number of variable derivatives detected: 3",
                   fmt::format("  {:<40} Regular Variable", "y"),
                   fmt::format("  {:<40} Regular Variable", "$x"),
                   fmt::format("  {:<40} Intermediate Variable", "b"), "STOPPING..."}));

  BuildResult unused = Build(Model("x = 1", "x = 2", late), dir);
  ASSERT_TRUE(unused.stopped);
  EXPECT_EQ(From(unused.lines, "Line 5 value uninitialized in expression: b = a*2"),
            (Lines{"Line 5 value uninitialized in expression: b = a*2",
                   "Intermediate a is listed after b", "STOPPING..."}));

  // Not finite at the start: reported, and the build goes on.
  BuildResult bad = Build(Model("x = -1\ny", "y = r", "Intermediates\nr = log(x)\nEnd Intermediates\n"),
                    dir);
  EXPECT_FALSE(bad.stopped);
  const Lines failed = From(bad.lines, "custom: Explicit calculation failed");
  ASSERT_GE(failed.size(), 2u);
  EXPECT_EQ(Lines(failed.begin(), failed.begin() + 2),
            (Lines{"custom: Explicit calculation failed", "Intermediate: r = log(x)"}));

  // An objective row without variables is only a warning.
  BuildResult warn = Build(Model("x", "x = 1\nminimize 2*3"), dir);
  EXPECT_FALSE(warn.stopped);
  const std::string bar(48, '_');
  const Lines warning = From(warn.lines, bar);
  ASSERT_GE(warning.size(), 5u);
  EXPECT_EQ(Lines(warning.begin(), warning.begin() + 5),
            (Lines{bar, "WARNING: objective equation 2 has no variables", "eqn 2",
                   "minimize 2*3", bar}));
}

TEST(BuilderMessages, ConnectionFailureAndEchoes) {
  ScratchDir dir;
  const std::string text =
      Model("a\nb", "a = b + 1", "Connections\na = b\nb = fixed\nEnd Connections\n");
  BuildResult fail = Build(Model("a", "a = 1", "Connections\na = nowhere\nEnd Connections\n"), dir);
  ASSERT_TRUE(fail.stopped);
  EXPECT_EQ(From(fail.lines, "Warning: connection failed"),
            (Lines{"Warning: connection failed", "unable to locate variable", "connection failed",
                   "unable to locate variable",
                   "creating file connect_error.t0 to display valid variable names",
                   "Connection # 1", "A: a", "B: nowhere", "STOPPING. . ."}));
  EXPECT_EQ(dir.Read("connect_error.t0"), "a\n");

  // Connections are echoed above DIAGLEVEL 3, constants and equations from 3 on.
  const std::string echoed = "Constants\nk = 1\nEnd Constants\n" + text;
  for (int level : {2, 3, 4}) {
    BuildResult r = Build(echoed, dir, level);
    ASSERT_FALSE(r.stopped) << level;
    Lines echo;
    for (const std::string& l : r.lines) {
      if (l.rfind("Evaluate", 0) == 0 || l.rfind("Compiling", 0) == 0 ||
          l.rfind("Connection", 0) == 0 || l.rfind("A: ", 0) == 0 || l.rfind("B: ", 0) == 0) {
        echo.push_back(l);
      }
    }
    Lines expected;
    if (level >= 3) expected.push_back("Evaluate Constant: k");
    if (level >= 4) {
      expected.insert(expected.end(), {"Connection # 1", "A: a", "B: b", "Connection # 2",
                                       "A: b", "B: fixed"});
    }
    if (level >= 3) expected.push_back("Compiling Equation: 1");
    EXPECT_EQ(echo, expected) << "DIAGLEVEL " << level;
  }
}

// A chain of connections x[k+1] = x[k] forwards x[1] through every later element; at 10000
// steps the walk stops the run (chains of 9999 steps resolve: tested on the records).
TEST(BuilderMessages, ForwardingChainFromConnectionsStops) {
  ScratchDir dir;
  BuildResult r = Build(Model("x[1:10001]", "x[1] = 2",
                               "Connections\nx[2:10001] = x[1:10000]\nEnd Connections\n"),
                         dir);
  ASSERT_TRUE(r.stopped);
  EXPECT_EQ(From(r.lines, "zpm_check_forwarding: POSSIBLE INFINITE LOOP"),
            (Lines{"zpm_check_forwarding: POSSIBLE INFINITE LOOP", "variable: x[10000]",
                   "STOPPING..."}));
}

// A model file needs 100000 connections onto one variable to reach the first alias guard;
// the guard itself is checked on two records.
TEST(BuilderMessages, AliasListGuardOfTheSurvivor) {
  ModelStore s;
  s.vars.resize(2);
  s.vars[0].name = "a";
  s.vars[1].name = "b";
  s.vars[0].aliases.assign(kMaxAliasSteps + 1, "w");
  OutputCapture out;
  EXPECT_THROW(MergeVariables(&s, 0, 1), Stop);
  EXPECT_EQ(out.lines(), (Lines{"zpm_variable_connect - 1: POSSIBLE INFINITE LOOP",
                                "variable a: a", "alias_a: w", "STOPPING..."}));
}

// A sum of sin(x)*x over 40 variables needs more than 10^2 first-derivative instructions: the
// model's MAX_MEMORY reaches the compiler (every storage limit is checked on the compiler).
std::string SumModel(int n, const std::string& term) {
  std::string sum;
  for (int k = 1; k <= n; ++k) {
    std::string t = term;
    for (size_t p; (p = t.find('X')) != std::string::npos;) {
      t.replace(p, 1, "x[" + std::to_string(k) + "]");
    }
    sum += (k > 1 ? " + " : "") + t;
  }
  return Model("x[1:" + std::to_string(n) + "] = 1", sum + " = 1");
}

TEST(BuilderMessages, StorageLimitFollowsMaxMemory) {
  ScratchDir dir;
  const std::string text = SumModel(40, "sin(X)*X");
  BuildResult tight = Build(text, dir, 0, 2);
  EXPECT_TRUE(tight.stopped);
  EXPECT_EQ(From(tight.lines, "Error: Not enough memory to compile model 1st derivatives"),
            (Lines{"Error: Not enough memory to compile model 1st derivatives",
                   "Increase MAX_MEMORY 10^(2-10), Currently: 10^2", "Stopping..."}));
  EXPECT_FALSE(Build(text, dir, 0, 3).stopped);
}

}  // namespace
}  // namespace kx::model
