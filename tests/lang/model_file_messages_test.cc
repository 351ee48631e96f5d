// Every stop the model-file reader can give, one table per part of the file, with the exact
// lines printed: the message lines, then the stop line with its own spelling.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/report.h"
#include "lang/model_file.h"
#include "testing/scratch_dir.h"

namespace kx::lang {
namespace {

using Lines = std::vector<std::string>;

struct Case {
  std::string text;  // model text
  Lines expected;    // every printed line, the stop line last
};

// Lines printed by a reader that stops on `text`; a model that passes gives one "(passed)".
Lines Printed(const std::string& text, const ReaderOptions& options = {}) {
  OutputCapture out;
  Compiler compiler;
  try {
    ReadModelText(text, &compiler, options);
  } catch (const Stop&) {
    return out.lines();
  }
  return {"(passed)"};
}

void ExpectAll(const std::vector<Case>& cases, const ReaderOptions& options = {}) {
  for (const Case& c : cases) {
    EXPECT_EQ(Printed(c.text, options), c.expected) << "model:\n" << c.text;
  }
}

std::string In(const std::string& section, const std::string& body) {
  return section + "\n" + body + "\nEnd " + section + "\n";
}

TEST(ModelFileMessages, LinesColonsAndContinuations) {
  const std::string long_line = "x = 1" + std::string(15000 - 5 + 1, ' ');
  const std::string ten(10, ':'), eleven(11, ':');
  // "x = 1" and "+0...01" joined without the '&': 15000 characters.
  const std::string joined = "x = 1&\n+" + std::string(15000 - 7, '0') + "1";
  ExpectAll({
      {In("Variables", long_line.substr(0, 15000)), {"(passed)"}},
      {In("Variables", joined), {"(passed)"}},
      {In("Variables", long_line),
       {"Error with line number: 2", "ZPM model error: string >15000 characters",
        "Consider breaking up the line into multiple equations",
        "The may also be due to only using newline character CR",
        "  instead of CR LF (for Windows) or LF (for MacOS/Linux)",
        "To fix this problem, save ZPM file with appropriate newline characters",
        "STOPPING..."}},
      {In("Variables", "x = 1 &\n" + std::string(14995, '0')),
       {"ZPM model error: equation continuation > 15000 characters",
        "Consider breaking up the line into multiple equations", "STOPPING..."}},
      {In("Variables", ":x = 1"),
       {"model error: colon character at start of line", "line number: 2",
        "line string: :x = 1", "STOPPING..."}},
      {In("Variables", "x = 1:"),
       {"model error: colon character at end of line", "line number: 2", "line string: x = 1:",
        "STOPPING..."}},
      {In("Compounds", "a" + eleven + "b"),
       {"model error: more than 10 consecutive colon characters not supported",
        "line number: 2", "line string: a" + eleven + "b", "STOPPING..."}},
      {In("Compounds", "a" + ten + "b"), {"(passed)"}},
      {In("Variables", "w = 1 ! " + std::string(20, ':')), {"(passed)"}},
      {In("Variables", "y[1" + ten + "2] = 1"),
       {"model error: problem with vector index", "non-integer value: 1" + ten + "2",
        "line number: 2", "STOPPING..."}},
      {"Model m\n  variables\n x\n  end   variables\n  x = 1\nEnd Model\n",
       {"model error: statement outside of a section", "line number: 5", "line string: x = 1",
        "STOPPING..."}},
  });
}

TEST(ModelFileMessages, VectorIndices) {
  ExpectAll({
      {In("Variables", "x[1:2"),
       {"model error: missing vector index", "line number: 2", "line string: x[1:2",
        "STOPPING..."}},
      {In("Variables", "x[ :2]"), {"model error: missing vector index", "line number: 2",
                                   "STOPPING..."}},
      {In("Variables", "x[ ]"), {"Empty vector index at Line 2", "x[ ]", "Stopping..."}},
      {In("Variables", "x[]"), {"Empty vector index at Line 2", "x[]", "Stopping..."}},
      {In("Variables", "x[1:q]"),
       {"Error evaluating constant on Line 2", "q", "Unknown constant: q", "STOPPING..."}},
      {In("Variables", "x[1:2.5]"),
       {"ZPM model error: problem with vector index", "non-integer value: 2.5",
        "line number: 2", "STOPPING..."}},
      {In("Variables", "x[1:2:3]"),
       {"model error: problem with vector index", "non-integer value: 1:2:3", "line number: 2",
        "STOPPING..."}},
      {In("Variables", "x[1:0]"),
       {"ZPM model error: vector index range < 0", "start index: 1", "end index  : 0",
        "line number: 2", "STOPPING..."}},
      {In("Equations", "x[1:2] = y[1:3]"),
       {"ZPM model error: vector index ranges inconsistent",
        "index range for first vector: 1:2", "index range for inconsistent vector 1:3",
        "STOPPING..."}},
      {In("Variables", "x[1:2] = y[1:3]"),
       {"ZPM model error: vector index ranges inconsistent",
        "index range for first vector: 1:2", "index range for inconsistent vector 1:3",
        "STOPPING..."}},
      {In("Variables", "x[3:3]"), {"(passed)"}},
  });
  // The range limit is the reader's option.
  ExpectAll({{In("Variables", "x[1:10]"), {"(passed)"}}, 
             {In("Variables", "x[1:11]"),
              {"ZPM model error: vector index range too large", "index range: 1:11",
               "longest range accepted: 10", "STOPPING..."}}},
            {0, ".", 10});
}

// Constants used inside indices are echoed at diagnostic level 3 and above, like constants.
TEST(ModelFileMessages, EchoOfConstantsAtHigherDiagLevels) {
  const std::string text = In("Constants", "n = 2") + In("Variables", "x[1:n]");
  for (int level : {2, 3}) {
    OutputCapture out;
    Compiler compiler;
    ParsedModel m = ReadModelText(text, &compiler, {level, "."});
    EXPECT_EQ(m.variables.size(), 2u);
    const Lines expected = level >= 3 ? Lines{"Evaluate Constant: n",
                                              "Evaluate array constant in expression: n"}
                                      : Lines{};
    EXPECT_EQ(out.lines(), expected) << "DIAGLEVEL " << level;
  }
}

TEST(ModelFileMessages, DeclarationsAndExplicitInitialValues) {
  ExpectAll({
      {In("Variables", "x\ny\nX"),
       {"error: duplicate variable declarations", "variable: x", "STOPPING..."}},
      {In("Parameters", "p") + In("Variables", "p"),
       {"error: duplicate variable declarations", "variable: p", "STOPPING..."}},
      {In("Variables", "x\n$x=1\n$x=2"),
       {"error: duplicate variable declarations", "variable differential: x", "STOPPING..."}},
      {In("Variables", "x") + In("Intermediates", "x = 1"),
       {"error: duplicate variable declarations", "intermediate: x", "STOPPING..."}},
      {In("Constants", "k = 1\nk = 2"),
       {"error: duplicate variable declarations", "constant: k", "STOPPING..."}},
      {In("Variables", "b = a + 1\na = 2"),
       {"Error: Initialization of variable b failed",
        " Trying to use an uninitialized value in expression:", "a + 1", "STOPPING..."}},
      {In("Variables", "b = 2*b"),
       {"Error: Initialization of variable b failed",
        " Trying to use an uninitialized value in expression:", "2*b", "STOPPING..."}},
      {In("Parameters", "p = v") + In("Variables", "v = 1"),
       {"Error: Initialization of variable p failed",
        " Trying to use an uninitialized value in expression:", "v", "STOPPING..."}},
      {In("Variables", "b = q + 1"),
       {"Error evaluating constant on Line 2", "q + 1", "Unknown constant: q", "STOPPING..."}},
      {In("Variables", "b = 1, >= 0, <= 2, = 3"),
       {"model error: bound must be written as > value or < value", "line number: 2",
        "line string: b = 1, >= 0, <= 2, = 3", "STOPPING..."}},
  });
  // Values read constants and the parameters and variables declared above them.
  Compiler compiler;
  ParsedModel m = ReadModelText(In("Constants", "k = 0.5") + In("Parameters", "p = 4") +
                                    In("Variables", "a[1:2] = p*k\nb = a[2] + sqrt(p), <= 9"),
                                &compiler);
  ASSERT_EQ(m.variables.size(), 3u);
  EXPECT_DOUBLE_EQ(m.variables[1].value, 2.0);
  EXPECT_DOUBLE_EQ(m.variables[2].value, 4.0);
  EXPECT_DOUBLE_EQ(m.variables[2].upper, 9.0);
}

TEST(ModelFileMessages, Constants) {
  const auto constant = [](const std::string& line) { return In("Constants", line); };
  ExpectAll({
      {constant("c = 2 > 1"),
       {"Error: inequality constraints not allowed for a constant declaration", "line number: 2",
        "line string: c = 2 > 1", "STOPPING..."}},
      {constant("c = 2, >= 1"),
       {"Error: inequality constraints not allowed for a constant declaration", "line number: 2",
        "line string: c = 2, >= 1", "STOPPING..."}},
      // A constant's syntax fault is placed in its expression, not in the statement.
      {constant("c = (1 + "),
       {"Missing operand", "*** Error in syntax of function string: (1 +", "Position: 5",
        "STOPPING..."}},
      {constant("c[1:2] = 1"),
       {"Error: vectors not allowed for a constant declaration", "line number: 2",
        "line string: c[1:2] = 1", "STOPPING..."}},
      {constant("c = d + 1"),
       {"Error evaluating constant on Line 2", "d + 1", "Unknown constant: d", "STOPPING..."}},
      {constant("c ="), {"Error evaluating constant on Line 2", "c =", "STOPPING..."}},
      {constant("c = sqrt(-1)"), {"ERROR in Constants: Sqrt argument negative", "STOPPING..."}},
  });
}

TEST(ModelFileMessages, IntermediatesAndEquations) {
  ExpectAll({
      {In("Intermediates", "v x+1"),
       {"Error: Intermediate variable with no equality (=) expression", "line number: 2",
        "line string: v x+1", "STOPPING..."}},
      {In("Equations", "z > x < y"),
       {"invalid inequalities: z > x < y", "line number: 2", "line string: z > x < y",
        "STOPPING . . ."}},
      {In("Equations", "z < x > y"),
       {"invalid inequalities: z < x > y", "line number: 2", "line string: z < x > y",
        "STOPPING . . ."}},
      {In("Equations", "a < b = c"),
       {"model error: an equality (=) cannot be combined with an inequality", "line number: 2",
        "line string: a < b = c", "STOPPING..."}},
      {In("Equations", "x + y"),
       {"Equation without an equality (=) or inequality (>,<)", "line number: 2",
        "line string: x + y", "STOPPING..."}},
  });
}

// Syntax faults in an equation are shown in the statement as written, with the 1-based
// position of the fault in it.
TEST(ModelFileMessages, SyntaxFaultsPointIntoTheStatement) {
  struct Fault {
    const char* statement;
    const char* message;
    int position;
  } faults[] = {
      {"x = (y+1", "Missing )", 5},
      {"x*(x+1 = 2", "Missing )", 3},
      {"x*2 + = y", "Missing operand", 7},
      {"x = 2.5q3", "Missing operator", 8},
      {"x =", "Blank Equation", 4},
      {"0 < x < (y", "Missing )", 9},
      {"minimize (x", "Missing )", 10},
  };
  for (const Fault& f : faults) {
    EXPECT_EQ(Printed(In("Equations", f.statement)),
              (Lines{f.message,
                     std::string("*** Error in syntax of function string: ") + f.statement,
                     "Position: " + std::to_string(f.position), "STOPPING..."}))
        << f.statement;
  }
}

TEST(ModelFileMessages, Objects) {
  ExpectAll({
      {In("Objects", "c1 = Reactorx"),
       {"Model object type error", "Original Object: Reactorx", "Lookup Object: reactorx",
        "STOPPING. . ."}},
      {In("Objects", "c1 = pid(kc=2"),
       {"Problem with object input:", "c1 = pid(kc=2", ")", "STOPPING..."}},
      {In("Objects", "c1 pid"), {"Problem with object input:", "c1 pid", ")", "STOPPING..."}},
      {In("Objects", "c1 = flash_column(n=5)"), {"(passed)"}},
  });
}

TEST(ModelFileMessages, EmbeddedFilesAndMissingModelFile) {
  const kx::testing::ScratchDir dir("kx_msg_files");
  ReaderOptions o;
  o.output_dir = dir.str();
  ExpectAll(
      {
          {"File\nEnd File\n", {"Unspecified file name at line 1", "STOPPING..."}},
          {"File  \nEnd File\n", {"Unspecified file name at line 1", "STOPPING..."}},
          {"File a.t0\nEnd File\n",
           {"Invalid file write due to filename length <=4: a.t0", "STOPPING..."}},
          {"File notes.exe\nEnd File\n", {"Invalid file extension: notes.exe", "STOPPING..."}},
          {"File notes\nEnd File\n", {"Invalid file extension: notes", "STOPPING..."}},
          {"File ../up.csv\nEnd File\n",
           {"Invalid file name (files are written only in the working directory): ../up.csv",
            "STOPPING..."}},
          {"File sub/in.csv\nEnd File\n",
           {"Invalid file name (files are written only in the working directory): sub/in.csv",
            "STOPPING..."}},
          {"File sub\\in.csv\nEnd File\n",
           {"Invalid file name (files are written only in the working directory): sub\\in.csv",
            "STOPPING..."}},
          {"Variables\nx\nEnd Variables\nFile open.txt\n1, 2\n",
           {"Need \"End File\" statement to close file write", "  for file: open.txt",
            "STOPPING..."}},
      },
      o);
  EXPECT_FALSE(dir.Exists("open.txt"));
  EXPECT_FALSE(std::filesystem::exists(dir.path().parent_path() / "up.csv"));

  const std::string missing = dir.File("absent.zpm");
  OutputCapture out;
  Compiler compiler;
  ModelFileReader reader(&compiler, {});
  EXPECT_THROW(reader.Read(missing), Stop);
  EXPECT_EQ(out.lines(), (Lines{"Parsing model file " + missing,
                                "Error: File " + missing + " not available.", "STOPPING..."}));
}

}  // namespace
}  // namespace kx::lang
