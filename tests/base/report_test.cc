#include "base/report.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cmath>
#include <csignal>
#include <filesystem>
#include <limits>
#include <unistd.h>

#include "base/file_writer.h"
#include "base/sentinels.h"
#include "base/text.h"
#include "base/timers.h"
#include "testing/scratch_dir.h"

namespace kx {
namespace {

TEST(Report, FatalPrintsMessageThenStopLineAndThrows) {
  OutputCapture out;
  try {
    Fatal({"first", "second"}, "Stopping...");
    FAIL() << "Fatal returned";
  } catch (const Stop& s) {
    EXPECT_EQ(s.stop_line(), "Stopping...");
    EXPECT_EQ(s.lines().size(), 3u);
  }
  EXPECT_EQ(out.lines(), (std::vector<std::string>{"first", "second", "Stopping..."}));
}

TEST(Timers, NestedStartsCountOnceAndTableIsBounded) {
  TimerTable t;
  int a = t.Id("a");
  t.Start(a);
  t.Start(a);
  t.Stop(a);
  t.Stop(a);
  EXPECT_EQ(t.Calls(a), 1);
  for (int i = 0; i < 100; ++i) t.Id("timer " + std::to_string(i));
  EXPECT_EQ(t.size(), TimerTable::kMaxTimers);
}

// The numeric gate: what a file may hold as a number, and what the engine writes for values
// that are not finite.
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(NumericGate, OnlyFiniteNumbersAreRead) {
  const std::pair<const char*, std::optional<double>> cases[] = {
      {"1.5", 1.5},           {" -2e3 ", -2000.0},   {"1d2", 100.0},    {".5", 0.5},
      {"2.5D-3", 2.5e-3},     {"abc", std::nullopt},
      {"1.7976931348623157e308", 1.7976931348623157e308},
      {"1e-400", 0.0},        // underflow reads as zero
      {"1e999", std::nullopt}, {"-1e999", std::nullopt}, {"2e308", std::nullopt},
      {"inf", std::nullopt},  {"-Infinity", std::nullopt}, {"nan", std::nullopt},
      {"0x10", std::nullopt}, {"", std::nullopt},          {"1.5.2", std::nullopt},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(ParseNumber(text), expected) << text;
}

// Whatever value the engine holds, the text it writes reads back through the gate.
TEST(NumericGate, WrittenValuesReadBack) {
  const std::pair<double, double> cases[] = {
      {kInf, kUnlimited}, {-kInf, -kUnlimited}, {kNaN, kNoValue},
      {1.0 / 3.0, 1.0 / 3.0}, {kUnsetUpper, kUnsetUpper}, {-0.0, -0.0},
      {1.23456789e-40, 1.23456789e-40}, {9.999999747378752e-06, 9.999999747378752e-06},
  };
  for (const auto& [held, written] : cases) {
    const double w = WritableValue(held);
    EXPECT_EQ(w, written) << held;
    EXPECT_EQ(ParseNumber(FormatReal(w)), w) << held;
  }
}

using kx::testing::ScratchDir;

// Files in `dir` other than the named ones: a failed or finished write leaves no temporary.
int OtherFiles(const ScratchDir& dir, std::initializer_list<std::string> names) {
  int n = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    const std::string name = entry.path().filename().string();
    n += std::find(names.begin(), names.end(), name) == names.end();
  }
  return n;
}

// Caps the size of any file this process writes, as a full disk would; restored on exit.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    previous_handler_ = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = saved_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    std::signal(SIGXFSZ, previous_handler_);
  }

 private:
  rlimit saved_{};
  void (*previous_handler_)(int) = nullptr;
};

TEST(FileWriter, FailedWriteKeepsThePreviousVersionAndSaysWhy) {
  ScratchDir dir("kx_writer");
  ASSERT_TRUE(WriteFileAtomically(dir.File("results.csv"), "time,x\n0,1\n"));
  OutputCapture out;
  {
    FileSizeLimit full(16);  // the disk fills after 16 bytes
    EXPECT_FALSE(WriteFileAtomically(dir.File("results.csv"), std::string(4096, 'x')));
  }
  EXPECT_EQ(dir.Read("results.csv"), "time,x\n0,1\n");
  EXPECT_EQ(OtherFiles(dir, {"results.csv"}), 0);
  ASSERT_EQ(out.lines().size(), 1u);
  EXPECT_EQ(out.lines()[0],
            "Warning: unable to write file " + dir.File("results.csv") + ": File too large");
  EXPECT_EQ(LastWriteError(), "File too large");
  EXPECT_FALSE(WriteFileAtomically(dir.File("no_such_dir/x.t0"), "x"));
  EXPECT_TRUE(out.Contains("no_such_dir/x.t0: No such file or directory")) << out.text();
}

// A killed run leaves its temporary file; a later run with the same process id (ids are
// reused) still writes, and a link planted under the temporary name is not followed.
TEST(FileWriter, LeftoverTemporaryDoesNotBlockTheNextWrite) {
  ScratchDir dir("kx_writer");
  ScratchDir outside("kx_outside");
  outside.Write("target", "outside\n");
  const std::string tmp = dir.File(".a.t0.tmp" + std::to_string(::getpid()));
  std::filesystem::create_symlink(outside.File("target"), tmp);
  ASSERT_TRUE(WriteFileAtomically(dir.File("a.t0"), "x = 1\n"));
  EXPECT_EQ(dir.Read("a.t0"), "x = 1\n");
  EXPECT_EQ(outside.Read("target"), "outside\n");
  EXPECT_EQ(OtherFiles(dir, {"a.t0"}), 0);
}

// A user-named file never writes through a symbolic link, whether the link points outside
// the directory, to a file inside it, or nowhere yet.
TEST(FileWriter, PlainFileNamesRefuseSymbolicLinks) {
  ScratchDir dir("kx_writer");
  ScratchDir outside("kx_outside");
  outside.Write("target.txt", "outside\n");
  dir.Write("inside.txt", "inside\n");
  std::filesystem::create_symlink(outside.File("target.txt"), dir.File("out.txt"));
  std::filesystem::create_symlink(dir.File("inside.txt"), dir.File("near.txt"));
  std::filesystem::create_symlink(outside.File("new.txt"), dir.File("dangling.txt"));
  for (const char* name : {"out.txt", "near.txt", "dangling.txt"}) {
    OutputCapture out;
    EXPECT_FALSE(WriteFileAtomically(dir.File(name), "text\n", WriteMode::kPlainFileName));
    EXPECT_TRUE(out.Contains("it is a symbolic link")) << name << ": " << out.text();
    EXPECT_TRUE(std::filesystem::is_symlink(dir.File(name))) << name;
  }
  EXPECT_EQ(outside.Read("target.txt"), "outside\n");
  EXPECT_EQ(dir.Read("inside.txt"), "inside\n");
  EXPECT_FALSE(outside.Exists("new.txt"));
}

TEST(FileWriter, PlainFileNames) {
  const std::pair<const char*, bool> cases[] = {
      {"data.csv", true}, {"a", true},       {"", false},        {".", false},
      {"..", false},      {"d/x.csv", false}, {"d\\x.csv", false}, {"/x.csv", false},
  };
  for (const auto& [name, plain] : cases) EXPECT_EQ(IsPlainFileName(name), plain) << name;
  ScratchDir dir("kx_writer");
  std::filesystem::create_directory(dir.File("sub"));
  OutputCapture out;
  EXPECT_FALSE(WriteFileAtomically(dir.File("sub"), "x", WriteMode::kPlainFileName));
  EXPECT_TRUE(out.Contains("not a regular file"));
}

}  // namespace
}  // namespace kx
