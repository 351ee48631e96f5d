#include "dbs/dbs_file.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "base/report.h"
#include "base/sentinels.h"
#include "base/text.h"
#include "base/file_writer.h"
#include "testing/scratch_dir.h"

namespace kx::dbs {
namespace {

// A store with every class and non-default values in globals, properties and arrays.
OptionStore BusyStore() {
  OptionStore s;
  s.AddVariable("feed", VarClass::kFV);
  s.AddVariable("valve", VarClass::kMV);
  s.AddVariable("temp", VarClass::kSV);
  s.AddVariable("tank.level", VarClass::kCV);
  s.SetHorizon(3);
  s.SetGlobal("IMODE", 6);
  s.SetGlobal("OTOL", 1.0 / 3.0);
  s.SetGlobal("OBJFCNVAL", -2.5e-17);
  s.Set("feed", "MEAS", 0.1);
  s.Set("valve", "DPRED[3]", 7.25);
  s.Set("valve", "OSTATUS[2]", 12);
  s.Set("tank.level", "SPHI", 1e300);
  s.Set("temp", "PRED[2]", -4.0);
  s.SetUnits("tank.level", "m");
  return s;
}

// Every element of every record of `a` equals that of `b`.
void ExpectSameValues(const OptionStore& a, const OptionStore& b) {
  ASSERT_EQ(a.variables().size(), b.variables().size());
  for (size_t i = 0; i < a.globals().size(); ++i)
    EXPECT_EQ(a.globals()[i].values, b.globals()[i].values) << a.globals()[i].name;
  for (size_t v = 0; v < a.variables().size(); ++v)
    for (size_t r = 0; r < a.variables()[v].records.size(); ++r)
      EXPECT_EQ(a.variables()[v].records[r].values, b.variables()[v].records[r].values)
          << a.variables()[v].name << "." << a.variables()[v].records[r].name;
}

OptionStore FreshWithSameVariables(const OptionStore& like) {
  OptionStore s;
  for (const Variable& v : like.variables()) s.AddVariable(v.name, v.cls);
  return s;
}

TEST(DbsFile, BothWriteFormsReadBackToTheSameStore) {
  OptionStore original = BusyStore();
  for (int form : {1, 2}) {
    OptionStore copy = FreshWithSameVariables(original);
    OutputCapture out;
    DbsReadResult r = ReadDbsText(FormatDbs(original, form, 1), "test.dbs", copy);
    EXPECT_EQ(r.warnings, 0) << out.text();
    ExpectSameValues(original, copy);
  }
}

TEST(DbsFile, WrittenLinesHaveTheFormAndOrderUsersRead) {
  OptionStore s = BusyStore();
  std::vector<std::string> one = Split(FormatDbs(s, 1, 1), '\n');
  std::vector<std::string> two = Split(FormatDbs(s, 2, 1), '\n');
  EXPECT_EQ(one[0], "ZPM.APPINFO 0");
  EXPECT_EQ(one[28], "ZPM.IMODE 6");
  EXPECT_EQ(one[61], "NLC.APPINFOCHG 0");
  EXPECT_EQ(one[64], "NLC.OBJFCNVAL -2.5e-17");
  EXPECT_EQ(one[67], "feed.CRITICAL 0");
  EXPECT_EQ(two[28], "ZPM.IMODE = 6, 1,");
  EXPECT_EQ(two[4], "ZPM.BAD_CYCLES = 0, 3,");
  bool saw_units = false;
  for (const std::string& l : two) saw_units |= l == "tank.level.SPHI = 1e+300, 1, m";
  EXPECT_TRUE(saw_units);
  EXPECT_EQ(one.back(), "");  // text ends with a newline
}

TEST(DbsFile, BasicLevelKeepsOutputsAndChangedInputsOnly) {
  OptionStore s = BusyStore();
  std::string basic = FormatDbs(s, 1, 0);
  for (const char* kept :
       {"ZPM.IMODE 6\n", "ZPM.OTOL 0.3333333333333333\n", "ZPM.BAD_CYCLES 0\n", "NLC.SOLVETIME 1\n",
        "feed.MEAS 0.1\n", "valve.DPRED[1] 0\n", "temp.PRED[2] -4\n", "tank.level.BIAS 0\n"})
    EXPECT_NE(basic.find(kept), std::string::npos) << kept;
  for (const char* dropped : {"ZPM.NODES", "ZPM.MAX_ITER", "feed.LOWER", "valve.COST"})
    EXPECT_EQ(basic.find(dropped), std::string::npos) << dropped;
}

TEST(DbsFile, BadLinesWarnOnceEachAndGoodLinesAreKept) {
  OptionStore s;
  s.AddVariable("x", VarClass::kCV);
  const char* text =
      "! comment\n"
      "# another comment\n"
      "\n"
      "ZPM.IMODE = 4, 1, \n"
      "this is garbage\n"
      "zpm.max_iter 250\n"
      "ZPM.NO_SUCH_KEY = 3\n"
      "x.meas = 2.5d1\n"
      "ZPM.OTOL = abc\n"
      "nlc.solvestatus=0\n"
      "x.PRED[3] = 9\n"
      "justoneword\n";
  OutputCapture out;
  DbsReadResult r = ReadDbsText(text, "my.dbs", s);
  EXPECT_EQ(r.warnings, 4);
  EXPECT_EQ(r.applied, 5);
  std::vector<std::string> lines = out.lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0].rfind("Warning: my.dbs line 5:", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1].rfind("Warning: my.dbs line 7:", 0), 0u) << lines[1];
  EXPECT_NE(lines[1].find("ZPM.NO_SUCH_KEY"), std::string::npos);
  EXPECT_EQ(lines[2].rfind("Warning: my.dbs line 9:", 0), 0u) << lines[2];
  EXPECT_EQ(lines[3].rfind("Warning: my.dbs line 12:", 0), 0u) << lines[3];
  EXPECT_EQ(s.Int("IMODE"), 4);
  EXPECT_EQ(s.Int("MAX_ITER"), 250);
  EXPECT_EQ(s.GetReal("x", "MEAS"), 25.0);
  EXPECT_EQ(s.Int("SOLVESTATUS"), 0);
  EXPECT_EQ(s.Real("OTOL"), 1.0e-6);
  EXPECT_EQ(s.GetReal("x", "PRED[3]"), 9.0);
}

