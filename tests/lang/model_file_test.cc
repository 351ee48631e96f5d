#include "lang/model_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <tuple>

#include "base/report.h"
#include "testing/scratch_dir.h"
#include "testing/stop_lines.h"

namespace kx::lang {
namespace {

ParsedModel Read(const std::string& text, const ReaderOptions& options = {}) {
  Compiler compiler;
  return ReadModelText(text, &compiler, options);
}

// The lines of the stop a read ends with; empty when it reads through.
std::vector<std::string> ReadStop(const std::string& text, const ReaderOptions& options = {}) {
  OutputCapture out;
  try {
    Read(text, options);
  } catch (const Stop& stop) {
    return stop.lines();
  }
  return {};
}

std::string Vars(const std::string& body) {
  return "Model m\nVariables\n" + body + "\nEnd Variables\nEquations\nx=1\nEnd Equations\n";
}

// What a vector statement's copies must share with the statements written out.
auto Fields(const VariableDecl& d) {
  return std::tie(d.name, d.derivative, d.has_value, d.value, d.lower, d.upper);
}
auto Fields(const EquationDecl& e) {
  return std::tuple(e.Text(), e.Residual(), e.type, e.objective, e.lower, e.upper, e.statement);
}

template <typename Decl>
void ExpectSameDecls(const std::vector<Decl>& a, const std::vector<Decl>& b) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t k = 0; k < a.size(); ++k) EXPECT_EQ(Fields(a[k]), Fields(b[k])) << k;
}

// The declarations one per element, as written out.
std::vector<VariableDecl> Elements(const std::vector<VariableDecl>& decls) {
  std::vector<VariableDecl> elements;
  for (const VariableDecl& d : decls)
    for (long k = 0; k < d.copies; ++k) elements.push_back(d.Element(k));
  return elements;
}

// A declaration whose only range is in its name is read once and copied: the result, or the
// stop, is the one of the same declarations written out element by element.
TEST(ModelFileDeclarations, NameRangesReadLikeTheWrittenOutElements) {
  struct Case {
    std::string vector, written;
  };
  const Case cases[] = {
      {"x[1:3] = 2*p, >= -1\n$x[2:3] = 0.5\ns[0:1].y, < -3",
       "x[1] = 2*p, >= -1\nx[2] = 2*p, >= -1\nx[3] = 2*p, >= -1\n$x[2] = 0.5\n$x[3] = 0.5\n"
       "s[0].y, < -3\ns[1].y, < -3"},
      {"x[-1:1] = 1\nz = x[0] + x[1]", "x[-1] = 1\nx[0] = 1\nx[1] = 1\nz = x[0] + x[1]"},
      {"x[1:3]\nx[2] = 4", "x[1]\nx[2]\nx[3]\nx[2] = 4"},  // duplicate
      {"x[2] = 4\nx[1:3]", "x[2] = 4\nx[1]\nx[2]\nx[3]"},  // duplicate within the copies
      {"a = x[2]\nx[1:3] = 1", "a = x[2]\nx[1] = 1\nx[2] = 1\nx[3] = 1"},  // read too early
      {"b[1:2] = 1\nq = b[1:2]", "b[1] = 1\nb[2] = 1\nq = b[1]\nq = b[2]"},  // range in a value
  };
  const std::string head = "Constants\np = 1.5\nEnd Constants\n";
  for (const Case& c : cases) {
    const std::string vector = head + Vars(c.vector), written = head + Vars(c.written);
    EXPECT_EQ(ReadStop(vector), ReadStop(written)) << c.vector;
    if (!ReadStop(written).empty()) continue;
    const ParsedModel a = Read(vector), b = Read(written);
    EXPECT_EQ(a.counts.variables, b.counts.variables);
    ExpectSameDecls(Elements(a.variables), b.variables);
  }
}

