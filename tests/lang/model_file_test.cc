#include "lang/model_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/report.h"

namespace kx::lang {
namespace {

ParsedModel Read(const std::string& text, const ReaderOptions& options = {}) {
  Compiler compiler;
  return ReadModelText(text, &compiler, options);
}

// Runs the reader on `text` and returns the printed lines of the stop ("" when it passed).
std::string StopText(const std::string& text, const ReaderOptions& options = {}) {
  OutputCapture out;
  try {
    Read(text, options);
  } catch (const Stop&) {
    return out.text();
  }
  return "";
}

std::string Vars(const std::string& body) {
  return "Model m\nVariables\n" + body + "\nEnd Variables\nEquations\nx=1\nEnd Equations\n";
}

TEST(ModelFileLines, LineLengthLimitIsExact) {
  std::string ok = "x = 1" + std::string(15000 - 5, ' ');
  std::string bad = ok + " ";
  EXPECT_EQ(StopText("Variables\n" + ok + "\nEnd Variables\n"), "");
  std::string msg = StopText("Variables\n" + bad + "\nEnd Variables\n");
  EXPECT_NE(msg.find("Error with line number: 2"), std::string::npos);
  EXPECT_NE(msg.find("ZPM model error: string >15000 characters"), std::string::npos);
  EXPECT_NE(msg.find("The may also be due to only using newline character CR"), std::string::npos);
}

TEST(ModelFileLines, ContinuationLimitIsExact) {
  // Joined statement "x = 1+...": first part ends with '&' (dropped).
  std::string first = "x = 1";
  std::string second = "+" + std::string(15000 - 6 - 1, '0') + "1";
  ASSERT_EQ(first.size() + second.size(), 15000u);
  EXPECT_EQ(StopText("Variables\n" + first + "&\n" + second + "\nEnd Variables\n"), "");
  std::string msg = StopText("Variables\n" + first + "&\n" + second + "0\nEnd Variables\n");
  EXPECT_NE(msg.find("ZPM model error: equation continuation > 15000 characters"),
            std::string::npos);
}

TEST(ModelFileLines, CommentsContinuationsAndSectionKeywords) {
  ParsedModel m = Read(
      "! comment\n# comment\n% comment\n\xA1 comment\nMODEL demo\n  variables\n"
      "    x = 1 ! trailing comment\n  end   variables\n  EQUATIONS\n    x + &\n"
      "    ! a comment inside a continuation\n    2 = 3\n  EndEquations\nEnd Model\n");
  EXPECT_EQ(m.name, "demo");
  ASSERT_EQ(m.variables.size(), 1u);
  EXPECT_EQ(m.variables[0].value, 1);
  ASSERT_EQ(m.equations.size(), 1u);
  EXPECT_EQ(m.equations[0].text, "x + 2 = 3");
  EXPECT_EQ(m.equations[0].line, 10);
}

TEST(ModelFileLines, ColonChecks) {
  struct Case {
    std::string line;
    const char* message;  // nullptr: accepted
  } cases[] = {
      {":x = 1", "model error: colon character at start of line"},
      {"x = 1:", "model error: colon character at end of line"},
      {"w = 1 ! " + std::string(20, ':'), nullptr},
      {"y[1" + std::string(10, ':') + "2] = 1", "problem with vector index"},
      {"y[1" + std::string(11, ':') + "2] = 1",
       "model error: more than 10 consecutive colon characters not supported"},
  };
  for (const auto& c : cases) {
    std::string msg = StopText(Vars("x = 1\n" + c.line));
    if (c.message) {
      EXPECT_NE(msg.find(c.message), std::string::npos) << c.line << "\n" << msg;
    } else {
      EXPECT_EQ(msg, "") << c.line;
    }
  }
}

TEST(ModelFileVectors, RangesExpandAndBadIndicesStop) {
  ParsedModel m = Read(
      "Constants\nn = 3\nEnd Constants\nVariables\nx[1:n] = 2, >= 0\ny[3:3]\nz[n]\n"
      "End Variables\nEquations\nx[2:n] = x[1:n-1] * 2\nEnd Equations\n");
  ASSERT_EQ(m.variables.size(), 5u);
  EXPECT_EQ(m.variables[0].name, "x[1]");
  EXPECT_EQ(m.variables[2].name, "x[3]");
  EXPECT_EQ(m.variables[3].name, "y[3]");
  EXPECT_EQ(m.variables[4].name, "z[3]");
  ASSERT_EQ(m.equations.size(), 2u);
  EXPECT_EQ(m.equations[1].text, "x[3] = x[2] * 2");
  EXPECT_EQ(m.counts.equations, 2);

  struct Case {
    const char* decl;
    const char* message;
  } cases[] = {
      {"x[1:0]", "ZPM model error: vector index range < 0"},
      {"x[]", "Empty vector index at Line"},
      {"x[1:2.5]", "non-integer value:"},
      {"x[1:2", "model error: missing vector index"},
      {"x[1:2] = y[1:3]", "ZPM model error: vector index ranges inconsistent"},
      {"x[1:q]", "Error evaluating constant on Line"},
  };
  for (const auto& c : cases) {
    std::string msg = StopText("Variables\n" + std::string(c.decl) + "\nEnd Variables\n");
    EXPECT_NE(msg.find(c.message), std::string::npos) << c.decl << "\n" << msg;
  }
  EXPECT_NE(StopText(Vars("x[1:20]"), {0, ".", 10}).find("vector index range too large"),
            std::string::npos);
}

TEST(ModelFileDeclarations, ValuesBoundsAndDefaults) {
  ParsedModel m = Read(Vars(
      "a = 2, >= 1, <= 3\nb, > 5\nc, < -2\nd = 1 >= 0\ne\n$a = 0.5\nf = 2*pi, <= 10"));
  ASSERT_EQ(m.variables.size(), 7u);
  const VariableDecl& a = m.variables[0];
  EXPECT_EQ(a.value, 2);
  EXPECT_EQ(a.lower, 1);
  EXPECT_EQ(a.upper, 3);
  EXPECT_EQ(m.variables[1].value, 5);   // no value: 0 moved onto the nearer bound
  EXPECT_EQ(m.variables[2].value, -2);
  EXPECT_EQ(m.variables[3].lower, 0);
  EXPECT_EQ(m.variables[4].value, 0);
  EXPECT_FALSE(m.variables[4].has_value);
  EXPECT_TRUE(m.variables[5].derivative);
  EXPECT_EQ(m.variables[5].name, "a");
  EXPECT_DOUBLE_EQ(m.variables[6].value, 2 * 3.141592653589793);
}

TEST(ModelFileDeclarations, DuplicatesNameTheirKind) {
  struct Case {
    const char* text;
    const char* kind;
  } cases[] = {
      {"Variables\nx\nX\nEnd Variables\n", "variable: x"},
      {"Parameters\np\nEnd Parameters\nVariables\np\nEnd Variables\n", "variable: p"},
      {"Variables\nx\n$x=1\n$x=2\nEnd Variables\n", "variable differential: x"},
      {"Variables\nx\nEnd Variables\nIntermediates\nx = 1\nEnd Intermediates\n",
       "intermediate: x"},
      {"Constants\nk = 1\nk = 2\nEnd Constants\n", "constant: k"},
  };
  for (const auto& c : cases) {
    std::string msg = StopText(c.text);
    EXPECT_NE(msg.find("error: duplicate variable declarations"), std::string::npos) << c.text;
    EXPECT_NE(msg.find(c.kind), std::string::npos) << c.text << "\n" << msg;
  }
}

TEST(ModelFileConstants, RefusedFormsAndDomainErrors) {
  struct Case {
    const char* line;
    const char* message;
  } cases[] = {
      {"c = 2 > 1", "Error: inequality constraints not allowed for a constant declaration"},
      {"c = 2, >= 1", "Error: inequality constraints not allowed for a constant declaration"},
      {"c[1:2] = 1", "Error: vectors not allowed for a constant declaration"},
      {"c = d + 1", "Error evaluating constant on Line 2"},
      {"c = sqrt(-1)", "ERROR in Constants: Sqrt argument negative"},
      {"c = 1/0", "ERROR in Constants: Divide by zero"},
      {"c = (1 + ", "*** Error in syntax of function string: "},
  };
  for (const auto& c : cases) {
    std::string msg = StopText("Constants\n" + std::string(c.line) + "\nEnd Constants\n");
    EXPECT_NE(msg.find(c.message), std::string::npos) << c.line << "\n" << msg;
  }
  ParsedModel m = Read("Constants\na = 2\nb = a^3 + 2.5d1\nEnd Constants\n");
  ASSERT_EQ(m.constants.size(), 2u);
  EXPECT_DOUBLE_EQ(m.constants[1].value, 33);
}

TEST(ModelFileEquations, FormsTypesAndBounds) {
  ParsedModel m = Read(
      "Equations\nx = y\nx >= 1\nx < 2\n0 <= x*y <= 4\n5 > x > 1\nminimize x^2\n"
      "MAXIMIZE y\nx + y = 0\nEnd Equations\n");
  struct Expect {
    int type;
    const char* residual;
    bool objective;
  } want[] = {{1, "(x)-(y)", false},    {2, "(x)-(1)", false},   {3, "(x)-(2)", false},
              {2, "(x*y)-(0)", false},  {3, "(x*y)-(4)", false}, {2, "(x)-(1)", false},
              {3, "(x)-(5)", false},    {1, "x^2", true},        {1, "-(y)", true},
              {1, "x + y", false}};
  ASSERT_EQ(m.equations.size(), std::size(want));
  for (size_t i = 0; i < std::size(want); ++i) {
    EXPECT_EQ(m.equations[i].type, want[i].type) << i;
    EXPECT_EQ(m.equations[i].residual, want[i].residual) << i;
    EXPECT_EQ(m.equations[i].objective, want[i].objective) << i;
  }
  EXPECT_EQ(m.equations[3].statement, 4);
  EXPECT_EQ(m.equations[4].statement, 4);
  EXPECT_EQ(m.equations[1].upper, 1.0e20);
  EXPECT_EQ(m.equations[2].lower, -1.0e20);
  EXPECT_EQ(m.counts.equations, 8);
  EXPECT_EQ(m.counts.residuals, 10);
}

TEST(ModelFileEquations, RefusedForms) {
  struct Case {
    const char* line;
    const char* message;
  } cases[] = {
      {"x + y", "Equation without an equality (=) or inequality (>,<)"},
      {"z > x < y", "invalid inequalities: z > x < y"},
      {"z < x > y", "invalid inequalities: z < x > y"},
      {"x = ", "Blank Equation"},
      {"a < b = c", "cannot be combined"},
  };
  for (const auto& c : cases) {
    std::string msg = StopText("Equations\n" + std::string(c.line) + "\nEnd Equations\n");
    EXPECT_NE(msg.find(c.message), std::string::npos) << c.line << "\n" << msg;
  }
  EXPECT_NE(StopText("Equations\nz > x < y\nEnd Equations\n").find("STOPPING . . ."),
            std::string::npos);
}

TEST(ModelFileIntermediates, NeedAnEquality) {
  EXPECT_NE(StopText("Intermediates\nv x+1\nEnd Intermediates\n")
                .find("Error: Intermediate variable with no equality (=) expression"),
            std::string::npos);
  ParsedModel m = Read("Intermediates\nv[1:2] = x[1:2] + 1\nEnd Intermediates\n");
  ASSERT_EQ(m.intermediates.size(), 2u);
  EXPECT_EQ(m.intermediates[1].name, "v[2]");
  EXPECT_EQ(m.intermediates[1].text, "x[2] + 1");
}

TEST(ModelFileObjectsAndConnections, StoredOrRefused) {
  ParsedModel m = Read(
      "Objects\nc1 = PID(kc=2, tau=3)\nl1 = lag\nEnd Objects\nCompounds\nwater, methane\n"
      "End Compounds\nConnections\nA = B\nx = fixed\nEnd Connections\n");
  ASSERT_EQ(m.objects.size(), 2u);
  EXPECT_EQ(m.objects[0].type, "pid");
  EXPECT_EQ(m.objects[0].arguments, "kc=2, tau=3");
  EXPECT_EQ(m.objects[1].type, "lag");
  EXPECT_EQ(m.compounds, (std::vector<std::string>{"water", "methane"}));
  ASSERT_EQ(m.connections.size(), 2u);
  EXPECT_EQ(m.connections[0].a, "a");
  EXPECT_EQ(m.connections[1].number, 2);
  EXPECT_EQ(ObjectTypeKeywords().size(), 38u);
  std::string msg = StopText("Objects\nc1 = Reactorx\nEnd Objects\n");
  EXPECT_NE(msg.find("Model object type error"), std::string::npos);
  EXPECT_NE(msg.find("Original Object: Reactorx"), std::string::npos);
  EXPECT_NE(msg.find("Lookup Object: reactorx"), std::string::npos);
  EXPECT_NE(msg.find("STOPPING. . ."), std::string::npos);
  EXPECT_NE(StopText("Objects\nc1 = pid(kc=2\nEnd Objects\n").find("Problem with object input:"),
            std::string::npos);
}

class ModelFileFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("kx_model_file_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()));
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::filesystem::path dir_;
};

TEST_F(ModelFileFiles, EmbeddedFileIsWrittenVerbatim) {
  ReaderOptions o;
  o.output_dir = dir_.string();
  ParsedModel m = Read("File data.csv\ntime, u\n! not a comment here\n0, 1\nEnd File\n", o);
  EXPECT_EQ(m.files_written, (std::vector<std::string>{"data.csv"}));
  std::ifstream in(dir_ / "data.csv");
  std::stringstream body;
  body << in.rdbuf();
  EXPECT_EQ(body.str(), "time, u\n! not a comment here\n0, 1\n");
}

TEST_F(ModelFileFiles, BadFileBlocksAreRefused) {
  ReaderOptions o;
  o.output_dir = dir_.string();
  struct Case {
    const char* text;
    const char* message;
  } cases[] = {
      {"File\nEnd File\n", "Unspecified file name at line 1"},
      {"File a.t0\nEnd File\n", "Invalid file write due to filename length <=4: a.t0"},
      {"File data.exe\nEnd File\n", "Invalid file extension: data.exe"},
      {"File ../up.csv\nEnd File\n", "working directory"},
      {"File sub/in.csv\nEnd File\n", "working directory"},
      {"File sub\\in.csv\nEnd File\n", "working directory"},
      {"File open.txt\n1, 2\n", "Need \"End File\" statement to close file write"},
  };
  for (const auto& c : cases) {
    std::string msg = StopText(c.text, o);
    EXPECT_NE(msg.find(c.message), std::string::npos) << c.text << "\n" << msg;
  }
  EXPECT_FALSE(std::filesystem::exists(dir_.parent_path() / "up.csv"));
}

TEST(ModelFileSections, StatementOutsideSectionIsRefused) {
  EXPECT_NE(StopText("Model m\nx = 1\nEnd Model\n").find("statement outside of a section"),
            std::string::npos);
}

}  // namespace
}  // namespace kx::lang
