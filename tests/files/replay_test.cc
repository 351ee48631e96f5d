#include "files/replay.h"

#include <gtest/gtest.h>

#include "base/report.h"
#include "testing/scratch_dir.h"

namespace kx::files {
namespace {

using kx::testing::WorkingDir;

TEST(Replay, WritesTheSelectedRowAsDbsLines) {
  WorkingDir dir("kx_replay");
  dir.Write("replay.csv", "\"tank.level.MEAS\", ZPM.FILTER ,x.MEAS\n1,0.5,7\n2.5,,nan\n3,0.25,9\n");
  OutputCapture out;
  ASSERT_TRUE(ReplayRow(2, "replay.csv", "measurements.dbs"));
  EXPECT_EQ(dir.Read("measurements.dbs"),
            "! replay of row 2 of replay.csv\ntank.level.MEAS = 2.5\n");
  ASSERT_TRUE(ReplayRow(3, "replay.csv", "measurements.dbs"));
  EXPECT_NE(dir.Read("measurements.dbs").find("ZPM.FILTER = 0.25\nx.MEAS = 9\n"),
            std::string::npos);
  dir.Write("measurements.dbs", "kept\n");
  EXPECT_FALSE(ReplayRow(4, "replay.csv", "measurements.dbs"));
  EXPECT_FALSE(ReplayRow(1, "missing.csv", "measurements.dbs"));
  EXPECT_EQ(dir.Read("measurements.dbs"), "kept\n");
  EXPECT_TRUE(out.Contains("Warning: replay.csv has no data row 4"));
  EXPECT_TRUE(out.Contains("Warning: replay file not found: missing.csv"));
}

}  // namespace
}  // namespace kx::files
