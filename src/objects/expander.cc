// The one expander of object declarations: arguments, data files, placeholders and member
// names; every object type is data in its family's table.
#include "objects/expander.h"

#include <cctype>
#include <cmath>
#include <map>
#include <set>

#include "base/report.h"
#include "base/text.h"
#include "lang/vector_index.h"
#include "objects/data_file.h"

namespace kx::objects {
namespace {

bool IsNameStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }
bool IsNameChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '.';
}

// Splits the argument text at commas outside parentheses.
std::vector<std::string> SplitArguments(std::string_view s) {
  std::vector<std::string> out;
  if (Trim(s).empty()) return out;
  int depth = 0;
  size_t start = 0;
  for (size_t i = 0; i <= s.size(); ++i) {
    if (i < s.size() && (s[i] == '(' || s[i] == '[')) ++depth;
    if (i < s.size() && (s[i] == ')' || s[i] == ']')) --depth;
    if (i == s.size() || (s[i] == ',' && depth == 0)) {
      out.emplace_back(Trim(s.substr(start, i - start)));
      start = i + 1;
    }
  }
  return out;
}

// A number as model text: negative values in parentheses, so `x - {x0}` stays well formed.
std::string NumberText(double v) {
  std::string s = FormatReal(v);
  return v < 0 ? "(" + s + ")" : s;
}

const MemberSpec* FindMember(const ObjectType& type, std::string_view name) {
  for (const MemberSpec& m : type.members)
    if (name == m.name) return &m;
  return nullptr;
}

const ArgSpec* FindArgument(const ObjectType& type, std::string_view name) {
  for (const ArgSpec& a : type.arguments)
    if (name == a.name) return &a;
  return nullptr;
}

// The names an argument may have: the entry's arguments, and with `parameters` its scalar
// parameters too.
std::string ArgumentNames(const ObjectType& type, bool parameters = true) {
  std::string names;
  for (const ArgSpec& a : type.arguments)
    names += (names.empty() ? "" : ", ") + std::string(a.name);
  for (const MemberSpec& m : type.members) {
    if (!parameters) break;
    if (m.kind == MemberKind::kParameter && m.size[0] == '\0')
      names += (names.empty() ? "" : ", ") + std::string(m.name);
  }
  return names.empty() ? "none" : names;
}

// True when a `when` condition holds for the instance.
bool Applies(const char* when, const ObjectInstance& o) {
  if (when[0] == '\0') return true;
  const bool negate = when[0] == '!';
  auto it = o.numbers.find(when + (negate ? 1 : 0));
  const bool set = it != o.numbers.end() && it->second != 0;
  return negate ? !set : set;
}

int Size(const ObjectInstance& o, const char* key) {
  auto it = o.numbers.find(key);
  if (it == o.numbers.end()) FailObject(o, fmt::format("size {} is not known", key));
  if (it->second < 1 || it->second != std::floor(it->second) || it->second > 1e7) {
    FailObject(o, fmt::format("size {} = {} must be a whole number of at least 1", key,
                              FormatReal(it->second)));
  }
  return static_cast<int>(it->second);
}

const Table& TableOf(const ObjectInstance& o, const std::string& key) {
  auto it = o.tables.find(key);
  if (it == o.tables.end()) FailObject(o, "no data for " + key);
  return it->second;
}

// Row `row` (1-based) of table M times member vector v, as text with bare member names.
std::string DotRow(const ObjectInstance& o, const std::string& matrix, const std::string& v,
                   int row) {
  const Table& t = TableOf(o, matrix);
  if (row < 1 || row > t.rows) FailObject(o, fmt::format("{} has no row {}", t.file, row));
  std::string out;
  for (int c = 0; c < t.cols; ++c) {
    const double a = t.At(row - 1, c);
    if (a == 0) continue;
    const std::string term = fmt::format("{}*{}[{}]", FormatReal(std::fabs(a)), v, c + 1);
    if (out.empty()) {
      out = a < 0 ? "-" + term : term;
    } else {
      out += (a < 0 ? " - " : " + ") + term;
    }
  }
  return out.empty() ? "0" : "(" + out + ")";
}

int IndexValue(std::string_view text, int row) {
  text = Trim(text);
  if (text == "i") return row;
  return static_cast<int>(ParseNumber(text).value_or(0));
}