TEST(DbsFile, MissingFileIsNotAnErrorAndLaterFilesOverride) {
  kx::testing::ScratchDir dir("kx_dbs_file_test");
  OptionStore s;
  OutputCapture out;
  EXPECT_FALSE(ReadDbsFile(dir.File("missing.dbs"), s).found);
  ASSERT_TRUE(WriteFileAtomically(dir.File("a.dbs"), "ZPM.NODES = 3\nZPM.IMODE 2\n"));
  ASSERT_TRUE(WriteFileAtomically(dir.File("b.dbs"), "ZPM.NODES 5\n"));
  EXPECT_TRUE(ReadDbsFile(dir.File("a.dbs"), s).found);
  ReadDbsFile(dir.File("b.dbs"), s);
  EXPECT_EQ(s.Int("NODES"), 5);
  EXPECT_EQ(s.Int("IMODE"), 2);
  EXPECT_TRUE(out.text().empty());
}

TEST(AtomicFile, AFailedWriteLeavesTheOldFileAndNoTemporary) {
  kx::testing::ScratchDir dir("kx_atomic_test");
  std::string path = dir.File("app.dbs");
  ASSERT_TRUE(WriteFileAtomically(path, "old\n"));
  ASSERT_TRUE(WriteFileAtomically(path, "new\n"));
  std::string text;
  ASSERT_TRUE(ReadWholeFile(path, &text));
  EXPECT_EQ(text, "new\n");
  OutputCapture out;
  EXPECT_FALSE(WriteFileAtomically(dir.File("no_such_dir/x.dbs"), "x"));
  EXPECT_TRUE(out.Contains("Warning: unable to write file"));
  int files = 0;
  for (auto& e : std::filesystem::directory_iterator(dir.path())) files += e.is_regular_file();
  EXPECT_EQ(files, 1);
}

}  // namespace
}  // namespace kx::dbs
