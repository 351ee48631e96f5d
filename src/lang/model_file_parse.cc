// Parsing the statements of each section: constants, parameter and variable declarations,
// intermediates, equations, connections and objects.
#include <algorithm>
#include <cctype>

#include "base/report.h"
#include "base/text.h"
#include "lang/model_file.h"

namespace kx::lang {
namespace {

constexpr double kNoBound = 1.0e20;

// A relational operator found at parenthesis depth 0.
struct Relation {
  size_t pos = 0;   // first character
  size_t len = 0;   // 1 or 2 characters
  char kind = '=';  // '=', '<' or '>'
};

// Splits at `sep` outside parentheses and brackets.
std::vector<std::string_view> SplitTopLevel(std::string_view s, char sep) {
  std::vector<std::string_view> out;
  int depth = 0;
  size_t start = 0;
  for (size_t i = 0; i < s.size(); ++i) {
    char c = s[i];
    if (c == '(' || c == '[') ++depth;
    if ((c == ')' || c == ']') && depth > 0) --depth;
    if (c == sep && depth == 0) {
      out.push_back(Trim(s.substr(start, i - start)));
      start = i + 1;
    }
  }
  out.push_back(Trim(s.substr(start)));
  return out;
}

// relation -> '=' | '<' | '<=' | '>' | '>=' | '=<' | '=>'
// With unbalanced brackets and no relation outside them, the relations are taken at any depth,
// so that `x*(x+1 = 2` reaches the syntax check of its sides ("Missing )") instead of being
// refused as a line without a relation.
std::vector<Relation> FindRelations(std::string_view s, bool any_depth = false) {
  std::vector<Relation> out;
  int depth = 0;
  for (size_t i = 0; i < s.size(); ++i) {
    char c = s[i];
    if (c == '(' || c == '[') ++depth;
    if ((c == ')' || c == ']') && depth > 0) --depth;
    if ((depth != 0 && !any_depth) || (c != '=' && c != '<' && c != '>')) continue;
    Relation r{i, 1, c};
    char next = i + 1 < s.size() ? s[i + 1] : '\0';
    if (c != '=' && next == '=') r.len = 2;
    if (c == '=' && (next == '<' || next == '>')) r = {i, 2, next};
    out.push_back(r);
    i += r.len - 1;
  }
  if (out.empty() && depth != 0 && !any_depth) return FindRelations(s, true);
  return out;
}

// True for '[' integer ']' starting at name[i]; sets *end past the ']'.
bool IsIndex(std::string_view name, size_t i, size_t* end) {
  size_t close = name.find(']', i);
  if (close == std::string_view::npos || close == i + 1) return false;
  std::string_view index = name.substr(i + 1, close - i - 1);
  for (size_t j = 0; j < index.size(); ++j) {
    bool sign = j == 0 && index[j] == '-' && index.size() > 1;
    if (!sign && !std::isdigit(static_cast<unsigned char>(index[j]))) return false;
  }
  *end = close + 1;
  return true;
}

// name -> letter { letter | digit | '_' | '.' | '[' integer ']' }
// An index may be followed by a member (`p[2].op`, an element of a vector of objects).
bool IsValidName(std::string_view name) {
  if (name.empty() || name.size() > static_cast<size_t>(kMaxNameLength)) return false;
  if (!std::isalpha(static_cast<unsigned char>(name[0]))) return false;
  for (size_t i = 1; i < name.size();) {
    unsigned char c = static_cast<unsigned char>(name[i]);
    if (c == '[') {
      if (!IsIndex(name, i, &i)) return false;
      if (i < name.size() && name[i] != '.') return false;
      continue;
    }
    if (!std::isalnum(c) && c != '_' && c != '.') return false;
    ++i;
  }
  return true;
}

[[noreturn]] void FailStatement(const std::string& what, const Statement& s) {
  Fatal({what, fmt::format("line number: {}", s.line), "line string: " + s.text});
}

std::string CheckedName(std::string_view text, const Statement& s) {
  std::string name = ToLower(Trim(text));
  if (!IsValidName(name)) FailStatement("model error: invalid name: " + name, s);
  return name;
}

void SetBound(char kind, double v, VariableDecl* d) {
  if (kind == '>') {
    d->lower = v;
  } else {
    d->upper = v;
  }
}

}  // namespace

ModelFileReader::Declared& ModelFileReader::CheckNewName(const std::string& name,
                                                         const char* kind, bool derivative) {
  auto [it, inserted] = derivative ? declared_.try_emplace("$" + name, Declared{kind})
                                   : declared_.try_emplace(name, Declared{kind});
  if (!inserted || (!derivative && FindDeclaredElement(name) != nullptr)) {
    Fatal({"error: duplicate variable declarations", std::string(kind) + " " + name});
  }
  std::string_view base;
  long index = 0;
  if (!derivative && SplitElement(name, &base, &index) &&
      !declared_element_bases_.contains(base)) {
    declared_element_bases_.emplace(base);
  }
  return it->second;
}

void ModelFileReader::CheckNewRun(std::string_view base, long first, long last,
                                  const char* kind, double value) {
  std::vector<DeclaredRun>& runs = declared_runs_[std::string(base)];
  long duplicate = last + 1;
  for (const DeclaredRun& r : runs) {
    if (r.first <= last && first <= r.last)
      duplicate = std::min(duplicate, std::max(first, r.first));
  }
  if (declared_element_bases_.count(base) > 0) {
    for (long i = first; i < duplicate; ++i) {
      if (declared_.count(ElementName(base, i)) > 0) duplicate = i;
    }
  }
  if (duplicate <= last) {
    Fatal({"error: duplicate variable declarations",
           fmt::format("{} {}[{}]", kind, base, duplicate)});
  }
  runs.push_back({first, last, value});
}

const ModelFileReader::DeclaredRun* ModelFileReader::FindDeclaredElement(
    std::string_view name) const {
  std::string_view base;
  long index = 0;
  if (declared_runs_.empty() || !SplitElement(name, &base, &index)) return nullptr;
  const auto it = declared_runs_.find(base);
  if (it == declared_runs_.end()) return nullptr;
  for (const DeclaredRun& r : it->second) {
    if (r.first <= index && index <= r.last) return &r;
  }
  return nullptr;
}

// constant -> name '=' expression
void ModelFileReader::ParseConstant(const Statement& s) {
  if (s.text.find_first_of("<>") != std::string::npos || SplitTopLevel(s.text, ',').size() > 1) {
    Fatal({"Error: inequality constraints not allowed for a constant declaration",
           fmt::format("line number: {}", s.line), "line string: " + s.text});
  }
  size_t eq = s.text.find('=');
  std::string_view lhs = std::string_view(s.text).substr(0, eq);
  if (lhs.find('[') != std::string_view::npos) {
    Fatal({"Error: vectors not allowed for a constant declaration",
           fmt::format("line number: {}", s.line), "line string: " + s.text});
  }
  if (eq == std::string::npos || Trim(s.text.substr(eq + 1)).empty()) {
    Fatal({fmt::format("Error evaluating constant on Line {}", s.line), s.text});
  }
  std::string name = CheckedName(lhs, s);
  CheckNewName(name, "constant:", false);
  if (options_.diaglevel >= 3) Say("Evaluate Constant: " + name);
  double v = EvaluateConstantText(Trim(s.text.substr(eq + 1)), s.line);
  constant_values_[name] = v;
  model_.constants.push_back({name, v, s.line});
}

// declaration -> ['$'] name ['=' value] { ',' bound };  bound -> ('>' | '>=' | '<' | '<=') value
void ModelFileReader::ParseDeclaration(const Statement& s, std::vector<VariableDecl>* out) {
  std::vector<std::string_view> parts = SplitTopLevel(s.text, ',');
  std::string_view head = parts[0];
  std::vector<Relation> rel = FindRelations(head);
  VariableDecl d;
  d.line = s.line;
  std::string_view name = rel.empty() ? head : head.substr(0, rel[0].pos);
  if (!name.empty() && name.front() == '$') {
    d.derivative = true;
    name.remove_prefix(1);
  }
  d.name = CheckedName(name, s);
  size_t k = 0;
  if (!rel.empty() && rel[0].kind == '=') {
    size_t end = rel.size() > 1 ? rel[1].pos : head.size();
    std::string_view value = Trim(head.substr(rel[0].pos + 1, end - rel[0].pos - 1));
    if (value.empty()) FailStatement("model error: missing value in declaration", s);
    d.value = EvaluateInitialValue(value, d.name, s.line);
    d.has_value = true;
    k = 1;
  }
  for (; k < rel.size(); ++k) {
    size_t end = k + 1 < rel.size() ? rel[k + 1].pos : head.size();
    ParseBound(head.substr(rel[k].pos, end - rel[k].pos), s, &d);
  }
  for (size_t i = 1; i < parts.size(); ++i) ParseBound(parts[i], s, &d);
  if (!d.has_value && d.lower <= d.upper) d.value = std::clamp(0.0, d.lower, d.upper);
  // The copies of a vector declaration differ from the first in the index of their name only.
  const char* kind = d.derivative ? "variable differential:" : "variable:";
  std::string_view base;
  long first = 0;
  if (s.copies > 1 && !d.derivative && SplitElement(d.name, &base, &first)) {
    CheckNewRun(base, first, first + s.copies - 1, kind, d.value);
    out->emplace_back(d).copies = s.copies;
    return;
  }
  for (long k = 0; k < s.copies; ++k) {
    VariableDecl& copy = out->emplace_back(d);
    if (k > 0) copy.name = ShiftIndex(d.name, k);
    Declared& entry = CheckNewName(copy.name, kind, copy.derivative);
    if (!copy.derivative) entry = {kind, copy.value, true};
  }
}

void ModelFileReader::ParseBound(std::string_view part, const Statement& s, VariableDecl* d) {
  std::vector<Relation> rel = FindRelations(part);
  if (rel.size() != 1 || rel[0].pos != 0 || rel[0].kind == '=') {
    FailStatement("model error: bound must be written as > value or < value", s);
  }
  std::string_view value = Trim(part.substr(rel[0].len));
  if (value.empty()) FailStatement("model error: bound must be written as > value or < value", s);
  SetBound(rel[0].kind, EvaluateConstantText(value, s.line), d);
}

// intermediate -> name '=' expression
void ModelFileReader::ParseIntermediate(const Statement& s) {
  std::vector<Relation> rel = FindRelations(s.text);
  if (rel.empty() || rel[0].kind != '=' || rel[0].len != 1) {
    Fatal({"Error: Intermediate variable with no equality (=) expression",
           fmt::format("line number: {}", s.line), "line string: " + s.text});
  }
  IntermediateDecl d;
  d.name = CheckedName(s.text.substr(0, rel[0].pos), s);
  d.text = std::string(Trim(s.text.substr(rel[0].pos + 1)));
  if (d.text.empty()) compiler_->CheckSyntax(d.text);
  d.line = s.line;
  CheckNewName(d.name, "intermediate:", false);
  model_.intermediates.push_back(std::move(d));
}

// equation -> expr relation expr | expr rel expr rel expr | ('minimize' | 'maximize') expr
void ModelFileReader::ParseEquation(const Statement& s, int number) {
  EquationDecl e;
  e.text = s.text;
  e.line = s.line;
  e.statement = number;
  // Each side is syntax-checked here so that a fault is shown in the statement as written;
  // the residual text the compiler sees later is built from the sides.
  auto side = [&](size_t from, size_t to) {
    std::string_view raw = std::string_view(s.text).substr(from, to - from);
    compiler_->CheckSyntax(raw, s.text, static_cast<int>(from));
    return std::string(Trim(raw));
  };
  std::string word = ToLower(s.text.substr(0, s.text.find_first_of(" \t(")));
  if (word == "minimize" || word == "maximize") {
    std::string body = side(word.size(), s.text.size());
    if (!FindRelations(body).empty()) {
      FailStatement("model error: an objective row has no equality or inequality", s);
    }
    e.objective = true;
    e.residual = word == "minimize" ? body : "-(" + body + ")";
    e.lower = -kNoBound;
    e.upper = kNoBound;
    model_.equations.push_back(std::move(e));
    return;
  }
  std::vector<Relation> rel = FindRelations(s.text);
  if (rel.empty()) {
    Fatal({"Equation without an equality (=) or inequality (>,<)",
           fmt::format("line number: {}", s.line), "line string: " + s.text});
  }
  if (rel.size() > 2) FailStatement("model error: more than two relations in one equation", s);
  std::string lhs = side(0, rel[0].pos);
  std::string rhs = side(rel[0].pos + rel[0].len, rel.size() > 1 ? rel[1].pos : s.text.size());
  if (rel.size() == 1) {
    e.residual = rhs == "0" ? lhs : "(" + lhs + ")-(" + rhs + ")";
    e.type = rel[0].kind == '=' ? 1 : rel[0].kind == '>' ? 2 : 3;
    e.lower = e.type == 3 ? -kNoBound : 0;
    e.upper = e.type == 2 ? kNoBound : 0;
    model_.equations.push_back(std::move(e));
    return;
  }
  if (rel[0].kind == '=' || rel[1].kind == '=') {
    FailStatement("model error: an equality (=) cannot be combined with an inequality", s);
  }
  if (rel[0].kind != rel[1].kind) {
    Fatal({rel[0].kind == '>' ? "invalid inequalities: z > x < y"
                              : "invalid inequalities: z < x > y",
           fmt::format("line number: {}", s.line), "line string: " + s.text},
          "STOPPING . . .");
  }
  // lo < mid < hi or hi > mid > lo: two records, mid - lo >= 0 and mid - hi <= 0.
  std::string third = side(rel[1].pos + rel[1].len, s.text.size());
  const std::string& lo = rel[0].kind == '<' ? lhs : third;
  const std::string& hi = rel[0].kind == '<' ? third : lhs;
  EquationDecl upper_row = e;
  e.residual = "(" + rhs + ")-(" + lo + ")";
  e.type = 2;
  e.lower = 0;
  e.upper = kNoBound;
  upper_row.residual = "(" + rhs + ")-(" + hi + ")";
  upper_row.type = 3;
  upper_row.lower = -kNoBound;
  upper_row.upper = 0;
  model_.equations.push_back(std::move(e));
  model_.equations.push_back(std::move(upper_row));
}

namespace {

// The indices of `residual` (the copy-0 text) placed where it shows them, when it shows
// those of `ranges` at copy 0 and in their order: copy k is then WriteCopy(residual, placed,
// k). Empty when it does not (a double inequality).
std::vector<IndexRange> PlaceIndices(std::string_view residual,
                                     const std::vector<IndexRange>& ranges) {
  std::vector<IndexRange> placed;
  size_t pos = 0;
  for (IndexRange r : ranges) {
    r.open = residual.find('[', pos);
    if (r.open == std::string_view::npos) return {};
    r.close = residual.find(']', r.open);
    if (r.close == std::string_view::npos) return {};
    if (residual.substr(r.open + 1, r.close - r.open - 1) != std::to_string(r.first)) return {};
    placed.push_back(r);
    pos = r.close + 1;
  }
  if (residual.find('[', pos) != std::string_view::npos) return {};
  return placed;
}

}  // namespace

// The first copy is parsed (and checked) as written; the others differ from it only in their
// indices, so the first copy's declaration stands for them all, their texts made on demand
// from the statement and the first copy's residual with the indices moved on. A statement
// whose residual does not show its indices in order (a double inequality) has every copy
// parsed.
void ModelFileReader::ParseEquationCopies(const Statement& s, int* number) {
  const std::vector<IndexRange>& ranges = *s.ranges;
  const size_t first = model_.equations.size();
  ParseEquation({s.line, WriteCopy(s.text, ranges, 0)}, ++*number);
  if (model_.equations.size() == first + 1) {
    EquationDecl& head = model_.equations[first];
    std::vector<IndexRange> placed = PlaceIndices(head.residual, ranges);
    if (!placed.empty()) {
      head.copied = std::make_shared<const CopiedStatement>(
          CopiedStatement{s.text, ranges, head.residual, std::move(placed)});
      head.copies = s.copies;
      *number += static_cast<int>(s.copies - 1);
      return;
    }
  }
  for (long k = 1; k < s.copies; ++k)
    ParseEquation({s.line, WriteCopy(s.text, ranges, k)}, ++*number);
}

// connection -> name '=' (name | number | 'fixed' | 'calculated')
void ModelFileReader::ParseConnection(const Statement& s) {
  std::vector<Relation> rel = FindRelations(s.text);
  if (rel.size() != 1 || rel[0].kind != '=' || rel[0].len != 1) {
    FailStatement("model error: a connection is written a = b", s);
  }
  ConnectionDecl c;
  c.a = ToLower(Trim(s.text.substr(0, rel[0].pos)));
  c.b = ToLower(Trim(s.text.substr(rel[0].pos + 1)));
  if (c.a.empty() || c.b.empty() || c.a.size() > static_cast<size_t>(kMaxNameLength) ||
      c.b.size() > static_cast<size_t>(kMaxNameLength)) {
    FailStatement("model error: a connection side is empty or longer than 100 characters", s);
  }
  c.number = static_cast<int>(model_.connections.size()) + 1;
  c.line = s.line;
  model_.connections.push_back(std::move(c));
}

void ModelFileReader::ParseObject(const Statement& s) {
  model_.objects.push_back(ParseObjectStatement(s));
}

// object -> name '=' type [ '(' arguments ')' ]
ObjectDeclText ParseObjectStatement(const Statement& s) {
  size_t eq = s.text.find('=');
  if (eq == std::string::npos) Fatal({"Problem with object input:", s.text, ")"});
  ObjectDeclText o;
  o.name = CheckedName(s.text.substr(0, eq), s);
  std::string_view rest = Trim(std::string_view(s.text).substr(eq + 1));
  size_t open = rest.find('(');
  std::string_view type = Trim(rest.substr(0, open));
  if (open != std::string_view::npos) {
    if (rest.back() != ')') Fatal({"Problem with object input:", s.text, ")"});
    o.arguments = std::string(Trim(rest.substr(open + 1, rest.size() - open - 2)));
  }
  o.type = ToLower(type);
  bool known = false;
  for (std::string_view k : ObjectTypeKeywords()) known = known || k == o.type;
  if (!known) {
    Fatal({"Model object type error", "Original Object: " + std::string(type),
           "Lookup Object: " + o.type, fmt::format("line number: {}", s.line)},
          "STOPPING. . .");
  }
  o.line = s.line;
  return o;
}

}  // namespace kx::lang
