#include "lang/lexer.h"

#include <optional>
#include <string>

#include "base/check.h"
#include "base/report.h"
#include "base/text.h"
#include "lang/opcodes.h"

namespace kx::lang {
namespace {

bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsNameChar(char c) { return IsLetter(c) || IsDigit(c) || c == '_' || c == '.'; }
bool IsExponentMarker(char c) { return c == 'e' || c == 'E' || c == 'd' || c == 'D'; }
bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// What the syntax check saw last.
enum class Prev { kStart, kOperand, kBinary, kSign, kLParen };

bool IsOperator(Tok t) {
  return t == Tok::kPlus || t == Tok::kMinus || t == Tok::kStar || t == Tok::kSlash ||
         t == Tok::kCaret;
}

}  // namespace

void SyntaxError(std::string_view text, std::string message, int pos) {
  Fatal({std::move(message), "*** Error in syntax of function string: " + std::string(text),
         "Position: " + std::to_string(pos + 1)});
}

void Lexer::Fail(std::string message, int pos) const {
  SyntaxError(shown_, std::move(message), pos + offset_);
}

void Lexer::Scan(std::string_view text, std::string_view shown, int offset) {
  text_ = text;
  shown_ = shown.empty() ? text : shown;
  offset_ = shown.empty() ? 0 : offset;
  tokens_.clear();
  Tokenize();
  if (tokens_.size() == 1) Fail("Blank Equation", 0);
  CheckSequence();
}

void Lexer::Tokenize() {
  const int n = static_cast<int>(text_.size());
  int pos = 0;
  while (pos < n) {
    char c = text_[pos];
    if (IsBlank(c)) {
      ++pos;
      continue;
    }
    if (IsDigit(c) || c == '.') {
      pos = ScanNumber(pos);
      continue;
    }
    if (IsLetter(c) || c == '$') {
      pos = ScanName(pos);
      continue;
    }
    Tok kind;
    switch (c) {
      case '+': kind = Tok::kPlus; break;
      case '-': kind = Tok::kMinus; break;
      case '*': kind = Tok::kStar; break;
      case '/': kind = Tok::kSlash; break;
      case '^': kind = Tok::kCaret; break;
      case '(': kind = Tok::kLParen; break;
      case ')': kind = Tok::kRParen; break;
      default: Fail("Invalid element: " + std::string(1, c), pos);
    }
    tokens_.push_back({kind, pos, 1, 0, 0});
    ++pos;
  }
  tokens_.push_back({Tok::kEnd, n, 0, 0, 0});
}

// number -> mantissa [exponent]; mantissa -> digits and at most one '.';
// exponent -> ('e'|'E'|'d'|'D') ['+'|'-'] digits
int Lexer::ScanNumber(int start) {
  const int n = static_cast<int>(text_.size());
  int pos = start;
  int dots = 0, digits = 0;
  for (; pos < n && (IsDigit(text_[pos]) || text_[pos] == '.'); ++pos) {
    if (text_[pos] == '.') ++dots;
    else ++digits;
  }
  bool ok = dots <= 1 && digits > 0;
  if (pos < n && IsExponentMarker(text_[pos])) {
    ++pos;
    if (pos < n && (text_[pos] == '+' || text_[pos] == '-')) ++pos;
    int exp_digits = 0;
    for (; pos < n && IsDigit(text_[pos]); ++pos) ++exp_digits;
    ok = ok && exp_digits > 0;
  }
  // A number runs into the next operator, parenthesis or blank; digits or a '.' glued to an
  // exponent belong to the same (bad) number.
  for (; pos < n && (IsDigit(text_[pos]) || text_[pos] == '.'); ++pos) ok = false;
  std::string_view lexeme = text_.substr(start, pos - start);
  std::optional<double> value = ok ? ParseNumber(lexeme) : std::nullopt;
  if (!value) Fail("Invalid number format:  " + std::string(lexeme), start);
  tokens_.push_back({Tok::kNumber, start, pos - start, 0, *value});
  return pos;
}

// name -> ['$'] letter {letter | digit | '_' | '.' | '[' digits ']'}
int Lexer::ScanName(int start) {
  const int n = static_cast<int>(text_.size());
  const bool derivative = text_[start] == '$';
  int pos = start + (derivative ? 1 : 0);
  if (pos >= n || !IsLetter(text_[pos])) Fail("Invalid element: $", start);
  while (pos < n) {
    if (IsNameChar(text_[pos])) {
      ++pos;
    } else if (text_[pos] == '[') {
      int close = pos + 1;
      while (close < n && IsDigit(text_[close])) ++close;
      if (close == pos + 1 || close >= n || text_[close] != ']') {
        const size_t bracket = text_.find(']', pos);
        const int end = bracket == std::string_view::npos ? n : static_cast<int>(bracket) + 1;
        Fail("Invalid element: " + std::string(text_.substr(start, end - start)), start);
      }
      pos = close + 1;
    } else {
      break;
    }
  }
  Token t{derivative ? Tok::kDerivName : Tok::kName, start, pos - start, 0, 0};
  if (!derivative && pos - start <= 5) {
    char folded[5];
    for (int k = start; k < pos; ++k) folded[k - start] = static_cast<char>(text_[k] | 0x20);
    t.function = FunctionNumber(std::string_view(folded, pos - start));
    if (t.function > 0) t.kind = Tok::kFunction;
  }
  tokens_.push_back(t);
  return pos;
}

// A function name must open a parenthesis that holds something.
void Lexer::CheckFunctionCall(size_t k) const {
  const Token& open = tokens_[k + 1];
  if (open.kind != Tok::kLParen) Fail("Missing opening parenthesis", tokens_[k].pos + tokens_[k].len);
  if (tokens_[k + 2].kind == Tok::kRParen) Fail("Missing function argument", tokens_[k + 2].pos);
}

// Walks the tokens with the parenthesis depth and the kind of the previous element. A '+' or
// '-' at the start, after '(' or after '*', '/', '^' is a sign; after '+' or '-' it is one
// operator too many.
void Lexer::CheckSequence() const {
  std::vector<int> open;  // offsets of the parentheses not yet closed
  Prev prev = Prev::kStart;
  Tok prev_op = Tok::kEnd;
  for (size_t k = 0; k < tokens_.size(); ++k) {
    const Token& t = tokens_[k];
    switch (t.kind) {
      case Tok::kNumber:
      case Tok::kName:
      case Tok::kDerivName:
        if (prev == Prev::kOperand) Fail("Missing operator", t.pos);
        prev = Prev::kOperand;
        break;
      case Tok::kFunction:
        if (prev == Prev::kOperand) Fail("Missing operator", t.pos);
        CheckFunctionCall(k);
        break;  // the '(' that follows sets prev
      case Tok::kLParen:
        if (prev == Prev::kOperand) Fail("Missing operator", t.pos);
        open.push_back(t.pos);
        prev = Prev::kLParen;
        break;
      case Tok::kRParen:
        if (open.empty()) Fail("Mismatched parenthesis", t.pos);
        if (prev == Prev::kLParen) Fail("Empty parentheses", t.pos);
        if (prev == Prev::kBinary || prev == Prev::kSign) Fail("Missing operand", t.pos);
        open.pop_back();
        prev = Prev::kOperand;
        break;
      case Tok::kEnd:
        if (prev == Prev::kBinary || prev == Prev::kSign) Fail("Missing operand", t.pos);
        if (!open.empty()) Fail("Missing )", open.back());
        break;
      default: {
        KX_CHECK(IsOperator(t.kind));
        const bool sign_ok = prev == Prev::kStart || prev == Prev::kLParen ||
                             (prev == Prev::kBinary && prev_op != Tok::kPlus &&
                              prev_op != Tok::kMinus);
        const bool is_sign = (t.kind == Tok::kPlus || t.kind == Tok::kMinus) && sign_ok;
        if (!is_sign && (prev == Prev::kBinary || prev == Prev::kSign))
          Fail("Multiple operators", t.pos);
        if (!is_sign && prev != Prev::kOperand) Fail("Missing operand", t.pos);
        prev = is_sign ? Prev::kSign : Prev::kBinary;
        prev_op = t.kind;
      }
    }
  }
}

}  // namespace kx::lang
