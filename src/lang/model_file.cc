// Reading the model file: physical lines, continuations, comments, section keywords, embedded
// File blocks, constants and the expansion of vector indices. Statement parsing is in
// model_file_parse.cc.
#include "lang/model_file.h"

#include <fstream>
#include <sstream>

#include "base/file_writer.h"
#include "base/report.h"
#include "base/text.h"
#include "lang/vector_index.h"

namespace kx::lang {
namespace {

struct SectionKeyword {
  const char* open;
  const char* close;
  Section section;
};

constexpr SectionKeyword kSectionKeywords[] = {
    {"constants", "endconstants", Section::kConstants},
    {"parameters", "endparameters", Section::kParameters},
    {"variables", "endvariables", Section::kVariables},
    {"intermediates", "endintermediates", Section::kIntermediates},
    {"equations", "endequations", Section::kEquations},
    {"connections", "endconnections", Section::kConnections},
    {"objects", "endobjects", Section::kObjects},
    {"compounds", "endcompounds", Section::kCompounds},
};

constexpr const char* kFileExtensions[] = {"csv", "txt", "dat", "dbs", "info", "t0", "opt",
                                           "json"};

bool IsCommentLine(std::string_view s) {
  if (s.empty()) return true;
  unsigned char c = static_cast<unsigned char>(s[0]);
  return c == '!' || c == '#' || c == '%' || c == 0xA1;
}

// The statement without blanks and in lower case when it is short enough to be a section
// keyword ("endintermediates" is the longest); empty otherwise, so that the many statements of
// a large model are not copied to find that out.
std::string KeywordKey(std::string_view text) {
  constexpr size_t kLongestKeyword = 16;
  std::string key;
  for (char c : text) {
    if (c == ' ' || c == '\t' || c == '\r') continue;
    if (key.size() == kLongestKeyword) return {};
    key += LowerAscii(c);
  }
  return key;
}

// Lower-case first word of a line and the trimmed rest.
std::pair<std::string, std::string_view> FirstWord(std::string_view s) {
  size_t end = s.find_first_of(" \t");
  if (end == std::string_view::npos) return {ToLower(s), {}};
  return {ToLower(s.substr(0, end)), Trim(s.substr(end))};
}

void CheckColons(const Statement& s) {
  auto fail = [&](const std::string& what) {
    Fatal({what, fmt::format("line number: {}", s.line), "line string: " + s.text});
  };
  if (s.text.front() == ':') fail("model error: colon character at start of line");
  if (s.text.back() == ':') fail("model error: colon character at end of line");
  int run = 0;
  for (char c : s.text) {
    run = (c == ':') ? run + 1 : 0;
    if (run > kMaxConsecutiveColons) {
      fail(fmt::format("model error: more than {} consecutive colon characters not supported",
                       kMaxConsecutiveColons));
    }
  }
}

void FailLineLength(int line_number) {
  Fatal({fmt::format("Error with line number: {}", line_number),
         fmt::format("ZPM model error: string >{} characters", kMaxLineLength),
         "Consider breaking up the line into multiple equations",
         "The may also be due to only using newline character CR",
         "  instead of CR LF (for Windows) or LF (for MacOS/Linux)",
         "To fix this problem, save ZPM file with appropriate newline characters"});
}

}  // namespace

const std::vector<std::string_view>& ObjectTypeKeywords() {
  static const std::vector<std::string_view> kTypes = {
      "arx",       "axb",       "cspline",      "abs",        "feed",       "feedback",
      "feedm",     "flash",     "flash_column", "max",        "min",        "sign",
      "sum",       "info",      "lag",          "lookup",     "lti",        "mass",
      "massflow",  "massflows", "molarflows",   "mixer",      "periodic",   "pid",
      "poly_reactor", "pump",   "pwl",          "qobj",       "reactor",    "recovery",
      "splitter",  "stage_1",   "stage_2",      "stream_lag", "table",      "thermo",
      "vessel",    "vesselm"};
  return kTypes;
}

ModelFileReader::ModelFileReader(Compiler* compiler, ReaderOptions options)
    : compiler_(compiler), options_(std::move(options)) {}

void ModelFileReader::Read(const std::string& path) {
  Say("Parsing model file " + path);
  std::ifstream in(path, std::ios::binary);
  if (!in) Fatal({"Error: File " + path + " not available."});
  std::stringstream buffer;
  buffer << in.rdbuf();
  ReadPhysicalLines(buffer.str());
}

void ModelFileReader::ReadText(std::string_view text) { ReadPhysicalLines(text); }

// file -> { line '\n' }; line -> text ['&' (continued on the next line)]
void ModelFileReader::ReadPhysicalLines(std::string_view text) {
  std::string joined;
  int joined_line = 0;
  int number = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view raw = text.substr(pos, end - pos);
    pos = end + 1;
    ++number;
    if (!raw.empty() && raw.back() == '\r') raw.remove_suffix(1);
    if (raw.size() > static_cast<size_t>(kMaxLineLength)) FailLineLength(number);
    if (in_file_) {
      if (ToLower(RemoveBlanks(raw)) == "endfile") {
        FinishFileBlock();
      } else {
        file_body_.append(raw);
        file_body_ += '\n';
      }
      continue;
    }
    std::string_view line = Trim(raw);
    if (IsCommentLine(line)) continue;
    size_t bang = line.find('!');
    if (bang != std::string_view::npos) line = Trim(line.substr(0, bang));
    if (line.empty()) continue;
    bool continued = line.back() == '&';
    if (continued) line.remove_suffix(1);
    if (joined.empty()) joined_line = number;
    if (joined.size() + line.size() > static_cast<size_t>(kMaxLineLength)) {
      Fatal({fmt::format("ZPM model error: equation continuation > {} characters",
                         kMaxLineLength),
             "Consider breaking up the line into multiple equations"});
    }
    joined.append(line);
    if (continued) continue;
    std::string_view t = Trim(joined);
    if (!t.empty()) HandleStatement({joined_line, std::string(t)});
    joined.clear();
  }
  if (!Trim(joined).empty()) HandleStatement({joined_line, std::string(Trim(joined))});
  if (in_file_) {
    Fatal({"Need \"End File\" statement to close file write", "  for file: " + file_name_});
  }
}

