#include "solvers/asopt_options.h"

#include <gtest/gtest.h>

#include <string>

#include "base/base.h"
#include "testing/scratch_dir.h"

namespace kx::solvers {
namespace {

struct ReadOutcome {
  AsoptOptions options;
  std::vector<std::string> lines;
};

ReadOutcome ReadText(const std::string& text) {
  testing::ScratchDir dir("asopt_opt");
  dir.Write("asopt.opt", text);
  ReadOutcome out;
  OutputCapture capture;
  out.options.Read(dir.File("asopt.opt"));
  out.lines = capture.lines();
  return out;
}

TEST(AsoptOptionsTest, DefaultsFollowMachinePrecision) {
  const AsoptOptions o;
  const double eps = ComputeMachinePrecision();
  EXPECT_NEAR(eps, 2.220446049250313e-16, 1e-30);
  const double s = std::sqrt(10 * std::pow(eps, 2.0 / 3.0));
  EXPECT_DOUBLE_EQ(o[kObjectiveConvergenceTolerance], 5 * s);
  EXPECT_DOUBLE_EQ(o[kQpTolerance], std::pow(eps, 2.0 / 3.0));
  EXPECT_EQ(o.Int(kBacktrackFrequency), 2);
  EXPECT_EQ(o.Int(kMoveSuppressionLevel), 10);
  EXPECT_EQ(o.Int(kNlpMaximumIterations), 50);
  EXPECT_EQ(o[kInfiniteBound], 1e30);
  const AsoptParameters p = MapParameters(o);
  EXPECT_EQ(RealParameterLabel(5), "INITIAL MU VALUE.");
  EXPECT_DOUBLE_EQ(p.reals[0], s);
  EXPECT_EQ(IntegerParameterLabel(27), "LINE SEARCH START MODE");
  EXPECT_EQ(p.integers[7], 5);  // "NOVMAXF", a label without an option
}

TEST(AsoptOptionsTest, ReadsLinesAndReportsBadOnes) {
  struct Case {
    const char* name;
    std::string text;
    AsoptOption option;
    double value;                     // expected value of `option` afterwards
    std::vector<std::string> output;  // expected printed lines
  };
  const AsoptOptions defaults;
  const Case cases[] = {
      {"capital name", "MINLP_GAP_TOL 0.5\n", kMinlpGapTol, 0.5, {}},
      {"tabs and trailing comment", "\tqp_print_level\t3 ! three\n", kQpPrintLevel, 3, {}},
      {"d exponent", "maximum_delta_x 1d3\n", kMaximumDeltaX, 1000, {}},
      {"comment lines", "# nlp_print_level 5\n% nlp_print_level 6\n! x\n\n", kNlpPrintLevel,
       defaults[kNlpPrintLevel], {}},
      {"bad value leaves the option",
       "backtrack_frequency 4\nbacktrack_frequency four\n",
       kBacktrackFrequency,
       4,
       {"Invalid syntax in options file (asopt.opt) at line 2",
        "Line  : backtrack_frequency four", "Option: backtrack_frequency", "Value : four"}},
      {"unknown name and reading goes on", "no_such_option 1\ndamped_iterations 7\n",
       kDampedIterations, 7, {"Unknown option: no_such_option"}},
      {"missing value", "infinity\n", kInfiniteBound, 1e30,
       {"Invalid syntax in options file (asopt.opt) at line 1", "Line  : infinity",
        "Option: infinity", "Value : "}},
  };
  for (const Case& c : cases) {
    const ReadOutcome r = ReadText(c.text);
    EXPECT_EQ(r.options[c.option], c.value) << c.name;
    EXPECT_EQ(r.lines, c.output) << c.name;
  }
}

TEST(AsoptOptionsTest, WrittenFileReadsBackInItsOwnOrder) {
  testing::ScratchDir dir("asopt_opt");
  AsoptOptions o;
  o.Set(kMinlpGapTol, 0.25);
  o.Set(kInitialMuValue, 3e-7);
  ASSERT_TRUE(o.Write(dir.File("asopt_current_options.opt")));
  const std::vector<std::string> lines = Split(dir.Read("asopt_current_options.opt"), '\n');
  ASSERT_GE(lines.size(), 46u);
  EXPECT_EQ(lines[0], " !   Current options for solver ASOPT");
  EXPECT_EQ(lines[1], " !   Save file as asopt.opt and modify options");
  const char* expected_order[] = {"minlp_maximum_iterations", "minlp_max_iter_with_int_sol",
                                  "minlp_as_nlp", "minlp_branch_method", "minlp_gap_tol",
                                  "minlp_integer_tol", "minlp_integer_max",
                                  "minlp_integer_leaves", "minlp_print_level",
                                  "nlp_maximum_iterations"};
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(StartsWith(lines[2 + i], expected_order[i])) << i;
  EXPECT_TRUE(StartsWith(lines[2 + 43], "maximum_delta_x"));
  EXPECT_NE(lines[2 + 23].find("! (0=unscaled I(n), 1=scaled I(n), 2+=finite diff"),
            std::string::npos);
  // Renamed to asopt.opt, the file gives back every value.
  AsoptOptions back;
  {
    OutputCapture capture;
    back.Read(dir.File("asopt_current_options.opt"));
    EXPECT_TRUE(capture.lines().empty());
  }
  for (int i = 0; i < kNumAsoptOptions; ++i) {
    const auto option = static_cast<AsoptOption>(i);
    EXPECT_EQ(back[option], o[option]) << AsoptOptionName(option);
  }
}

}  // namespace
}  // namespace kx::solvers
