#include "solvers/asopt_options.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "base/base.h"
#include "testing/scratch_dir.h"

namespace kx::solvers {
namespace {

constexpr const char* kPage = KX_SOURCE_DIR "/docs/asopt_options.md";

// Every row names a distinct option the reader finds, with its default inside its range;
// the defaults that follow the machine precision and the run's settings take them.
TEST(AsoptOptionsTest, TableRowsAreConsistentAndDriveTheDefaults) {
  const double eps = ComputeMachinePrecision();
  EXPECT_NEAR(eps, 2.220446049250313e-16, 1e-30);
  const AsoptOptions plain;
  const AsoptOptions run(1e-7, 2e-7, 123);
  std::set<std::string_view> names;
  for (int i = 0; i < kNumAsoptOptions; ++i) {
    const auto option = static_cast<AsoptOption>(i);
    const AsoptOptionRecord& r = AsoptOptionTable()[i];
    SCOPED_TRACE(std::string(r.name));
    EXPECT_TRUE(names.insert(r.name).second);
    EXPECT_EQ(FindAsoptOption(r.name), option);
    EXPECT_GE(plain[option], r.lower);
    EXPECT_LE(plain[option], r.upper);
    if (r.type == 'I') {
      EXPECT_EQ(plain[option], std::round(plain[option]));
    }
  }
  EXPECT_EQ(FindAsoptOption("no_such_option"), kNumAsoptOptions);
  EXPECT_EQ(plain[kMachinePrecision], eps);
  EXPECT_DOUBLE_EQ(plain[kQpTolerance], std::pow(eps, 2.0 / 3.0));
  EXPECT_EQ(plain.Int(kNlpMaximumIterations), 50);
  EXPECT_EQ(run[kObjectiveConvergenceTolerance], 1e-7);
  EXPECT_EQ(run[kConstraintConvergenceTolerance], 2e-7);
  EXPECT_EQ(run.Int(kNlpMaximumIterations), 123);
  // The parameter table takes the options' values, and its own built-in value for a label
  // without an option.
  const AsoptParameters p = MapParameters(run);
  EXPECT_EQ(RealParameterLabel(3), "CONSTRAINT CONVERGENCE TOLERANCE");
  EXPECT_EQ(p.reals[3], 2e-7);
  EXPECT_DOUBLE_EQ(p.reals[0], std::sqrt(10 * std::pow(eps, 2.0 / 3.0)));
  EXPECT_EQ(IntegerParameterLabel(10), "MAXIMUM ITERATIONS");
  EXPECT_EQ(p.integers[10], 123);
  EXPECT_EQ(p.integers[7], 5);  // "NOVMAXF", a label without an option
}

TEST(AsoptOptionsTest, WrittenFileReadsBackInTableOrder) {
  testing::ScratchDir dir("asopt_opt");
  AsoptOptions o;
  o.Set(kMinlpGapTol, 0.25);
  o.Set(kInitialMuValue, 3e-7);
  ASSERT_TRUE(o.Write(dir.File("asopt_current_options.opt")));
  const std::vector<std::string> lines = Split(dir.Read("asopt_current_options.opt"), '\n');
  ASSERT_GE(lines.size(), 2u + kNumAsoptOptions);
  EXPECT_EQ(lines[0], " !   Current options for solver ASOPT");
  EXPECT_EQ(lines[1], " !   Save file as asopt.opt and modify options");
  for (int i = 0; i < kNumAsoptOptions; ++i) {
    const AsoptOptionRecord& r = AsoptOptionTable()[i];
    EXPECT_TRUE(StartsWith(lines[2 + i], std::string(r.name) + " ")) << lines[2 + i];
    EXPECT_EQ(lines[2 + i].find(" ! ") != std::string::npos, !r.file_note.empty()) << r.name;
  }
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

// The committed page must be exactly what the table generates. To regenerate after a table
// change, run this test with KX_UPDATE_DOCS=1.
TEST(AsoptOptionsTest, CommittedPageMatchesTheTable) {
  const std::string generated = RenderAsoptOptionsMarkdown();
  if (std::getenv("KX_UPDATE_DOCS") != nullptr) std::ofstream(kPage) << generated;
  EXPECT_EQ(testing::ReadFile(kPage), generated)
      << "docs/asopt_options.md drifted from src/solvers/asopt_options.cc; rerun with "
         "KX_UPDATE_DOCS=1";
}

}  // namespace
}  // namespace kx::solvers
