// Embedded File blocks write plain files of the working directory only: never through a
// symbolic link, never into another directory, and a failed write stops with its reason.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "base/report.h"
#include "lang/compiler.h"
#include "lang/model_file.h"
#include "testing/scratch_dir.h"

namespace kx::lang {
namespace {

using kx::testing::ScratchDir;

std::string FileBlock(const std::string& name, const std::string& body = "1, 2\n") {
  return "File " + name + "\n" + body + "End File\n";
}

// The lines printed by a read that stops; empty when it does not.
std::vector<std::string> StopLines(const std::string& text, const ScratchDir& dir) {
  Compiler compiler;
  ReaderOptions o;
  o.output_dir = dir.str();
  OutputCapture out;
  try {
    ReadModelText(text, &compiler, o);
  } catch (const Stop& stop) {
    return stop.lines();
  }
  return {};
}

TEST(FileBlock, SymbolicLinkIsRefusedNotFollowed) {
  ScratchDir dir("kx_file_block");
  ScratchDir outside("kx_file_block_outside");
  outside.Write("victim.csv", "precious\n");
  std::filesystem::create_symlink(outside.File("victim.csv"), dir.File("data.csv"));
  std::vector<std::string> lines = StopLines(FileBlock("data.csv"), dir);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "Error: unable to write file data.csv: it is a symbolic link");
  EXPECT_EQ(outside.Read("victim.csv"), "precious\n");
  EXPECT_TRUE(std::filesystem::is_symlink(dir.File("data.csv")));
}

TEST(FileBlock, NamesWithDirectoryPartsStop) {
  ScratchDir dir("kx_file_block");
  for (const char* name : {"../up.csv", "sub/x.csv", "/tmp/abs.csv", "a\\b.csv"}) {
    std::vector<std::string> lines = StopLines(FileBlock(name), dir);
    ASSERT_FALSE(lines.empty()) << name;
    EXPECT_EQ(lines[0].rfind("Invalid file name", 0), 0u) << lines[0];
  }
}

// A full disk: the block stops with the reason, and the file written by an earlier run
// stays whole (no 0-byte file).
TEST(FileBlock, FailedWriteStopsAndKeepsThePreviousFile) {
  ScratchDir dir("kx_file_block");
  dir.Write("data.csv", "old, file\n");
  rlimit saved;
  getrlimit(RLIMIT_FSIZE, &saved);
  auto handler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit tight = saved;
  tight.rlim_cur = 8;
  setrlimit(RLIMIT_FSIZE, &tight);
  std::vector<std::string> lines =
      StopLines(FileBlock("data.csv", std::string(100, '7') + "\n"), dir);
  setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, handler);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "Error: unable to write file data.csv: File too large");
  EXPECT_EQ(dir.Read("data.csv"), "old, file\n");
}

}  // namespace
}  // namespace kx::lang
