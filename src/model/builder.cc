// The model builder: runs the front-end phases and turns the parsed description into the
// records of the model store, then compiles every intermediate and equation once.
#include "model/builder.h"

#include <cctype>
#include <chrono>
#include <filesystem>
#include <new>
#include <unordered_map>
#include <unordered_set>

#include "base/check.h"
#include "base/report.h"
#include "base/text.h"
#include "base/timers.h"
#include "lang/compiler.h"
#include "model/checks.h"
#include "model/connections.h"
#include "objects/expander.h"
#include "objects/object_table.h"
#include "model/program_reuse.h"

namespace kx::model {
namespace {

using Clock = std::chrono::steady_clock;
using lang::SplitElement;
using lang::Symbol;

constexpr int kUnderscoreLine = 48;
// The elements base[first..last] of one vector, declared one after another from record
// `first_record` on. A base whose elements are not so declared is `broken` and found by name.
struct ElementRun {
  long first = 0;
  long last = 0;
  int first_record = 0;
  bool broken = false;
};

constexpr int kDashLine = 54;

class Builder {
 public:
  explicit Builder(const BuildOptions& options)
      : options_(options),
        compiler_(lang::CompileLimits{options.max_memory}),
        shapes_([this](std::string_view name, bool derivative) { return Lookup(name, derivative); },
                [this](std::string_view base) { return SliceOf(base); }) {
    resolve_ = [this](std::string_view name, bool derivative) {
      return Resolve(name, derivative);
    };
  }

  ModelStore Run(const std::function<void(lang::ModelFileReader*)>& read);

 private:
  template <typename F>
  void Phase(const char* label, F&& body);
  void CreateRecords();
  void AddVariables(lang::VariableDecl* d, char vtype);
  void AddVariable(lang::VariableDecl* d, char vtype);
  void ReleaseDeclarations();
  bool IsObjectMember(const std::string& name) const;
  std::string MemberUnits(const std::string& name) const;
  std::string ObjectMembers(const std::string& name) const;
  void SetInitialDerivatives();
  void NumberVariables();
  void CheckRecords() const;
  void CompileIntermediates();
  void CompileEquations();
  const std::string& ResidualText(int e);
  void CompileEquation(int e);
  void PlanCopies(int e);
  void CheckColumns(int e) const;
  [[noreturn]] void FailOrder(int e) const;
  void CheckUninitialized() const;
  void CompileIntermediateValues();
  void FinishCounts();
  Symbol Resolve(std::string_view name, bool derivative);
  Symbol Lookup(std::string_view name, bool derivative) const;
  // The constant named `name`; constants are never vectors, so an indexed name is not looked
  // up (most names of a large model are indexed).
  TextMap<double>::const_iterator FindConstant(std::string_view name) const {
    return name.find('[') != std::string_view::npos ? constants_.end() : constants_.find(name);
  }
  bool NoteElement(const std::string& name, int record);
  int FindRecord(std::string_view name) const;
  ProgramShapes::ElementSlice SliceOf(std::string_view base) const;
  void MarkDerivatives(const std::vector<int>& columns);
  [[noreturn]] void FailUnknownName(std::string_view name, bool derivative) const;
  Symbol ResolveIntermediate(const std::string& name, int j);
  Symbol ResolveValueInput(std::string_view name, bool derivative);