void ModelFileReader::HandleStatement(const Statement& s) {
  CheckColons(s);
  if (SwitchSection(s)) return;
  auto [word, rest] = FirstWord(s.text);
  if (word == "file" && (rest.empty() || rest.front() != '=')) {
    StartFileBlock(s);
    return;
  }
  if (section_ == Section::kNone) {
    Fatal({"model error: statement outside of a section", fmt::format("line number: {}", s.line),
           "line string: " + s.text});
  }
  statements_[static_cast<int>(section_)].push_back(s);
}

// section-keyword -> 'model' [name] | 'endmodel' | open | close   (blanks removed, lower case)
bool ModelFileReader::SwitchSection(const Statement& s) {
  const std::string key = KeywordKey(s.text);
  auto [word, rest] = FirstWord(s.text);
  if ((word == "model" && (rest.empty() || rest.front() != '=')) || key == "model") {
    model_.name = std::string(rest);
    section_ = Section::kNone;
    return true;
  }
  if (key == "endmodel") {
    section_ = Section::kNone;
    return true;
  }
  for (const auto& k : kSectionKeywords) {
    if (key == k.open) {
      section_ = k.section;
      return true;
    }
    if (key == k.close) {
      section_ = Section::kNone;
      return true;
    }
  }
  return false;
}

