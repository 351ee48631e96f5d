#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/file_writer.h"
#include "base/report.h"
#include "testing/scratch_dir.h"

namespace kx {
namespace {

using kx::testing::ScratchDir;

// Files written inside a batch, nested or not, are under their names at once and whole (a
// later read in the same cycle sees them), with no temporary left beside them, and the writes
// after the batches close still work.
TEST(SyncBatch, WritesAreVisibleAtOnceWholeAndWithoutTemporaries) {
  ScratchDir dir("kx_batch");
  std::filesystem::create_directories(dir.File("sub"));
  {
    SyncBatch outer;
    ASSERT_TRUE(WriteFileAtomically(dir.File("a.t0"), "old, longer than the new\n"));
    ASSERT_TRUE(WriteFileAtomically(dir.File("a.t0"), "a\n"));
    EXPECT_EQ(dir.Read("a.t0"), "a\n");
    {
      SyncBatch inner;
      ASSERT_TRUE(WriteFileAtomically(dir.File("sub/b.t0"), "b\n"));
      EXPECT_EQ(dir.Read("sub/b.t0"), "b\n");
    }
    ASSERT_TRUE(WriteFileAtomically(dir.File("c.t0"), "c\n"));
    outer.Flush();
    ASSERT_TRUE(WriteFileAtomically(dir.File("d.t0"), "d\n"));
  }
  ASSERT_TRUE(WriteFileAtomically(dir.File("e.t0"), "e\n"));
  size_t count = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.File(""))) {
    if (entry.is_regular_file()) ++count;
    EXPECT_EQ(entry.path().filename().string().find(".tmp"), std::string::npos) << entry.path();
  }
  EXPECT_EQ(count, 5u);
}

// A failed write inside a batch keeps the previous version, and a directory that vanished
// before the batch closed is passed over quietly: nothing written is lost by the late sync.
TEST(SyncBatch, FailuresAndVanishedDirectoriesLoseNothing) {
  ScratchDir dir("kx_batch");
  std::filesystem::create_directories(dir.File("gone"));
  OutputCapture out;
  {
    SyncBatch batch;
    ASSERT_TRUE(WriteFileAtomically(dir.File("keep.csv"), "time,x\n"));
    ASSERT_TRUE(WriteFileAtomically(dir.File("gone/x.t0"), "x\n"));
    std::filesystem::remove_all(dir.File("gone"));
    EXPECT_FALSE(WriteFileAtomically(dir.File("gone/y.t0"), "y\n"));
  }
  EXPECT_EQ(dir.Read("keep.csv"), "time,x\n");
  ASSERT_EQ(out.lines().size(), 1u) << out.text();
  EXPECT_TRUE(out.Contains("gone/y.t0: No such file or directory")) << out.text();
}

// Files held to the close: the old versions stay under the names (a crash before the close
// keeps them whole), a second write to a name replaces the first, user-named files go at once,
// and a flush or the close puts the newest versions in place with no temporary left.
TEST(SyncBatch, HeldFilesReplaceTheOldOnlyAtTheClose) {
  ScratchDir dir("kx_batch");
  ASSERT_TRUE(WriteFileAtomically(dir.File("app.dbs"), "old dbs\n"));
  ASSERT_TRUE(WriteFileAtomically(dir.File("results.csv"), "old results\n"));
  OutputCapture out;
  {
    SyncBatch batch(SyncBatch::Renames::kAtClose);
    ASSERT_TRUE(WriteFileAtomically(dir.File("app.dbs"), "first\n"));
    ASSERT_TRUE(WriteFileAtomically(dir.File("app.dbs"), "second, the newest\n"));
    ASSERT_TRUE(WriteFileAtomically(dir.File("user.txt"), "user\n", WriteMode::kPlainFileName));
    EXPECT_EQ(dir.Read("app.dbs"), "old dbs\n");
    EXPECT_EQ(dir.Read("user.txt"), "user\n");
    EXPECT_TRUE(batch.Flush());
    EXPECT_EQ(dir.Read("app.dbs"), "second, the newest\n");
    ASSERT_TRUE(WriteFileAtomically(dir.File("results.csv"), "new results\n"));
    ASSERT_TRUE(WriteFileAtomically(dir.File("new.json"), "{}\n"));
    EXPECT_EQ(dir.Read("results.csv"), "old results\n");
    EXPECT_FALSE(std::filesystem::exists(dir.File("new.json")));
    {
      SyncBatch inner;  // at once inside the held batch
      ASSERT_TRUE(WriteFileAtomically(dir.File("lam.t0"), "lam\n"));
      EXPECT_EQ(dir.Read("lam.t0"), "lam\n");
    }
  }
  EXPECT_EQ(dir.Read("app.dbs"), "second, the newest\n");
  EXPECT_EQ(dir.Read("results.csv"), "new results\n");
  EXPECT_EQ(dir.Read("new.json"), "{}\n");
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir.File(""))) {
    ++count;
    EXPECT_EQ(entry.path().filename().string().find(".tmp"), std::string::npos) << entry.path();
  }
  EXPECT_EQ(count, 5u);
  EXPECT_TRUE(out.lines().empty()) << out.text();
}

// A held file whose directory vanished before the close is reported by the usual warning when
// the close finds it, and the other held files still go in place.
TEST(SyncBatch, HeldFileThatCannotBePlacedIsReportedAtTheClose) {
  ScratchDir dir("kx_batch");
  std::filesystem::create_directories(dir.File("gone"));
  OutputCapture out;
  {
    SyncBatch batch(SyncBatch::Renames::kAtClose);
    ASSERT_TRUE(WriteFileAtomically(dir.File("gone/x.t0"), "x\n"));
    ASSERT_TRUE(WriteFileAtomically(dir.File("kept.t0"), "kept\n"));
    std::filesystem::remove_all(dir.File("gone"));
    EXPECT_TRUE(out.lines().empty()) << out.text();
  }
  EXPECT_EQ(dir.Read("kept.t0"), "kept\n");
  ASSERT_EQ(out.lines().size(), 1u) << out.text();
  EXPECT_TRUE(out.Contains("Warning: unable to write file " + dir.File("gone/x.t0") + ": "))
      << out.text();
}

// Temporaries of writers that are gone are swept; those of a running process, the own
// process's, and files that only look alike stay.
TEST(SyncBatch, StaleTemporariesOfDeadWritersAreRemoved) {
  ScratchDir dir("kx_batch");
  const std::string alive = std::to_string(::getppid());
  const std::string own = std::to_string(::getpid());
  const char* dead = "999999999";  // above any process id the kernel hands out
  const std::vector<std::string> written = {".app.dbs.tmp" + std::string(dead),
                                           ".results.csv.tmp" + alive, ".sim.t0.tmp" + own,
                                           std::string("app.tmp") + dead, ".notes.tmpx1",
                                           "results.csv"};
  for (const std::string& name : written)
    dir.Write(name, "x\n");
  EXPECT_EQ(RemoveStaleTemporaries(dir.str()), 1);
  EXPECT_FALSE(dir.Exists(".app.dbs.tmp" + std::string(dead)));
  for (size_t k = 1; k < written.size(); ++k)
    EXPECT_TRUE(dir.Exists(written[k])) << written[k];
}

}  // namespace
}  // namespace kx