// {key[r]} or {key[r,c]}: a prepared text "key[r]" first, else a table element.
std::string IndexedPlaceholder(const ObjectInstance& o, const std::string& key, int row) {
  const size_t open = key.find('[');
  const std::string base = key.substr(0, open);
  const std::string inner = key.substr(open + 1, key.size() - open - 2);
  const size_t comma = inner.find(',');
  const int r = IndexValue(inner.substr(0, comma), row);
  if (comma == std::string::npos) {
    auto it = o.texts.find(fmt::format("{}[{}]", base, r));
    if (it != o.texts.end()) return it->second;
  }
  const Table& t = TableOf(o, base);
  const int c = comma == std::string::npos ? 1 : IndexValue(inner.substr(comma + 1), row);
  // A vector may be written as one row or one column.
  const bool as_row = comma == std::string::npos && t.rows == 1;
  const int rr = as_row ? 1 : r, cc = as_row ? r : c;
  if (rr < 1 || rr > t.rows || cc < 1 || cc > t.cols) {
    FailObject(o, fmt::format("{} has no element ({}, {})", t.file, rr, cc));
  }
  return NumberText(t.At(rr - 1, cc - 1));
}

std::string Placeholder(const ObjectInstance& o, const std::string& key, int row) {
  if (key == "i") return std::to_string(row);
  if (key == "obj") return o.name;
  if (size_t star = key.find('*'); star != std::string::npos)
    return DotRow(o, key.substr(0, star), key.substr(star + 1), row);
  if (key.find('[') != std::string::npos) return IndexedPlaceholder(o, key, row);
  if (auto it = o.texts.find(key); it != o.texts.end()) return it->second;
  if (auto it = o.numbers.find(key); it != o.numbers.end()) return NumberText(it->second);
  FailObject(o, "the object table names an unknown placeholder {" + key + "}");
}

std::string Substitute(const std::string& text, const ObjectInstance& o, int row) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '{') {
      out += text[i];
      continue;
    }
    const size_t close = text.find('}', i);
    out += Placeholder(o, text.substr(i + 1, close - i - 1), row);
    i = close;
  }
  return out;
}

// Skips a number starting at i (digits, '.', an exponent); returns the position after it.
size_t SkipNumber(const std::string& s, size_t i) {
  while (i < s.size() && (std::isdigit(static_cast<unsigned char>(s[i])) || s[i] == '.')) ++i;
  if (i < s.size() && std::strchr("eEdD", s[i]) != nullptr) {
    size_t j = i + 1;
    if (j < s.size() && (s[j] == '+' || s[j] == '-')) ++j;
    if (j < s.size() && std::isdigit(static_cast<unsigned char>(s[j]))) {
      i = j;
      while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) ++i;
    }
  }
  return i;
}

// Writes `obj.` before every bare member name of the text.
std::string Qualify(const std::string& text, const ObjectInstance& o, const ObjectType& type) {
  std::string out;
  out.reserve(text.size() + 32);
  size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (std::isdigit(static_cast<unsigned char>(c)) ||
        (c == '.' && i + 1 < text.size() &&
         std::isdigit(static_cast<unsigned char>(text[i + 1])))) {
      const size_t end = SkipNumber(text, i);
      out.append(text, i, end - i);
      i = end;
      continue;
    }
    if (!IsNameStart(c)) {
      out += c;
      ++i;
      continue;
    }
    size_t end = i;
    while (end < text.size() && IsNameChar(text[end])) ++end;
    const std::string name = text.substr(i, end - i);
    size_t next = end;
    while (next < text.size() && text[next] == ' ') ++next;
    const bool function = next < text.size() && text[next] == '(';
    if (!function && FindMember(type, name) != nullptr) out += o.name + ".";
    out += name;
    i = end;
  }
  return out;
}

bool DependsOnRow(const char* text) {
  std::string_view t = text;
  return t.find("{i}") != std::string_view::npos || t.find("[i") != std::string_view::npos ||
         (t.find('*') != std::string_view::npos && t.find('{') != std::string_view::npos);
}