// file-block -> 'File' name { line } 'End File'
void ModelFileReader::StartFileBlock(const Statement& s) {
  std::string name(FirstWord(s.text).second);
  if (name.empty()) {
    Fatal({fmt::format("Unspecified file name at line {}", s.line)});
  }
  if (name.size() <= 4) Fatal({"Invalid file write due to filename length <=4: " + name});
  if (!IsPlainFileName(name) || name.find("..") != std::string::npos) {
    Fatal({"Invalid file name (files are written only in the working directory): " + name});
  }
  size_t dot = name.rfind('.');
  std::string ext = dot == std::string::npos ? "" : ToLower(name.substr(dot + 1));
  bool ok = false;
  for (const char* e : kFileExtensions) ok = ok || ext == e;
  if (!ok) Fatal({"Invalid file extension: " + name});
  file_name_ = name;
  file_body_.clear();
  file_line_ = s.line;
  in_file_ = true;
}

void ModelFileReader::FinishFileBlock() {
  in_file_ = false;
  std::string path = options_.output_dir + "/" + file_name_;
  // A File block names a plain file of the working directory: a symbolic link there is
  // refused, never followed, and a failed write stops here with the reason.
  if (!WriteFileAtomically(path, file_body_, WriteMode::kPlainFileName))
    Fatal({"Error: unable to write file " + file_name_ + ": " + LastWriteError()});
  model_.files_written.push_back(file_name_);
}

const double* ModelFileReader::FindConstant(std::string_view name) const {
  auto it = constant_values_.find(std::string(name));
  return it == constant_values_.end() ? nullptr : &it->second;
}

// Evaluates a constant expression: names must be constants declared before.
double ModelFileReader::EvaluateConstantText(std::string_view text, int line) {
  if (auto n = ParseNumber(text)) return *n;
  Resolver resolve = [&](std::string_view name, bool derivative) {
    Symbol sym;
    const double* v = derivative ? nullptr : FindConstant(name);
    if (!v) {
      Fatal({fmt::format("Error evaluating constant on Line {}", line), std::string(text),
             "Unknown constant: " + std::string(name)});
    }
    sym.kind = Symbol::Kind::kConstant;
    sym.value = *v;
    return sym;
  };
  return compiler_->EvalOnce(text, resolve);
}

// Evaluates the initial value of a parameter or variable. Besides constants it may read the
// values of parameters and variables declared above it (explicit initialisation); one declared
// further down has no value yet and stops the run.
double ModelFileReader::EvaluateInitialValue(std::string_view text, const std::string& name,
                                             int line) {
  if (auto n = ParseNumber(text)) return *n;
  Resolver resolve = [&](std::string_view ref, bool derivative) {
    Symbol sym;
    sym.kind = Symbol::Kind::kConstant;
    const std::string key(ref);
    if (const double* v = FindConstant(key)) {
      sym.value = *v;
    } else if (auto it = declared_.find(key); it != declared_.end() && it->second.initial) {
      sym.value = it->second.value;
    } else if (const DeclaredRun* run = FindDeclaredElement(key)) {
      sym.value = run->value;
    } else if (IsDeclaredLater(key)) {
      Fatal({"Error: Initialization of variable " + name + " failed",
             " Trying to use an uninitialized value in expression:", std::string(text)});
    } else {
      Fatal({fmt::format("Error evaluating constant on Line {}", line), std::string(text),
             "Unknown constant: " + key});
    }
    return sym;
  };
  return compiler_->EvalOnce(text, resolve);
}

// Whether some parameter or variable statement declares `name` (one below the value that
// asks: those above have their values already). The names are collected on the first question.
bool ModelFileReader::IsDeclaredLater(const std::string& name) {
  if (!names_collected_) {
    CollectDeclaredNames();
    names_collected_ = true;
  }
  return declared_later_.count(name) > 0;
}

// Names of every parameter and variable statement.
void ModelFileReader::CollectDeclaredNames() {
  for (Section sec : {Section::kParameters, Section::kVariables}) {
    for (const Statement& s : statements_[static_cast<int>(sec)]) {
      const std::string_view text = s.text;
      const std::string_view head = Trim(text.substr(0, text.find_first_of("=<>,")));
      if (head.empty() || head.front() == '$') continue;
      const std::string name = ToLower(head);
      for (long k = 0; k < s.copies; ++k) declared_later_.insert(ShiftIndex(name, k));
    }
  }
}

