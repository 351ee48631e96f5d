// The compile cache across cycles, seen as an outer program sees it: a second cycle on the
// same model loads APP.zpc instead of building and gives the same files and lines as a build;
// any damage to the cache or change to what the model was built from is noticed, and the
// cycle builds afresh, answers as a fresh build does and writes a good cache again.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

using kx::testing::ScratchDir;

// Two states, one of them through an object that reads a data file, over 10 steps.
constexpr const char* kModel = R"(Model two
  Objects
    f = pwl(data=curve.csv)
  End Objects
  Parameters
    u = 1
  End Parameters
  Variables
    x1 = 1
    x2 = 0
  End Variables
  Connections
    f.x = x1
  End Connections
  Equations
    $x1 = -0.5*x1 + u
    $x2 = f.y - x2
  End Equations
End Model
)";
constexpr const char* kCurve = "x,y\n0,0\n1,2\n3,3\n";
constexpr const char* kData = "time\n0\n1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n";
constexpr const char* kDbs = "ZPM.IMODE = 4\nZPM.NODES = 3\n";

// `text` without its lines that hold one of `markers` (the times, which differ from run to run).
std::string WithoutLines(const std::string& text, std::initializer_list<std::string_view> markers) {
  std::string kept;
  std::stringstream in(text);
  for (std::string line; std::getline(in, line);) {
    bool marked = false;
    for (std::string_view m : markers) marked = marked || line.find(m) != std::string::npos;
    if (!marked) kept += line + "\n";
  }
  return kept;
}

// A file's inode: a cache that was written again (renamed into place) has a new one.
ino_t Inode(const ScratchDir& dir, const std::string& name) {
  struct stat st {};
  return ::stat(dir.File(name).c_str(), &st) == 0 ? st.st_ino : 0;
}

void WriteInputs(const ScratchDir& dir) {
  dir.Write("two.zpm", kModel);
  dir.Write("curve.csv", kCurve);
  dir.Write("two.csv", kData);
  dir.Write("two.dbs", kDbs);
}

// Copies every file of `from` but the cache, so `to` continues the same history.
void CopyHistory(const ScratchDir& from, const ScratchDir& to) {
  for (const auto& entry : std::filesystem::directory_iterator(from.path())) {
    if (entry.path().extension() == ".zpc") continue;
    std::filesystem::copy_file(entry.path(), to.path() / entry.path().filename(),
                               std::filesystem::copy_options::overwrite_existing);
  }
}

void Replace(const ScratchDir& dir, const std::string& name, const std::string& from,
             const std::string& to) {
  std::string text = dir.Read(name);
  const size_t at = text.find(from);
  ASSERT_NE(at, std::string::npos) << from;
  dir.Write(name, text.replace(at, from.size(), to));
}

// Changes byte `at` (from the end when negative) of the cache file.
void ChangeCacheByte(const ScratchDir& dir, long at, char delta) {
  std::string bytes = dir.Read("two.zpc");
  ASSERT_FALSE(bytes.empty());
  const size_t i = at < 0 ? bytes.size() + at : static_cast<size_t>(at);
  bytes[i] = static_cast<char>(bytes[i] + delta);
  dir.Write("two.zpc", bytes);
}

void ExpectSameCycle(const RunResult& a, const RunResult& b, const ScratchDir& da,
                     const ScratchDir& db) {
  EXPECT_EQ(a.status, 1) << a.out;
  EXPECT_EQ(b.status, 1) << b.out;
  EXPECT_EQ(WithoutLines(a.out, {"Solution time", "(sec):"}),
            WithoutLines(b.out, {"Solution time", "(sec):"}));
  for (const char* f : {"results.csv", "results.json", "sim.t0"})
    EXPECT_EQ(da.Read(f), db.Read(f)) << f;
  EXPECT_EQ(WithoutLines(da.Read("two.dbs"), {"SOLVETIME"}),
            WithoutLines(db.Read("two.dbs"), {"SOLVETIME"}));
}

struct Damage {
  const char* name;
  std::function<void(const ScratchDir&)> to_cache;   // the cached directory only
  std::function<void(const ScratchDir&)> to_inputs;  // both directories
};

TEST(CompileCache, DamageOrChangeIsNoticedAndRebuilt) {
  const std::function<void(const ScratchDir&)> nothing = [](const ScratchDir&) {};
  const Damage cases[] = {
      // Byte-level damage of every kind is a unit case (model/compile_cache_test); one here
      // shows the cycle notices it.
      {"payload byte flipped", [](const ScratchDir& d) { ChangeCacheByte(d, -9, 1); }, nothing},
      {"model text", nothing,
       [](const ScratchDir& d) { Replace(d, "two.zpm", "-0.5*x1", "-0.6*x1"); }},
      {"object data file", nothing,
       [](const ScratchDir& d) { Replace(d, "curve.csv", "1,2\n", "1,2.5\n"); }},
      {"build option", nothing,
       [](const ScratchDir& d) { d.Write("two.dbs", std::string(kDbs) + "ZPM.MAX_MEMORY = 5\n"); }},
  };
  for (const Damage& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchDir cached("kx_cache"), fresh("kx_cache");
    WriteInputs(cached);
    ASSERT_EQ(RunIn(cached, "two").status, 1);
    CopyHistory(cached, fresh);
    c.to_cache(cached);
    c.to_inputs(cached);
    c.to_inputs(fresh);
    const ino_t damaged = Inode(cached, "two.zpc");
    const RunResult a = RunIn(cached, "two");
    const RunResult b = RunIn(fresh, "two");
    const ino_t rewritten = Inode(cached, "two.zpc");
    EXPECT_NE(rewritten, damaged) << "the cache was used, not rebuilt";
    ExpectSameCycle(a, b, cached, fresh);
    // The rewritten cache is whole: the next cycle loads it and answers as a build does.
    std::filesystem::remove(fresh.File("two.zpc"));
    const RunResult loaded = RunIn(cached, "two");
    ExpectSameCycle(loaded, RunIn(fresh, "two"), cached, fresh);
    EXPECT_EQ(Inode(cached, "two.zpc"), rewritten) << "the cache was not loaded";
  }
}

// A loaded model writes again what its build wrote: `File` blocks and the connections listing.
TEST(CompileCache, FilesTheBuildWroteAreWrittenAgain) {
  ScratchDir dir("kx_cache");
  WriteInputs(dir);
  dir.Write("two.zpm", "File notes.txt\nkept verbatim, 1 2 3\nEnd File\n" + std::string(kModel));
  ASSERT_EQ(RunIn(dir, "two").status, 1);
  const std::string notes = dir.Read("notes.txt");
  const std::string connections = dir.Read("model_connections.txt");
  ASSERT_EQ(notes, "kept verbatim, 1 2 3\n");
  ASSERT_NE(connections.find("A: f.x"), std::string::npos) << connections;
  const ino_t written = Inode(dir, "two.zpc");
  std::filesystem::remove(dir.File("notes.txt"));
  dir.Write("model_connections.txt", "changed by hand\n");
  EXPECT_EQ(RunIn(dir, "two").status, 1);
  EXPECT_EQ(Inode(dir, "two.zpc"), written) << "the cache was not loaded";
  EXPECT_EQ(dir.Read("notes.txt"), notes);
  EXPECT_EQ(dir.Read("model_connections.txt"), connections);
}

}  // namespace
}  // namespace kx::driver