void ReadFileArgument(ObjectInstance* o, const ArgSpec& a, const std::string& file,
                      const std::string& work_dir) {
  const std::string path = file.front() == '/' ? file : work_dir + "/" + file;
  Table t;
  bool missing = false;
  std::string error;
  if (ReadTable(path, file, &t, &missing, &error)) {
    o->tables[a.name] = std::move(t);
    return;
  }
  if (missing) {
    Fatal({"Error: File " + file + " not available.",
           fmt::format("Object {} ({}, line {}): argument {} names a file that cannot be read",
                       o->name, o->type, o->line, a.name)});
  }
  FailObject(*o, error);
}

void SetArgument(ObjectInstance* o, const ObjectType& type, const std::string& key,
                 const std::string& value, const std::function<double(std::string_view)>& eval,
                 const std::string& work_dir) {
  if (value.empty()) FailObject(*o, "argument " + key + " has no value");
  const ArgSpec* a = FindArgument(type, key);
  if (a != nullptr && a->kind == ArgKind::kFile) {
    ReadFileArgument(o, *a, value, work_dir);
    return;
  }
  const double v = eval(value);
  if (a != nullptr && a->kind == ArgKind::kInteger && v != std::floor(v)) {
    FailObject(*o, fmt::format("argument {} = {} must be a whole number", key, value));
  }
  o->numbers[key] = v;
}

// name = value pairs of the declaration, positional ones named after the entry's arguments.
std::vector<std::pair<std::string, std::string>> NameArguments(const ObjectInstance& o,
                                                               const ObjectType& type,
                                                               const std::string& text) {
  std::vector<std::pair<std::string, std::string>> named;
  std::vector<std::string> parts = SplitArguments(text);
  size_t positional = 0;
  for (const std::string& p : parts) {
    if (p.empty()) FailObject(o, "an argument is empty: " + text);
    const size_t eq = p.find('=');
    if (eq == std::string::npos) {
      if (positional >= type.arguments.size()) {
        FailObject(o, fmt::format("{} takes {} positional argument{} ({}), {} given", o.type,
                                  type.arguments.size(), type.arguments.size() == 1 ? "" : "s",
                                  ArgumentNames(type, false), parts.size()));
      }
      named.emplace_back(type.arguments[positional++].name, p);
      continue;
    }
    std::string key = ToLower(Trim(std::string_view(p).substr(0, eq)));
    const MemberSpec* m = FindMember(type, key);
    const bool parameter = m != nullptr && m->kind == MemberKind::kParameter && m->size[0] == '\0';
    if (FindArgument(type, key) == nullptr && !parameter) {
      FailObject(
          o, fmt::format("unknown argument {}; {} takes: {}", key, o.type, ArgumentNames(type)));
    }
    named.emplace_back(key, std::string(Trim(std::string_view(p).substr(eq + 1))));
  }
  std::set<std::string> seen;
  for (const auto& [key, value] : named) {
    if (!seen.insert(key).second) FailObject(o, "argument " + key + " is given twice");
  }
  return named;
}

void ApplyDefaults(ObjectInstance* o, const ObjectType& type,
                   const std::function<double(std::string_view)>& eval) {
  for (const ArgSpec& a : type.arguments) {
    if (o->numbers.count(a.name) > 0 || o->tables.count(a.name) > 0) continue;
    if (a.fallback == nullptr) FailObject(*o, std::string("argument ") + a.name + " is missing");
    if (a.kind != ArgKind::kFile && a.fallback[0] != '\0') o->numbers[a.name] = eval(a.fallback);
  }
  for (const MemberSpec& m : type.members) {
    if (m.kind != MemberKind::kParameter || m.size[0] != '\0' || o->numbers.count(m.name) > 0)
      continue;
    if (std::optional<double> v = ParseNumber(m.value)) o->numbers[m.name] = *v;
  }
}

std::string Bounds(const MemberSpec& m, const ObjectInstance& o) {
  std::string out;
  if (m.lower[0] != '\0') out += ", >= " + Substitute(m.lower, o, 0);
  if (m.upper[0] != '\0') out += ", <= " + Substitute(m.upper, o, 0);
  return out;
}

// The declaration text of one member (all elements of a vector, or element `row`).
std::string MemberText(const MemberSpec& m, const ObjectInstance& o, const ObjectType& type,
                       const std::string& index, int row) {
  std::string value = m.value;
  if (m.kind == MemberKind::kParameter && m.size[0] == '\0') {
    auto it = o.numbers.find(m.name);
    if (it != o.numbers.end()) value = FormatReal(it->second);
  }
  std::string head = o.name + "." + m.name + index;
  if (m.kind == MemberKind::kIntermediate)
    return head + " = " + Qualify(Substitute(value, o, row), o, type);
  std::string text = head;
  if (!value.empty()) text += " = " + Qualify(Substitute(value, o, row), o, type);
  return text + Bounds(m, o);
}