void ModelFileReader::InitializeConstants() {
  for (const Statement& s : statements_[static_cast<int>(Section::kConstants)]) {
    ParseConstant(s);
  }
}

long StoreCapacity(int max_memory) {
  long capacity = 100;
  for (int k = 0; k < max_memory; ++k) capacity *= 10;
  return capacity;
}

// Finds the vector indices of every statement of one section; returns the number of
// statements the section expands to. Nothing is copied yet.
long ModelFileReader::FindCopies(const std::vector<Statement>& statements,
                                 std::vector<IndexedStatement>* indexed) {
  long total = 0;
  for (size_t i = 0; i < statements.size(); ++i) {
    const Statement& s = statements[i];
    if (!HasIndex(s.text)) {
      ++total;
      continue;
    }
    auto evaluate = [&](std::string_view t) {
      if (options_.diaglevel >= 3) Say("Evaluate array constant in expression: " + std::string(t));
      return EvaluateConstantText(t, s.line);
    };
    IndexedStatement x{i, FindIndices(s.text, s.line, evaluate), 1};
    x.copies = CountCopies(x.indices, options_.max_range);
    total += x.copies;
    indexed->push_back(std::move(x));
  }
  return total;
}

// Stops before anything is allocated when a store would hold more than its capacity.
void ModelFileReader::CheckStoreSizes(const long (&counts)[4]) const {
  static constexpr const char* kStores[] = {"variables", "intermediates", "equations",
                                            "connections"};
  const long capacity = StoreCapacity(options_.max_memory);
  for (int k = 0; k < 4; ++k) {
    if (counts[k] <= capacity) continue;
    Fatal({fmt::format("Error: Not enough memory to store model {}: {} elements, room for {}",
                       kStores[k], counts[k], capacity),
           "Increase MAX_MEMORY 10^(2-10), Currently: 10^" + std::to_string(options_.max_memory)},
          "Stopping...");
  }
}

namespace {

// A declaration whose one vector index is a range in the declared name (`x[1:n] = 0, >= 0`):
// every copy but the name is the same, so it is read once (Statement::copies).
bool NameOnlyRange(const Statement& s, const IndexedStatement& x) {
  if (x.indices.size() != 1 || !x.indices[0].range) return false;
  return x.indices[0].close < s.text.find_first_of("=<>,");
}

}  // namespace

// Expands the statements of one section over their vector indices, in place. In a
// declaration section a name-only range keeps its statement whole, and so does every vector
// equation (Parse writes its copies out).
void ModelFileReader::ExpandSection(const std::vector<IndexedStatement>& indexed, Section section,
                                    std::vector<Statement>* statements) {
  const bool declarations = section == Section::kParameters || section == Section::kVariables;
  if (indexed.empty()) return;
  long total = static_cast<long>(statements->size());
  for (const IndexedStatement& x : indexed) total += x.copies - 1;
  std::vector<Statement> out;
  out.reserve(total);
  size_t next = 0;  // next entry of `indexed`
  for (size_t i = 0; i < statements->size(); ++i) {
    Statement& s = (*statements)[i];
    if (next == indexed.size() || indexed[next].statement != i) {
      out.push_back(std::move(s));
      continue;
    }
    const IndexedStatement& x = indexed[next++];
    if (declarations && NameOnlyRange(s, x)) {
      out.push_back({s.line, WriteCopy(s.text, x.indices, 0), x.copies});
      continue;
    }
    if (section == Section::kEquations && x.copies > 1) {
      auto ranges = std::make_shared<const std::vector<IndexRange>>(x.indices);
      out.push_back({s.line, std::move(s.text), x.copies, std::move(ranges)});
      continue;
    }
    for (long k = 0; k < x.copies; ++k) out.push_back({s.line, WriteCopy(s.text, x.indices, k)});
  }
  *statements = std::move(out);
}

