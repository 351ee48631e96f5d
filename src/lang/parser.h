// lang/parser: turns the checked tokens of one expression into nodes of a Graph. Names are
// folded to lower case and handed to the caller's leaf function, which returns the node that
// stands for the name (a constant, an input, or an inlined intermediate).
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "lang/graph.h"
#include "lang/lexer.h"

namespace kx::lang {

// Returns the node for lower-case `name`; `derivative` is true for `$name`; `pos` is the
// 0-based offset of the name in the text (for messages).
using LeafFn = std::function<int(std::string_view name, bool derivative, int pos)>;

class Parser {
 public:
  // Parses `tokens` (of `text`, already checked by Lexer::Scan) into `graph`; returns the
  // root node.
  int Parse(std::string_view text, const std::vector<Token>& tokens, Graph* graph,
            const LeafFn& leaf);

 private:
  int ParseExpr();
  int ParseTerm();
  int ParseUnary();
  int ParsePower();
  int ParseAtom();
  int ParseName(const Token& t);
  const Token& Next() { return (*tokens_)[next_++]; }
  Tok Peek() const { return (*tokens_)[next_].kind; }

  std::string_view text_;                      // the expression
  const std::vector<Token>* tokens_ = nullptr;  // its tokens
  size_t next_ = 0;                            // index of the next token
  Graph* graph_ = nullptr;                     // where nodes are built
  const LeafFn* leaf_ = nullptr;               // name -> node
  std::string name_;                           // lower-case name buffer, reused
};

}  // namespace kx::lang
