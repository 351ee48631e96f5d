// Scanner: function names. Every syntax message with its position, number formats, precedence
// and associativity are golden files (tests/golden/input/syntax.txt and eval.txt).
#include "lang/lexer.h"

#include <gtest/gtest.h>

#include <vector>

namespace kx::lang {
namespace {

TEST(Lexer, LongestFunctionNameWins) {
  Lexer lexer;
  lexer.Scan("log10(x) + erfc(y) + log(z) + erf(w)");
  std::vector<int> functions;
  for (const Token& t : lexer.tokens())
    if (t.kind == Tok::kFunction) functions.push_back(t.function);
  EXPECT_EQ(functions, (std::vector<int>{3, 15, 4, 16}));
}

}  // namespace
}  // namespace kx::lang