  BuildOptions options_;
  lang::Compiler compiler_;
  lang::Resolver resolve_;
  ProgramShapes shapes_;  // one program per equation shape
  lang::ParsedModel parsed_;
  ModelStore store_;
  // Parameter and variable names, except the elements of an unbroken run (found by index).
  TextMap<int> names_;
  TextMap<ElementRun> runs_;     // vector elements by base name
  ElementRun* last_run_ = nullptr;  // the run NoteElement extended last, and its base name
  std::string last_base_;
  std::unordered_map<std::string, int> intermediates_;  // name -> intermediate index
  TextMap<double> constants_;
  std::vector<int> number_of_;  // per record: the variable number it answers to after merges
  std::unordered_map<std::string, std::string> object_types_;  // declared object -> type
  std::vector<std::string> late_ref_;  // per intermediate: a later intermediate it reads
  std::vector<char> tainted_;          // per intermediate: reads an out-of-order value
  int current_intermediate_ = -1;      // intermediate being compiled, -1 for equations
  bool refs_tainted_ = false;          // the equation being compiled reads a tainted one
  std::vector<std::string> refs_;      // intermediates read by the equation being compiled
  // Per equation, the residual expression compiled ("0 = " this); empty for a vector copy,
  // whose residual is made from its statement when needed. Kept until compiled, or for the
  // initial-residual file.
  std::vector<std::string> residuals_;
  std::string copy_residual_;          // a vector copy's residual, made by ResidualText
  const lang::CopiedStatement* planned_ = nullptr;  // the statement FindCopy reads
  const Equation* compiling_ = nullptr;  // equation being compiled, for messages
};

// Runs one timed phase. Memory exhaustion inside it stops the run with one line naming the
// phase, never with the text of an exception.
template <typename F>
void Builder::Phase(const char* label, F&& body) {
  Clock::time_point start = Clock::now();
  try {
    body();
  } catch (const std::bad_alloc&) {
    std::string_view phase = label;
    phase = phase.substr(0, phase.find(" (sec)"));
    Fatal({fmt::format("Error: out of memory in phase \"{}\"", phase)}, "Stopping...");
  }
  Sayf("{:<46}{:12.6f}", label, SecondsSince(start));
}

ModelStore Builder::Run(const std::function<void(lang::ModelFileReader*)>& read) {
  Clock::time_point start = Clock::now();
  lang::ModelFileReader reader(&compiler_,
                               {options_.diaglevel, options_.work_dir, options_.max_range,
                                options_.max_memory});
  lang::ModelCounts counts;
  Phase("Read model file (sec):", [&] { read(&reader); });
  Phase("Initialize constants (sec):", [&] { reader.InitializeConstants(); });
  Phase("Determine model size (sec):", [&] {
    objects::ExpandObjects(&reader,
                           {options_.work_dir, options_.diaglevel, &store_.files_read});
    counts = reader.DetermineSize();
  });
  Phase("Allocate memory (sec):", [&] {
    store_.vars.reserve(counts.parameters + counts.variables);
    store_.eqns.reserve(counts.equations);
    store_.intermediates.reserve(counts.intermediates);
  });
  Phase("Parse and store model (sec):", [&] {
    parsed_ = reader.Parse();
    CreateRecords();
    ApplyConnections(parsed_.connections,
                     [this](const std::string& name) { return FindRecord(name); },
                     {options_.diaglevel, options_.work_dir}, &store_);
    NumberVariables();
    if (!store_.connections.empty())
      store_.files_written.push_back(options_.work_dir + "/model_connections.txt");
  });
  Phase("Error checking (sec):", [&] { CheckRecords(); });
  Phase("Compile equations (sec):", [&] {
    CompileIntermediates();
    CompileEquations();
    FinishCounts();
  });
  Phase("Check for uninitialized intermediates (sec):", [&] {
    CheckUninitialized();
    CompileIntermediateValues();
    // Room was made for a program per row; copies share theirs, so most of it is unused.
    store_.programs.shrink_to_fit();
    if (options_.evaluate_start || options_.diaglevel >= 2) EvaluateInitialState(&store_);
  });
  Say(std::string(kDashLine, '-'));
  Sayf("{:<46}{:12.6f}", "Total Parse Time (sec):", SecondsSince(start));
  counts = parsed_.counts;
  counts.residuals = static_cast<long>(store_.eqns.size()) - store_.num_obj_eqns;
  PrintSizeReport(store_, counts);
  if (options_.diaglevel >= 2) {
    for (int e = 0; e < static_cast<int>(residuals_.size()); ++e) {
      if (store_.eqns[e].copy > 0) residuals_[e] = ResidualText(e);
    }
    WriteInitialFiles(store_, residuals_, options_.work_dir);
  }
  return std::move(store_);
}

// The elements of a vector declaration differ from its first only in the index of their
// name: each is the first's record under its own name, its bounds repaired (and the repair
// reported) as the first's were.
void Builder::AddVariables(lang::VariableDecl* decl, char vtype) {
  const double lower = decl->lower;
  AddVariable(decl, vtype);
  if (decl->copies == 1) return;
  const Variable head = store_.vars.back();
  std::string_view base;
  long first = 0;
  const bool element = SplitElement(head.name, &base, &first);
  KX_CHECK(element);  // the reader keeps a declaration whole only when its name is one
  const long copies = decl->copies;
  for (long k = 1; k < copies; ++k) {
    Variable v = head;
    v.name = lang::ElementName(base, first + k);
    v.lower = lower;
    RepairBounds(&v);
    const int record = static_cast<int>(store_.vars.size());
    if (!NoteElement(v.name, record)) names_.emplace(v.name, record);
    store_.vars.push_back(std::move(v));
  }
}

// Takes the declaration's name; the declarations are released once the records exist.
void Builder::AddVariable(lang::VariableDecl* decl, char vtype) {
  const lang::VariableDecl& d = *decl;
  Variable v;
  v.name = std::move(decl->name);
  v.vtype = vtype;
  v.fixed = vtype == kVarParameter;
  // A connection between an object member and a declared name keeps the declared record
  // (its value, bounds and name survive).
  v.preferred = !IsObjectMember(v.name);
  if (!v.preferred) {
    if (std::string units = MemberUnits(v.name); !units.empty())
      v.notes.mutable_value().units = std::move(units);
  }
  v.obj_def = StartsWith(v.name, "obj");
  // An object member named int... (`a.int_b`) is integer like a declared int... name.
  v.integer = StartsWith(v.name, "int") || v.name.find(".int") != std::string::npos;
  v.slack = StartsWith(v.name, "slk");
  v.val = d.value;
  v.lower = d.lower;
  v.upper = d.upper;
  v.line = d.line;
  RepairBounds(&v);
  const int record = static_cast<int>(store_.vars.size());
  const bool in_run = NoteElement(v.name, record);
  if (!in_run) names_.emplace(v.name, record);
  store_.vars.push_back(std::move(v));
}

// Units of an object member from its object's table (`f.tau` of a lag: "s").
std::string Builder::MemberUnits(const std::string& name) const {
  const size_t dot = name.find('.');
  const std::string member = name.substr(dot + 1, name.find('[', dot) - dot - 1);
  return objects::MemberUnits(object_types_.at(name.substr(0, dot)), member);
}

bool Builder::IsObjectMember(const std::string& name) const {
  const size_t dot = name.find('.');
  return dot != std::string::npos && object_types_.count(name.substr(0, dot)) > 0;
}

// Extends the run of the element's vector when it follows the last element of the run; true
// when the element is found through the run. A run that breaks hands its elements to the name
// table.
bool Builder::NoteElement(const std::string& name, int record) {
  std::string_view base;
  long index = 0;
  if (!SplitElement(name, &base, &index)) return false;
  if (last_run_ == nullptr || base != last_base_) {
    auto [it, inserted] = runs_.try_emplace(std::string(base));
    if (inserted) it->second = {index, index, record, false};
    last_run_ = &it->second;
    last_base_ = base;
    if (inserted) return true;
  }
  ElementRun& run = *last_run_;
  if (run.broken) return false;
  if (index == run.last + 1 && record == run.first_record + (run.last - run.first) + 1) {
    run.last = index;
    return true;
  }
  run.broken = true;
  for (long k = 0; k <= run.last - run.first; ++k) {
    const int r = run.first_record + static_cast<int>(k);
    names_.emplace(store_.vars[r].name, r);
  }
  return false;
}

// Record index of a parameter or variable name, -1 when there is none. Elements of a vector
// declared in order are found by their index, without hashing the whole name.
int Builder::FindRecord(std::string_view name) const {
  std::string_view base;
  long index = 0;
  if (SplitElement(name, &base, &index)) {
    const auto run = runs_.find(base);
    if (run != runs_.end() && !run->second.broken) {
      const ElementRun& r = run->second;
      if (index < r.first || index > r.last) return -1;
      return r.first_record + static_cast<int>(index - r.first);
    }
  }
  const auto v = names_.find(name);
  return v == names_.end() ? -1 : v->second;
}

// The variable numbers of a vector whose elements are found by index (FindRecord); none for
// a broken run or a name that is not a vector's.
ProgramShapes::ElementSlice Builder::SliceOf(std::string_view base) const {
  const auto run = runs_.find(base);
  if (run == runs_.end() || run->second.broken) return {};
  const ElementRun& r = run->second;
  return {number_of_.data() + r.first_record, r.first, r.last, store_.nvar};
}

void Builder::CreateRecords() {
  store_.name = parsed_.name;
  for (const auto& o : parsed_.objects) object_types_.emplace(o.name, o.type);
  for (const auto& c : parsed_.constants) {
    constants_[c.name] = c.value;
    store_.constants.push_back({c.name, c.value});
  }
  for (auto& d : parsed_.parameters) AddVariables(&d, kVarParameter);
  for (auto& d : parsed_.variables) {
    if (!d.derivative) AddVariables(&d, kVarDeclared);
  }
  SetInitialDerivatives();
  for (const auto& d : parsed_.intermediates) {
    intermediates_.emplace(d.name, static_cast<int>(store_.intermediates.size()));
    store_.intermediates.push_back({d.name, d.text, -1, -1, {}, 0, d.line});
  }
  residuals_.reserve(store_.eqns.capacity());
  for (auto& e : parsed_.equations) {
    for (long k = 0; k < e.copies; ++k) {
      Equation q;
      q.name = fmt::format("eqn {}", store_.eqns.size() + 1);
      if (k == 0) q.text = std::move(e.text);
      q.type = e.type;
      q.obj_eqn = e.objective;
      q.lower = e.lower;
      q.upper = e.upper;
      q.line = e.line;
      q.statement = e.statement + static_cast<int>(k);
      q.copy = static_cast<int>(k);
      q.copied = e.copied;
      store_.eqns.push_back(std::move(q));
      residuals_.push_back(k == 0 ? std::move(e.residual) : std::string());
    }
  }
  for (const auto& o : parsed_.objects) store_.objects.push_back({o.name, o.type, o.arguments, o.line});
  store_.compounds = parsed_.compounds;
  for (const std::string& f : parsed_.files_written)
    store_.files_written.push_back(options_.work_dir + "/" + f);
  ReleaseDeclarations();
}

// The records hold everything the declarations and equation statements said: their memory
// goes back before the model is compiled.
void Builder::ReleaseDeclarations() {
  std::vector<lang::VariableDecl>().swap(parsed_.parameters);
  std::vector<lang::VariableDecl>().swap(parsed_.variables);
  std::vector<lang::EquationDecl>().swap(parsed_.equations);
}

// `$x = v` in the Variables section: the initial time derivative of a declared x.
void Builder::SetInitialDerivatives() {
  for (const auto& d : parsed_.variables) {
    if (!d.derivative) continue;
    const int record = FindRecord(d.name);
    if (record < 0) {
      Fatal({"model error: time derivative declared for an undeclared variable: $" + d.name,
             fmt::format("line number: {}", d.line)});
    }
    store_.vars[record].d_val = d.value;
  }
}

void Builder::NumberVariables() {
  store_.order.clear();
  for (size_t i = 0; i < store_.vars.size(); ++i) {
    Variable& v = store_.vars[i];
    v.number = v.forward >= 0 ? 0 : static_cast<int>(store_.order.size()) + 1;
    if (v.forward < 0) store_.order.push_back(static_cast<int>(i));
  }
  store_.nvar = static_cast<int>(store_.order.size());
  number_of_.resize(store_.vars.size());
  for (size_t i = 0; i < store_.vars.size(); ++i)
    number_of_[i] = store_.vars[ResolveForward(store_, static_cast<int>(i))].number;
}

void Builder::CheckRecords() const {
  if (store_.nvar < 1 || store_.eqns.empty()) {
    Fatal({"Model must contain at least 1 variable and 1 equation"});
  }
  for (const Equation& e : store_.eqns) {
    if (e.type < kEqual || e.type > kLess) {
      Fatal({fmt::format("  Equation type must be 1-3: {}", e.type), e.Text()});
    }
  }
}

Symbol Builder::Resolve(std::string_view name_view, bool derivative) {
  std::string name(name_view);
  Symbol sym;
  if (auto c = FindConstant(name); c != constants_.end() && !derivative) {
    sym.kind = Symbol::Kind::kConstant;
    sym.value = c->second;
    return sym;
  }
  if (const int record = FindRecord(name); record >= 0) {
    Variable& rec = store_.vars[ResolveForward(store_, record)];
    sym.kind = Symbol::Kind::kColumn;
    sym.column = derivative ? store_.nvar + rec.number : rec.number;
    if (derivative) rec.diff = true;
    return sym;
  }
  if (auto j = intermediates_.find(name); j != intermediates_.end() && !derivative) {
    return ResolveIntermediate(name, j->second);
  }
  if (compiling_ != nullptr) FailUnknownName(name, derivative);
  return sym;  // unknown in an intermediate: the compiler stops with its defining text
}

// What Resolve would answer for a constant or a variable, without marking anything and
// without stopping: anything else is kUnknown.
Symbol Builder::Lookup(std::string_view name, bool derivative) const {
  Symbol sym;
  if (auto c = FindConstant(name); c != constants_.end() && !derivative) {
    sym.kind = Symbol::Kind::kConstant;
    sym.value = c->second;
    return sym;
  }
  if (const int record = FindRecord(name); record >= 0) {
    sym.kind = Symbol::Kind::kColumn;
    sym.column = derivative ? store_.nvar + number_of_[record] : number_of_[record];
  }
  return sym;
}

// An unknown name in an equation is shown in the statement as written (the compiler sees the
// residual form), at the first place where it stands as a whole name.
void Builder::FailUnknownName(std::string_view name, bool derivative) const {
  const std::string text = compiling_->Text();
  const std::string lower = ToLower(text);
  const std::string token = (derivative ? "$" : "") + std::string(name);
  auto in_name = [&](size_t i) {
    const unsigned char c = static_cast<unsigned char>(lower[i]);
    return std::isalnum(c) || c == '_' || c == '.' || c == '$' || c == '[' || c == ']';
  };
  size_t pos = lower.find(token);
  while (pos != std::string::npos) {
    const size_t end = pos + token.size();
    if ((pos == 0 || !in_name(pos - 1)) && (end == lower.size() || !in_name(end))) break;
    pos = lower.find(token, pos + 1);
  }
  const size_t position = pos == std::string::npos ? 1 : pos + 1;
  std::vector<std::string> lines = {"Invalid element: " + token,
                                    "*** Error in syntax of function string: " + text,
                                    fmt::format("Position: {}", position)};
  const std::string members = ObjectMembers(std::string(name));
  if (!members.empty()) {
    lines.push_back(fmt::format("line number: {}", compiling_->line));
    lines.push_back(members);
  }
  Fatal(lines);
}

// "Members of object f: tau, k, u, y" when `name` is `f.something` for a declared object f;
// empty otherwise. Vector members are listed once, without their index.
std::string Builder::ObjectMembers(const std::string& name) const {
  const size_t dot = name.find('.');
  if (dot == std::string::npos || object_types_.count(name.substr(0, dot)) == 0) return "";
  const std::string prefix = name.substr(0, dot + 1);
  std::vector<std::string> members;
  std::unordered_set<std::string> seen;
  auto add = [&](const std::string& full) {
    if (!StartsWith(full, prefix)) return;
    std::string m = full.substr(prefix.size());
    m = m.substr(0, m.find('['));
    if (seen.insert(m).second) members.push_back(m);
  };
  for (const Variable& v : store_.vars) add(v.name);
  for (const Intermediate& m : store_.intermediates) add(m.name);
  std::string list;
  for (const std::string& m : members) list += (list.empty() ? "" : ", ") + m;
  return "Members of object " + name.substr(0, dot) + ": " + list;
}

// An intermediate read before it is defined (listed later, or itself) gives no value: it is
// read as 0 and the reader is marked, so that equations using it stop with the order message.
Symbol Builder::ResolveIntermediate(const std::string& name, int j) {
  Symbol sym;
  int cur = current_intermediate_;
  if (cur >= 0 && j >= cur) {
    if (late_ref_[cur].empty()) late_ref_[cur] = name;
    tainted_[cur] = 1;
    sym.kind = Symbol::Kind::kConstant;
    return sym;
  }
  if (cur >= 0 && tainted_[j]) tainted_[cur] = 1;
  if (cur < 0) {
    refs_.push_back(name);
    refs_tainted_ = refs_tainted_ || tainted_[j];
  }
  sym.kind = Symbol::Kind::kIntermediate;
  sym.intermediate = store_.intermediates[j].handle;
  return sym;
}

void Builder::CompileIntermediates() {
  int n = static_cast<int>(store_.intermediates.size());
  late_ref_.assign(n, {});
  tainted_.assign(n, 0);
  for (int i = 0; i < n; ++i) {
    current_intermediate_ = i;
    Intermediate& m = store_.intermediates[i];
    m.handle = compiler_.DefineIntermediate(m.text, resolve_);
  }
  current_intermediate_ = -1;
}

void Builder::CompileEquations() {
  store_.programs.reserve(store_.eqns.size() + store_.intermediates.size());
  for (int e = 0; e < static_cast<int>(store_.eqns.size()); ++e) CompileEquation(e);
  if (options_.diaglevel < 2) std::vector<std::string>().swap(residuals_);
}

const std::string& Builder::ResidualText(int e) {
  const Equation& q = store_.eqns[e];
  if (q.copy == 0) return residuals_[e];
  copy_residual_ = q.copied->Residual(q.copy);
  return copy_residual_;
}

// An equation of a shape compiled before takes that program with its own column map;
// otherwise it is compiled, and its program offered to the equations of its shape that follow.
void Builder::CompileEquation(int e) {
  Equation& q = store_.eqns[e];
  if (options_.diaglevel >= 3) Sayf("Compiling Equation: {}", e + 1);
  std::vector<int> columns;
  int shared = -1;
  if (q.copy > 0 && q.copied.get() == planned_) shared = shapes_.FindCopy(q.copy, &columns);
  if (shared < 0) shared = shapes_.Find(ResidualText(e), &columns);
  if (shared >= 0) {
    q.columns = std::move(columns);
    MarkDerivatives(q.columns);
    CheckColumns(e);
    q.program = shared;
    for (int c : q.columns) q.differential = q.differential || c > store_.nvar;
    PlanCopies(e);
    return;
  }
  refs_.clear();
  refs_tainted_ = false;
  compiling_ = &q;
  lang::Program p = compiler_.CompileEquation(e + 1, ResidualText(e), resolve_, &columns);
  compiling_ = nullptr;
  q.columns = std::move(columns);
  if (refs_tainted_) FailOrder(e);
  CheckColumns(e);
  q.program = static_cast<int>(store_.programs.size());
  store_.programs.push_back(std::move(p));
  shapes_.Remember(q.program, q.columns);
  for (int c : q.columns) q.differential = q.differential || c > store_.nvar;
  PlanCopies(e);
}

// The first copy of a vector equation lets its other copies find their columns without
// reading their texts.
void Builder::PlanCopies(int e) {
  const Equation& q = store_.eqns[e];
  if (q.copied == nullptr || q.copy != 0) return;
  planned_ = shapes_.PlanCopies(residuals_[e], q.copied->placed, q.program) ? q.copied.get()
                                                                            : nullptr;
}

// A derivative column read by an equation makes its variable differential (as Resolve does).
void Builder::MarkDerivatives(const std::vector<int>& columns) {
  for (int c : columns)
    if (c > store_.nvar) store_.Var(c - store_.nvar).diff = true;
}

void Builder::CheckColumns(int e) const {
  const Equation& q = store_.eqns[e];
  for (int c : q.columns) {
    if (c < 1 || c > 2 * store_.nvar) {
      Fatal({fmt::format("Error: index problem with ideriv(k): {}", c),
             fmt::format("  Should be <= {}", 2 * store_.nvar)});
    }
  }
  if (!q.columns.empty()) return;
  if (!q.obj_eqn) {
    Fatal({fmt::format("ERROR: equation {} has no variables", e + 1), q.name, q.Text()},
          "stopping...");
  }
  Say(std::string(kUnderscoreLine, '_'));
  Sayf("WARNING: objective equation {} has no variables", e + 1);
  Say(q.name);
  Say(q.Text());
  Say(std::string(kUnderscoreLine, '_'));
}

void Builder::FailOrder(int e) const {
  const Equation& q = store_.eqns[e];
  std::vector<std::string> lines = {
      "Intermediate variable is out of order",
      "  causing a non-zero sparsity element to be zero.",
      "Intermediate variables that are a function of other",
      "  intermediate variables must be listed after their dependencies.",
      fmt::format("Equation {}", e + 1),
      "=> " + q.Text().substr(0, lang::kMaxLineLength),
      fmt::format("Number of variable derivatives detected: {}", q.columns.size() + refs_.size())};
  for (int c : q.columns) {
    const Variable& v = store_.Var(c > store_.nvar ? c - store_.nvar : c);
    lines.push_back(fmt::format("  {:<40} Regular Variable", (c > store_.nvar ? "$" : "") + v.name));
  }
  for (const std::string& r : refs_) lines.push_back(fmt::format("  {:<40} Intermediate Variable", r));
  Fatal(lines);
}

void Builder::CheckUninitialized() const {
  for (size_t i = 0; i < late_ref_.size(); ++i) {
    if (late_ref_[i].empty()) continue;
    const Intermediate& m = store_.intermediates[i];
    Fatal({fmt::format("Line {} value uninitialized in expression: {} = {}", m.line, m.name,
                       m.text),
           "Intermediate " + late_ref_[i] + " is listed after " + m.name});
  }
}

// The value program of an intermediate reads the intermediates it names as inputs (their
// values are computed first, in declaration order) instead of inlining them: a chain of n
// intermediates compiles in O(n), not O(n^2). Its model columns stay as they are; intermediate
// j is input column -(j+1).
void Builder::CompileIntermediateValues() {
  const int first_intermediate_column = 2 * store_.nvar + 1;
  const lang::Resolver value_inputs = [this](std::string_view name, bool derivative) {
    return ResolveValueInput(name, derivative);
  };
  for (Intermediate& m : store_.intermediates) {
    m.program = static_cast<int>(store_.programs.size());
    store_.programs.push_back(compiler_.CompileEquation(1, m.text, value_inputs, &m.columns));
    for (int& c : m.columns)
      if (c >= first_intermediate_column) c = -(c - first_intermediate_column + 1);
  }
}

// Names in an intermediate's value program: an intermediate is the model column past every
// variable and derivative that CompileIntermediateValues turns into -(j+1); anything else
// resolves as in an equation. Every name was checked when the intermediate was defined.
Symbol Builder::ResolveValueInput(std::string_view name, bool derivative) {
  const std::string key(name);
  if (!derivative && constants_.count(key) == 0 && FindRecord(key) < 0) {
    if (auto j = intermediates_.find(key); j != intermediates_.end()) {
      Symbol sym;
      sym.kind = Symbol::Kind::kColumn;
      sym.column = 2 * store_.nvar + 1 + j->second;
      return sym;
    }
  }
  return Resolve(name, derivative);
}

void Builder::FinishCounts() {
  store_.ndiff = 0;
  store_.num_integer = 0;
  for (int n = 1; n <= store_.nvar; ++n) {
    Variable& v = store_.Var(n);
    v.idiff = v.diff ? ++store_.ndiff : 0;
    if (v.integer) ++store_.num_integer;
  }
  CountEquationKinds(&store_);
}

std::string WorkDirOf(const std::string& model_file, const BuildOptions& options) {
  if (!options.work_dir.empty()) return options.work_dir;
  std::string dir = std::filesystem::path(model_file).parent_path().string();
  return dir.empty() ? "." : dir;
}

}  // namespace

ModelStore BuildModel(const std::string& model_file, const BuildOptions& options) {
  BuildOptions o = options;
  o.work_dir = WorkDirOf(model_file, options);
  Builder b(o);
  return b.Run([&](lang::ModelFileReader* r) { r->Read(model_file); });
}

void CountEquationKinds(ModelStore* store) {
  store->num_diff_eqns = store->num_alg_eqns = store->num_obj_eqns = 0;
  for (const Equation& q : store->eqns) {
    if (q.obj_eqn) {
      ++store->num_obj_eqns;
    } else if (q.differential) {
      ++store->num_diff_eqns;
    } else {
      ++store->num_alg_eqns;
    }
  }
}

ModelStore BuildModelFromText(std::string_view text, const BuildOptions& options) {
  BuildOptions o = options;
  if (o.work_dir.empty()) o.work_dir = ".";
  Builder b(o);
  return b.Run([&](lang::ModelFileReader* r) { r->ReadText(text); });
}

}  // namespace kx::model