// Counts every store first, so that a model too large for MAX_MEMORY stops before any copy
// is written; then expands.
const ModelCounts& ModelFileReader::DetermineSize() {
  constexpr Section kExpanded[] = {Section::kParameters, Section::kVariables,
                                   Section::kIntermediates, Section::kEquations,
                                   Section::kConnections};
  std::vector<IndexedStatement> indexed[std::size(kExpanded)];
  long totals[std::size(kExpanded)];
  for (size_t k = 0; k < std::size(kExpanded); ++k)
    totals[k] = FindCopies(statements_[static_cast<int>(kExpanded[k])], &indexed[k]);
  const long stores[4] = {totals[0] + totals[1], totals[2], totals[3], totals[4]};
  CheckStoreSizes(stores);
  for (size_t k = 0; k < std::size(kExpanded); ++k)
    ExpandSection(indexed[k], kExpanded[k], &statements_[static_cast<int>(kExpanded[k])]);
  ModelCounts& c = model_.counts;
  auto count = [&](Section sec) {
    long n = 0;
    for (const Statement& s : statements_[static_cast<int>(sec)]) n += s.copies;
    return n;
  };
  c.constants = static_cast<long>(model_.constants.size());
  c.parameters = count(Section::kParameters);
  c.variables = count(Section::kVariables);
  c.intermediates = count(Section::kIntermediates);
  c.equations = count(Section::kEquations);
  c.connections = count(Section::kConnections);
  c.objects = count(Section::kObjects);
  return c;
}

ParsedModel ModelFileReader::Parse() {
  auto& st = statements_;
  model_.parameters.reserve(model_.counts.parameters);
  model_.variables.reserve(model_.counts.variables);
  model_.equations.reserve(model_.counts.equations);
  // A vector declaration enters its elements as one run: the table holds one entry per
  // statement at most.
  declared_.reserve(st[static_cast<int>(Section::kParameters)].size() +
                    st[static_cast<int>(Section::kVariables)].size() +
                    st[static_cast<int>(Section::kIntermediates)].size() +
                    model_.constants.size());
  for (const auto& s : st[static_cast<int>(Section::kParameters)]) {
    ParseDeclaration(s, &model_.parameters);
  }
  for (const auto& s : st[static_cast<int>(Section::kVariables)]) {
    ParseDeclaration(s, &model_.variables);
  }
  for (const auto& s : st[static_cast<int>(Section::kIntermediates)]) ParseIntermediate(s);
  int number = 0;
  for (const auto& s : st[static_cast<int>(Section::kEquations)]) {
    if (s.ranges == nullptr) {
      ParseEquation(s, ++number);
    } else {
      ParseEquationCopies(s, &number);
    }
  }
  for (const auto& s : st[static_cast<int>(Section::kConnections)]) ParseConnection(s);
  for (const auto& s : st[static_cast<int>(Section::kObjects)]) ParseObject(s);
  for (const auto& s : st[static_cast<int>(Section::kCompounds)]) {
    for (const std::string& c : Split(s.text, ',')) {
      std::string name = ToLower(Trim(c));
      if (!name.empty()) model_.compounds.push_back(name);
    }
  }
  model_.counts.residuals = 0;
  for (const EquationDecl& e : model_.equations) model_.counts.residuals += e.copies;
  model_.counts.variables = 0;
  for (const VariableDecl& d : model_.variables)
    model_.counts.variables += d.derivative ? 0 : d.copies;
  for (auto& v : statements_) std::vector<Statement>().swap(v);
  return std::move(model_);
}

ParsedModel ReadModelText(std::string_view text, Compiler* compiler,
                          const ReaderOptions& options) {
  ModelFileReader reader(compiler, options);
  reader.ReadText(text);
  reader.InitializeConstants();
  reader.DetermineSize();
  return reader.Parse();
}

}  // namespace kx::lang