void WriteMember(const MemberSpec& m, const ObjectInstance& o, const ObjectType& type,
                 ObjectStatements* out) {
  std::vector<lang::Statement>* target = m.kind == MemberKind::kParameter  ? &out->parameters
                                         : m.kind == MemberKind::kVariable ? &out->variables
                                                                           : &out->intermediates;
  if (m.size[0] == '\0') {
    target->push_back({o.line, MemberText(m, o, type, "", 0)});
    return;
  }
  const int n = Size(o, m.size);
  if (!DependsOnRow(m.value)) {
    target->push_back({o.line, MemberText(m, o, type, fmt::format("[1:{}]", n), 0)});
    return;
  }
  for (int i = 1; i <= n; ++i)
    target->push_back({o.line, MemberText(m, o, type, fmt::format("[{}]", i), i)});
}

void WriteLines(const std::vector<EquationSpec>& specs, const ObjectInstance& o,
                const ObjectType& type, std::vector<lang::Statement>* out) {
  for (const EquationSpec& e : specs) {
    if (!Applies(e.when, o)) continue;
    if (e.over[0] == '\0') {
      out->push_back({o.line, InstantiateText(e.text, o, type, 0)});
      continue;
    }
    const int n = Size(o, e.over);
    for (int i = 1; i <= n; ++i) out->push_back({o.line, InstantiateText(e.text, o, type, i)});
  }
}

std::vector<std::string> ReadCompounds(lang::ModelFileReader* reader) {
  std::vector<std::string> names;
  for (const lang::Statement& s : reader->SectionStatements(lang::Section::kCompounds)) {
    for (const std::string& c : Split(s.text, ',')) {
      std::string name = ToLower(Trim(c));
      if (!name.empty()) names.push_back(name);
    }
  }
  return names;
}

// One statement per object: a vector declaration `p[1:3] = lag` gives p[1], p[2], p[3].
std::vector<lang::Statement> ExpandObjectVectors(const std::vector<lang::Statement>& in,
                                                 lang::ModelFileReader* reader) {
  std::vector<lang::Statement> out;
  for (const lang::Statement& s : in) {
    const std::string head = s.text.substr(0, s.text.find('='));
    if (!lang::HasIndex(head)) {
      out.push_back(s);
      continue;
    }
    auto evaluate = [&](std::string_view t) { return reader->EvaluateConstant(t, s.line); };
    std::vector<lang::IndexRange> indices = lang::FindIndices(head, s.line, evaluate);
    const long copies = lang::CountCopies(indices, 1000000);
    const std::string rest = s.text.substr(head.size());
    for (long k = 0; k < copies; ++k)
      out.push_back({s.line, lang::WriteCopy(head, indices, k) + rest});
  }
  return out;
}

void Echo(const ObjectStatements& st) {
  for (const auto* part :
       {&st.parameters, &st.variables, &st.intermediates, &st.equations, &st.connections}) {
    for (const lang::Statement& s : *part) Say("  object statement: " + s.text);
  }
}

void Append(std::vector<lang::Statement>* to, std::vector<lang::Statement>&& from) {
  to->insert(to->end(), std::make_move_iterator(from.begin()), std::make_move_iterator(from.end()));
}

void AppendAll(ObjectStatements* to, ObjectStatements&& from) {
  Append(&to->parameters, std::move(from.parameters));
  Append(&to->variables, std::move(from.variables));
  Append(&to->intermediates, std::move(from.intermediates));
  Append(&to->equations, std::move(from.equations));
  Append(&to->connections, std::move(from.connections));
}

// Members after the user's declarations, object intermediates before the user's (they read
// only object members), equations and connections after the user's.
void AddToSections(ObjectStatements&& all, lang::ModelFileReader* reader) {
  using lang::Section;
  Append(&reader->SectionStatements(Section::kParameters), std::move(all.parameters));
  Append(&reader->SectionStatements(Section::kVariables), std::move(all.variables));
  std::vector<lang::Statement>& intermediates = reader->SectionStatements(Section::kIntermediates);
  Append(&all.intermediates, std::move(intermediates));
  intermediates = std::move(all.intermediates);
  Append(&reader->SectionStatements(Section::kEquations), std::move(all.equations));
  Append(&reader->SectionStatements(Section::kConnections), std::move(all.connections));
}

