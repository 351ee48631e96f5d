// lang/lexer: splits one expression string into tokens and checks its syntax. Every fault
// prints its own message, "*** Error in syntax of function string: " with the string and
// "Position: " with the 1-based position of the fault, then stops the run.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kx::lang {

enum class Tok : uint8_t {
  kNumber,     // value in Token::value
  kName,       // name text at [pos, pos+len), not yet folded to lower case
  kDerivName,  // `$name`: name text at [pos+1, pos+len)
  kFunction,   // function number in Token::function
  kPlus,
  kMinus,
  kStar,
  kSlash,
  kCaret,
  kLParen,
  kRParen,
  kEnd,  // one past the last token; pos is the length of the text
};

struct Token {
  Tok kind;
  int pos;       // 0-based offset of the first character in the text
  int len;       // number of characters
  int function;  // kFunction: 1..16
  double value;  // kNumber: the value
};

// Reusable scanner: the token buffer keeps its capacity across expressions.
class Lexer {
 public:
  // Scans and syntax-checks `text`; on success tokens() ends with one kEnd token. A fault is
  // reported in `shown` (the text when empty) at its position plus `offset`, so that a part of
  // a model statement is checked with positions in the whole statement.
  void Scan(std::string_view text, std::string_view shown = {}, int offset = 0);
  const std::vector<Token>& tokens() const { return tokens_; }

 private:
  void Tokenize();
  int ScanNumber(int pos);
  int ScanName(int pos);
  void CheckSequence() const;
  void CheckFunctionCall(size_t k) const;
  [[noreturn]] void Fail(std::string message, int pos) const;

  std::string_view text_;      // the expression being scanned
  std::string_view shown_;     // the text faults are reported in
  int offset_ = 0;             // position of text_ within shown_
  std::vector<Token> tokens_;  // tokens of text_, ending with kEnd
};

// Stops the run with a syntax fault in `text` at 0-based offset `pos`.
[[noreturn]] void SyntaxError(std::string_view text, std::string message, int pos);

}  // namespace kx::lang