// A vector equation is parsed once; its other copies are read like the written-out rows.
TEST(ModelFileEquations, VectorCopiesReadLikeTheWrittenOutRows) {
  const std::string vars = "Variables\nx[0:3]\ny\nEnd Variables\nEquations\n";
  const std::string vector =
      "x[1:3] - x[0:2]*y = sin(x[3])\n0 < x[1:2] + y < 1\nmaximize x[0:1]^2\n"
      "x[2:3] >= 0\n";
  std::string written;
  for (int i = 1; i <= 3; ++i)
    written += fmt::format("x[{}] - x[{}]*y = sin(x[3])\n", i, i - 1);
  for (int i = 1; i <= 2; ++i) written += fmt::format("0 < x[{}] + y < 1\n", i);
  for (int i = 0; i <= 1; ++i) written += fmt::format("maximize x[{}]^2\n", i);
  for (int i = 2; i <= 3; ++i) written += fmt::format("x[{}] >= 0\n", i);
  const ParsedModel a = Read(vars + vector + "End Equations\n");
  const ParsedModel b = Read(vars + written + "End Equations\n");
  EXPECT_EQ(std::tie(a.counts.equations, a.counts.residuals),
            std::tie(b.counts.equations, b.counts.residuals));
  std::vector<EquationDecl> rows;
  for (const EquationDecl& e : a.equations)
    for (long k = 0; k < e.copies; ++k) rows.push_back(e.Row(k));
  ExpectSameDecls(rows, b.equations);  // statements numbered per copy, as written out
  EXPECT_EQ(rows[2].line, 6);  // the copies keep their statement's line
  EXPECT_EQ(rows.back().line, 9);
}

// The stops of the reader and what it reads from comments, continuations, ranges, values,
// bounds, equation forms, objects and connections are golden files
// (tests/golden/input/reader.zpm); the line-length limits need generated lines.
TEST(ModelFileLines, LengthLimitsOfLinesAndContinuations) {
  const std::string long_line = "x = 1" + std::string(15000 - 5 + 1, ' ');
  // "x = 1" and "+0...01" joined without the '&': 15000 characters.
  const std::string joined = "x = 1&\n+" + std::string(15000 - 7, '0') + "1";
  EXPECT_NO_THROW(Read(Vars(long_line.substr(0, 15000))));
  EXPECT_NO_THROW(Read(Vars(joined)));
  auto stop = [](const std::string& text) {
    return kx::testing::StopLines([&] { Read(text); });
  };
  const std::vector<std::string> too_long = stop(Vars(long_line));
  ASSERT_EQ(too_long.size(), 7u);
  EXPECT_EQ(too_long[0], "Error with line number: 3");
  EXPECT_EQ(too_long[1], "ZPM model error: string >15000 characters");
  EXPECT_EQ(stop(Vars("x = 1 &\n" + std::string(14995, '0'))),
            (std::vector<std::string>{"ZPM model error: equation continuation > 15000 characters",
                                      "Consider breaking up the line into multiple equations",
                                      "STOPPING..."}));
}

TEST(ModelFileLines, MissingModelFileStops) {
  kx::testing::ScratchDir dir("kx_model_file_missing");
  const std::string missing = dir.File("absent.zpm");
  Compiler compiler;
  ModelFileReader reader(&compiler, {});
  EXPECT_EQ(kx::testing::StopLines([&] { reader.Read(missing); }),
            (std::vector<std::string>{"Parsing model file " + missing,
                                      "Error: File " + missing + " not available.",
                                      "STOPPING..."}));
}

// Each record store holds 100 * 10^MAX_MEMORY records (their stops are golden cases); the top
// level does not overflow.
TEST(ModelSize, StoresGrowTenfoldPerLevel) {
  EXPECT_EQ(StoreCapacity(4), 1000000);
  EXPECT_EQ(StoreCapacity(10), 1000000000000);
}

// Embedded File blocks never write through a symbolic link, and a failed write stops with its
// reason (directory parts in the name are golden cases).
TEST(FileBlock, SymbolicLinkIsRefusedNotFollowed) {
  kx::testing::ScratchDir dir("kx_file_block");
  kx::testing::ScratchDir outside("kx_file_block_outside");
  outside.Write("victim.csv", "precious\n");
  std::filesystem::create_symlink(outside.File("victim.csv"), dir.File("data.csv"));
  std::vector<std::string> lines =
      ReadStop("File data.csv\n1, 2\nEnd File\n", {.output_dir = dir.str()});
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "Error: unable to write file data.csv: it is a symbolic link");
  EXPECT_EQ(outside.Read("victim.csv"), "precious\n");
  EXPECT_TRUE(std::filesystem::is_symlink(dir.File("data.csv")));
}

}  // namespace
}  // namespace kx::lang