[[noreturn]] void FailDeclaration(const lang::ObjectDeclText& decl, const std::string& what) {
  Fatal({"Problem with object input:",
         fmt::format("Object {} ({}, line {}): {}", decl.name, decl.type, decl.line, what)},
        "STOPPING. . .");
}

// The entry of a declaration whose name is new and well formed; stops otherwise.
const ObjectType& CheckDeclaration(const lang::ObjectDeclText& decl,
                                   std::map<std::string, int>* declared) {
  if (auto [it, fresh] = declared->emplace(decl.name, decl.line); !fresh)
    FailDeclaration(decl, fmt::format("already declared on line {}", it->second));
  if (decl.name.find('.') != std::string::npos)
    FailDeclaration(decl, "an object name cannot contain '.'");
  const ObjectType* type = FindObjectType(decl.type);
  if (type == nullptr) {
    Fatal({fmt::format("Object {} of type {} is not available yet (line {})", decl.name, decl.type,
                       decl.line),
           "The object library has no entry for this type; declare its equations directly"});
  }
  return *type;
}

// The data files an instance read, as paths (as ReadFileArgument opened them).
void NoteFilesRead(const ObjectInstance& o, const ExpandOptions& options) {
  for (const auto& [argument, table] : o.tables) {
    const std::string& f = table.file;
    options.files_read->push_back(f.front() == '/' ? f : options.work_dir + "/" + f);
  }
}

}  // namespace

[[noreturn]] void FailObject(const ObjectInstance& o, const std::string& what) {
  Fatal({"Problem with object input:",
         fmt::format("Object {} ({}, line {}): {}", o.name, o.type, o.line, what)},
        "STOPPING. . .");
}

std::string InstantiateText(const std::string& text, const ObjectInstance& o,
                            const ObjectType& type, int row) {
  return Qualify(Substitute(text, o, row), o, type);
}

ObjectInstance MakeInstance(const lang::ObjectDeclText& decl, const ObjectType& type,
                            const std::vector<std::string>& compounds,
                            const std::function<double(std::string_view)>& evaluate,
                            const std::string& work_dir) {
  ObjectInstance o;
  o.name = decl.name;
  o.type = decl.type;
  o.line = decl.line;
  o.compounds = compounds;
  o.numbers["nc"] = static_cast<double>(compounds.size());
  for (const auto& [key, value] : NameArguments(o, type, decl.arguments))
    SetArgument(&o, type, key, value, evaluate, work_dir);
  ApplyDefaults(&o, type, evaluate);
  if (type.prepare != nullptr) type.prepare(&o);
  return o;
}

ObjectStatements WriteStatements(const ObjectInstance& o, const ObjectType& type) {
  ObjectStatements out;
  for (const MemberSpec& m : type.members) {
    if (Applies(m.when, o)) WriteMember(m, o, type, &out);
  }
  WriteLines(type.equations, o, type, &out.equations);
  WriteLines(type.connections, o, type, &out.connections);
  return out;
}

void ExpandObjects(lang::ModelFileReader* reader, const ExpandOptions& options) {
  std::vector<lang::Statement>& objects = reader->SectionStatements(lang::Section::kObjects);
  if (objects.empty()) return;
  objects = ExpandObjectVectors(objects, reader);
  const std::vector<std::string> compounds = ReadCompounds(reader);
  ObjectStatements all;
  std::map<std::string, int> declared;  // object name -> line
  for (const lang::Statement& s : objects) {
    const lang::ObjectDeclText decl = lang::ParseObjectStatement(s);
    const ObjectType& type = CheckDeclaration(decl, &declared);
    auto evaluate = [&](std::string_view t) { return reader->EvaluateConstant(t, s.line); };
    const ObjectInstance instance = MakeInstance(decl, type, compounds, evaluate, options.work_dir);
    if (options.files_read != nullptr) NoteFilesRead(instance, options);
    ObjectStatements st = WriteStatements(instance, type);
    if (options.diaglevel >= 4) Echo(st);
    AppendAll(&all, std::move(st));
  }
  AddToSections(std::move(all), reader);
}

}  // namespace kx::objects
