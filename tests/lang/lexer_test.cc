// Scanner and syntax check: every syntax message with its position, number formats, function
// names, precedence and associativity (through one-time evaluation).
#include "lang/lexer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lang/compiler.h"
#include "lang_testing.h"

namespace kx::lang {
namespace {

using testing::StopLines;
using testing::Symbols;

TEST(Lexer, SyntaxFaultsNameTheFaultAndItsPosition) {
  struct Case {
    const char* text;
    const char* message;
    int position;
  } cases[] = {
      {"", "Blank Equation", 1},
      {"   ", "Blank Equation", 1},
      {"x y", "Missing operator", 3},
      {"x*(y)2", "Missing operator", 6},
      {"sin(x)(y)", "Missing operator", 7},
      {"x+*y", "Multiple operators", 3},
      {"x+-y", "Multiple operators", 3},
      {"--x", "Multiple operators", 2},
      {"x*(y+1", "Missing )", 3},
      {"((x)", "Missing )", 1},
      {"x*()", "Empty parentheses", 4},
      {"x)", "Mismatched parenthesis", 2},
      {"(x))+(y", "Mismatched parenthesis", 4},
      {"sin x", "Missing opening parenthesis", 4},
      {"x*log10", "Missing opening parenthesis", 8},
      {"sqrt()", "Missing function argument", 6},
      {"x+", "Missing operand", 3},
      {"(x*)", "Missing operand", 4},
      {"*x", "Missing operand", 1},
      {"(/x)", "Missing operand", 2},
      {"x # y", "Invalid element: #", 3},
      {"x + $", "Invalid element: $", 5},
      {"x[a] + 1", "Invalid element: x[a]", 1},
      {"2.5.1*x", "Invalid number format:  2.5.1", 1},
      {"x + 1e+", "Invalid number format:  1e+", 5},
      {"x + .", "Invalid number format:  .", 5},
      {"3d2.5", "Invalid number format:  3d2.5", 1},
  };
  Compiler compiler;
  for (const Case& c : cases) {
    const std::vector<std::string> lines = StopLines([&] { compiler.CheckSyntax(c.text); });
    EXPECT_EQ(lines, (std::vector<std::string>{
                         c.message, "*** Error in syntax of function string: " + std::string(c.text),
                         "Position: " + std::to_string(c.position), "STOPPING..."}))
        << c.text;
  }
}

TEST(Lexer, AcceptsWellFormedExpressions) {
  const char* texts[] = {"x", "-x^2", "x*-y", "x^-2", "+x", "((x))", "sin(-x)", "2.5d3*x",
                         "a.b_c[12] + $x", "LOG10(x)", "x / (y) ^ (z) - 1e-3", ".5E+2"};
  Compiler compiler;
  OutputCapture quiet;
  for (const char* t : texts) EXPECT_NO_THROW(compiler.CheckSyntax(t)) << t;
}

TEST(Lexer, LongestFunctionNameWins) {
  Lexer lexer;
  lexer.Scan("log10(x) + erfc(y) + log(z) + erf(w)");
  std::vector<int> functions;
  for (const Token& t : lexer.tokens())
    if (t.kind == Tok::kFunction) functions.push_back(t.function);
  EXPECT_EQ(functions, (std::vector<int>{3, 15, 4, 16}));
}

TEST(Lexer, NumbersPrecedenceAndAssociativity) {
  struct Case {
    const char* text;
    double value;
  } cases[] = {
      {"2.5d3", 2500},     {"2.5E3", 2500},      {"2.5D-1", 0.25},   {".5", 0.5},
      {"1.", 1},           {"3e2", 300},         {"-2^2", -4},       {"(-2)^2", 4},
      {"2^3^2", 512},      {"8/4/2", 1},         {"2-3-4", -5},      {"2*3+4*5", 26},
      {"2^-1", 0.5},       {"2*-3", -6},         {"-2*3^2", -18},    {"1+2*3^2/6", 4},
      {"LOG10(1000)", 3},  {"log(exp(2))", 2},   {"abs(-3)", 3},     {"sqrt(16)", 4},
      {"c*2", 5},          {"PI", 3.141592653589793},                {"+3", 3},
  };
  Compiler compiler;
  Symbols symbols;
  for (const Case& c : cases)
    EXPECT_DOUBLE_EQ(compiler.EvalOnce(c.text, symbols.resolver()), c.value) << c.text;
}

}  // namespace
}  // namespace kx::lang
