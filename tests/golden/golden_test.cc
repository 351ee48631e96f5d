// Golden-file tests: the printed texts users read (messages, stop lines, help texts, byte-code
// listings) compared verbatim with the files under tests/golden/expected/. Each line of
// tests/golden/cases.txt is one case: its name (the expected file is expected/NAME.txt), what
// it runs, and its input file under tests/golden/input/. See tests/golden/README.md for the
// input formats and for regenerating the expected files on purpose (KX_UPDATE_GOLDEN=1).
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "dbs/dbs_file.h"
#include "dbs/option_table.h"
#include "driver/cycle_fixture.h"
#include "files/file_routine.h"
#include "files/info_file.h"
#include "horizon/data_file.h"
#include "horizon/horizon.h"
#include "horizon/time_grid.h"
#include "lang/lang_testing.h"
#include "lang/model_file.h"
#include "model/builder.h"
#include "model/help_texts.h"
#include "model/routines.h"
#include "solvers/asopt_options.h"
#include "testing/forwarding_problem.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx {
namespace {

const std::string kGoldenDir = KX_SOURCE_DIR "/tests/golden";

struct GoldenCase {
  std::string name;   // expected/NAME.txt
  std::string kind;   // what runs: see README.md
  std::string input;  // file under input/, "-" for none
};

// Names the case in test listings (instead of its bytes).
void PrintTo(const GoldenCase& c, std::ostream* os) { *os << c.kind << ' ' << c.input; }

using kx::testing::ReadFile;

std::vector<GoldenCase> LoadCases() {
  std::vector<GoldenCase> cases;
  std::istringstream in(ReadFile(kGoldenDir + "/cases.txt"));
  for (std::string line; std::getline(in, line);) {
    if (Trim(line).empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    GoldenCase c;
    fields >> c.name >> c.kind >> c.input;
    cases.push_back(c);
  }
  return cases;
}

// Appends the captured lines of `body`, then "(stopped)" when it raised a stop.
void RunCaptured(std::string* out, const std::function<void()>& body) {
  OutputCapture capture;
  bool stopped = false;
  try {
    body();
  } catch (const Stop&) {
    stopped = true;
  }
  for (const std::string& l : capture.lines()) *out += l + "\n";
  if (stopped) *out += "(stopped)\n";
}

// One expression a line; "(empty)" stands for "" and "(blanks)" for three blanks.
std::vector<std::string> ExpressionLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.empty()) continue;
    lines.push_back(line == "(empty)" ? "" : line == "(blanks)" ? "   " : line);
  }
  return lines;
}

std::string RunExpressions(const std::string& kind, const std::string& text) {
  std::string out;
  lang::Compiler compiler;
  lang::testing::Symbols symbols;
  for (const std::string& e : ExpressionLines(text)) {
    out += "> " + e + "\n";
    std::string listing;
    RunCaptured(&out, [&] {
      if (kind == "syntax") {
        compiler.CheckSyntax(e);
        Say("ok");
      } else if (kind == "eval") {
        Say(FormatReal(compiler.EvalOnce(e, symbols.resolver())));
      } else {
        listing = lang::testing::Compile(&compiler, &symbols, e).program.Listing();
      }
    });
    out += listing;
  }
  return out;
}

// A chunk of a model input file: "#### title | key=value ..." and the model text below it.
struct Chunk {
  std::string title;
  std::map<std::string, std::string> keys;
  std::string text;
};

std::vector<Chunk> SplitChunks(const std::string& text) {
  std::vector<Chunk> chunks;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("#### ", 0) != 0) {
      if (!chunks.empty()) chunks.back().text += line + "\n";
      continue;
    }
    Chunk c;
    const size_t bar = line.find(" | ");
    c.title = line.substr(5, bar == std::string::npos ? std::string::npos : bar - 5);
    if (bar != std::string::npos) {
      std::istringstream keys(line.substr(bar + 3));
      for (std::string kv; keys >> kv;) {
        const size_t eq = kv.find('=');
        c.keys[kv.substr(0, eq)] = eq == std::string::npos ? "" : kv.substr(eq + 1);
      }
    }
    chunks.push_back(c);
  }
  return chunks;
}

int IntKey(const Chunk& c, const std::string& key, int fallback) {
  auto it = c.keys.find(key);
  return it == c.keys.end() ? fallback : std::stoi(it->second);
}

// What a read gives: the model's name, each declaration and equation with its line, the
// connections, objects and compounds, then the counts of the size report.
std::string DescribeParsedModel(const lang::ParsedModel& m) {
  std::string out = "model " + m.name + "\n";
  for (const lang::ConstantDecl& k : m.constants)
    out += fmt::format("line {}: constant {} = {}\n", k.line, k.name, FormatReal(k.value));
  for (const std::vector<lang::VariableDecl>* list : {&m.parameters, &m.variables}) {
    for (const lang::VariableDecl& d : *list) {
      for (long k = 0; k < d.copies; ++k) {
        const lang::VariableDecl v = d.Element(k);
        out += fmt::format("line {}: {} {}{} = {}{}, >= {}, <= {}\n", v.line,
                           list == &m.parameters ? "parameter" : "variable",
                           v.derivative ? "$" : "", v.name, FormatReal(v.value),
                           v.has_value ? "" : " (no value)", FormatReal(v.lower),
                           FormatReal(v.upper));
      }
    }
  }
  for (const lang::IntermediateDecl& q : m.intermediates)
    out += fmt::format("line {}: intermediate {} = {}\n", q.line, q.name, q.text);
  for (const lang::EquationDecl& d : m.equations) {
    for (long k = 0; k < d.copies; ++k) {
      const lang::EquationDecl e = d.Row(k);
      out += fmt::format("line {}: equation {} type {}{}: {} | residual {} in [{}, {}]\n",
                         e.line, e.statement, e.type, e.objective ? " objective" : "", e.Text(),
                         e.Residual(), FormatReal(e.lower), FormatReal(e.upper));
    }
  }
  for (const lang::ConnectionDecl& k : m.connections)
    out += fmt::format("line {}: connection {}: {} = {}\n", k.line, k.number, k.a, k.b);
  for (const lang::ObjectDeclText& o : m.objects)
    out += fmt::format("line {}: object {} = {}({})\n", o.line, o.name, o.type, o.arguments);
  for (const std::string& name : m.compounds) out += "compound " + name + "\n";
  const lang::ModelCounts& n = m.counts;
  return out + fmt::format("counts: {} objects, {} constants, {} parameters, {} variables, {} "
                           "intermediates, {} connections, {} equations, {} residuals\n",
                           n.objects, n.constants, n.parameters, n.variables, n.intermediates,
                           n.connections, n.equations, n.residuals);
}

// The records a build gives: each variable with its number (0 when absorbed by a connection),
// value, bounds, marks, units and the record it was merged into or the names it took over;
// each intermediate's and row's value at the start and the columns the row reads; the domain
// faults counted at the start.
std::string DescribeRecords(const model::ModelStore& s) {
  static const char* const kSpecs[] = {"", " spec fixed", " spec calculated", " spec value"};
  std::string out;
  for (const model::Variable& v : s.vars) {
    out += fmt::format("variable {} {} = {}, >= {}, <= {}{}{}{}{}", v.number, v.name,
                       FormatReal(v.val), FormatReal(v.lower), FormatReal(v.upper),
                       v.fixed ? " fixed" : "", v.integer ? " integer" : "",
                       v.obj_def ? " objective" : "", kSpecs[v.spec]);
    if (!v.units().empty()) out += " units " + v.units();
    if (v.forward >= 0) out += " merged into " + s.vars[v.forward].name;
    for (const std::string& a : v.aliases()) out += " alias " + a;
    out += "\n";
  }
  for (const model::Intermediate& m : s.intermediates)
    out += fmt::format("intermediate {} = {}\n", m.name, FormatReal(m.value));
  for (const model::Equation& e : s.eqns) {
    out += fmt::format("{}{} = {}, columns", e.name, e.obj_eqn ? " (objective)" : "",
                       FormatReal(e.residual));
    for (int col : e.columns) out += fmt::format(" {}", col);
    out += "\n";
  }
  const lang::DomainErrors& f = s.start_errors;
  return out + fmt::format("domain faults at the start: {} division by zero, {} log10, {} log, "
                           "{} sqrt, {} asin, {} acos\n", f.divide_by_zero, f.log10_negative,
                           f.log_negative, f.sqrt_negative, f.asin_illegal, f.acos_illegal);
}

// Routines a build chunk may call by name with a selector (calls=zpm_dof:2,zpm_names:3). Only
// selectors that print or return a count are meaningful here: no output vectors are given.
using RoutineCall = std::function<int(model::ModelAccess&, int)>;
const std::map<std::string, RoutineCall>& Routines() {
  using model::ModelAccess;
  constexpr int kNone = INT_MIN;  // a routine without a result
  static const std::map<std::string, RoutineCall> routines = {
      {"zpm_var_vals", [](ModelAccess& m, int i) { return model::zpm_var_vals(m, i), kNone; }},
      {"zpm_iv", [](ModelAccess& m, int i) { return model::zpm_iv(m, i), kNone; }},
      {"zpm_constraints",
       [](ModelAccess& m, int i) {
         int ny = 0;
         return model::zpm_constraints(m, i, model::Bound::kLower, false, &ny), kNone;
       }},
      {"zpm_eqn_res", [](ModelAccess& m, int i) { return model::zpm_eqn_res(m, i), kNone; }},
      {"zpm_eqn_lam", [](ModelAccess& m, int i) { return model::zpm_eqn_lam(m, i), kNone; }},
      {"zpm_var_scaling",
       [](ModelAccess& m, int i) { return model::zpm_var_scaling(m, i), kNone; }},
      {"zpm_eqn_scaling",
       [](ModelAccess& m, int i) { return model::zpm_eqn_scaling(m, i), kNone; }},
      {"zpm_obj", [](ModelAccess& m, int i) { return model::zpm_obj(m, i), kNone; }},
      {"zpm_obj_grad", [](ModelAccess& m, int i) { return model::zpm_obj_grad(m, i), kNone; }},
      {"zpm_names", [](ModelAccess& m, int i) { return model::zpm_names(m, i), kNone; }},
      {"zpm_units", [](ModelAccess& m, int i) { return model::zpm_units(m, i), kNone; }},
      {"zpm_dof", [](ModelAccess& m, int i) { return model::zpm_dof(m, i); }},
      {"zpm_nnz", [](ModelAccess& m, int i) { return model::zpm_nnz(m, i); }},
      {"zpm_nnzh", [](ModelAccess& m, int i) { return model::zpm_nnzh(m, i); }},
      {"zpm_neqns", [](ModelAccess& m, int i) { return model::zpm_neqns(m, i); }},
      {"zpm_condensed_sparsity",
       [](ModelAccess& m, int i) { return model::zpm_condensed_sparsity(m, i, {}), kNone; }},
      {"zpm_condensed_jacobian",
       [](ModelAccess& m, int i) { return model::zpm_condensed_jacobian(m, i, {}, {}), kNone; }},
      {"zpm_jacobian",
       [](ModelAccess& m, int i) { return model::zpm_jacobian(m, i, 0, {}, {}), kNone; }},
      {"zpm_hessian",
       [](ModelAccess& m, int i) { return model::zpm_hessian(m, i, 0, {}, {}), kNone; }},
      {"zpm_jac_order",
       [](ModelAccess& m, int i) { return model::zpm_jac_order(m, i).num_blocks; }},
  };
  return routines;
}

void RunCalls(const std::string& calls, model::ModelStore& store, std::string* out) {
  model::ModelAccess access(store);
  for (const std::string& call : Split(calls, ',')) {
    const size_t colon = call.find(':');
    const std::string name = call.substr(0, colon);
    const int imsg = std::stoi(call.substr(colon + 1));
    *out += fmt::format("> {} {}\n", name, imsg);
    auto it = Routines().find(name);
    if (it == Routines().end()) {
      *out += "(no such routine in the golden runner)\n";
      continue;
    }
    int result = INT_MIN;
    RunCaptured(out, [&] { result = it->second(access, imsg); });
    if (result != INT_MIN) *out += fmt::format("= {}\n", result);
  }
}

// The scratch path shows as <dir>. Timing lines are left out, or with `timing` kept with
// their digits masked, so that their layout is checked.
std::string Masked(std::string text, const std::string& dir, bool timing) {
  for (size_t at; (at = text.find(dir)) != std::string::npos;) text.replace(at, dir.size(), "<dir>");
  std::string out;
  for (std::string line : Split(text, '\n')) {
    if (line.find("(sec):") != std::string::npos) {
      if (!timing) continue;
      for (char& ch : line)
        if (ch >= '0' && ch <= '9') ch = '#';
    }
    out += line + "\n";
  }
  if (!out.empty()) out.pop_back();
  return out;
}

// An options file: what the reader prints, then each option that left its default.
std::string ReadAsoptOptions(const std::string& text, kx::testing::ScratchDir& dir) {
  dir.Write("asopt.opt", text);
  const solvers::AsoptOptions defaults;
  solvers::AsoptOptions options;
  options.Read(dir.File("asopt.opt"));
  std::string out;
  for (int i = 0; i < solvers::kNumAsoptOptions; ++i) {
    const auto o = static_cast<solvers::AsoptOption>(i);
    if (options[o] != defaults[o])
      out += fmt::format("{} = {}\n", solvers::AsoptOptionName(o), FormatReal(options[o]));
  }
  return out;
}

// The grid: its number of steps and the time of each point.
std::string FormatGrid(const horizon::TimeGrid& g) {
  std::string out = fmt::format("steps {}, times", g.num_steps());
  for (double t : g.times) out += " " + FormatReal(t);
  return out + "\n";
}

// The horizon options a chunk's keys give; the others keep their defaults.
horizon::HorizonSettings HorizonSettingsOf(const Chunk& c) {
  horizon::HorizonSettings s;
  s.imode = IntKey(c, "imode", s.imode);
  s.icd_calc = IntKey(c, "icd_calc", s.icd_calc);
  s.nodes = IntKey(c, "nodes", s.nodes);
  s.csv_read = IntKey(c, "csv_read", s.csv_read);
  s.ctrl_hor = IntKey(c, "ctrl_hor", s.ctrl_hor);
  s.pred_hor = IntKey(c, "pred_hor", s.pred_hor);
  if (c.keys.count("ctrl_time")) s.ctrl_time = std::stod(c.keys.at("ctrl_time"));
  if (c.keys.count("pred_time")) s.pred_time = std::stod(c.keys.at("pred_time"));
  return s;
}

// A data file (or none with `nodata`) and the horizon options: the grid's steps and times.
std::string LayOutTimeGrid(const Chunk& c) {
  const horizon::HorizonSettings s = HorizonSettingsOf(c);
  if (c.keys.count("nodata")) return FormatGrid(horizon::BuildTimeGrid(s, nullptr));
  const horizon::DataFile data = horizon::ParseDataFile(c.text, "app.csv");
  return FormatGrid(horizon::BuildTimeGrid(s, &data));
}

// An info file checked against a model whose parameters' names start with p and variables'
// with x: the entries kept.
std::string RegisterInfoFile(const std::string& text) {
  files::ModelKindFn kind = [](std::string_view n) {
    return n.starts_with('p') ? 1 : n.starts_with('x') ? 2 : 0;
  };
  dbs::OptionStore store;
  const std::vector<files::InfoEntry> entries = files::ParseInfoText(text, "app.info");
  files::RegisterInfoEntries(entries, "app.info", store, kind);
  std::string out;
  for (const files::InfoEntry& e : entries)
    out += fmt::format("line {}: {} {}\n", e.line, dbs::ClassName(e.cls), e.name);
  return out;
}

// A DBS file read into a store with one CV, x: the reader's warnings, the counts, then each
// written line (form 1, every record) that the read changed, then the whole file written in
// each `written=FORM:LEVEL,...` of the chunk.
std::string ReadDbs(const Chunk& c) {
  dbs::OptionStore store;
  store.AddVariable("x", dbs::VarClass::kCV);
  const std::vector<std::string> before = Split(dbs::FormatDbs(store, 1, 1), '\n');
  const dbs::DbsReadResult r = dbs::ReadDbsText(c.text, "g.dbs", store);
  std::string out = fmt::format("applied {}, warnings {}\n", r.applied, r.warnings);
  for (const std::string& line : Split(dbs::FormatDbs(store, 1, 1), '\n'))
    if (std::find(before.begin(), before.end(), line) == before.end()) out += line + "\n";
  if (!c.keys.count("written")) return out;
  for (const std::string& w : Split(c.keys.at("written"), ',')) {
    const size_t colon = w.find(':');
    const int form = std::stoi(w.substr(0, colon)), level = std::stoi(w.substr(colon + 1));
    out += fmt::format("written in form {} at level {}:\n", form, level) +
           dbs::FormatDbs(store, form, level);
  }
  return out;
}

// A model, built quietly, set up over the horizon the chunk's options give (no data file):
// what the set-up prints.
void SetUpHorizon(const Chunk& c, kx::testing::ScratchDir& dir, std::string* out) {
  model::BuildOptions o;
  o.work_dir = dir.str();
  RunCaptured(out, [&] {
    model::ModelStore base;
    {
      OutputCapture quiet;
      base = model::BuildModelFromText(c.text, o);
    }
    horizon::SetUpDynamicModel(base, HorizonSettingsOf(c), nullptr, dir.str());
  });
}

// The model with one part broken at the start, as a chunk's `break=` key names it: a
// variable's or a row's bounds inverted, a start value or a gradient entry not a number, or a
// Jacobian entry infinite.
class BrokenProblem : public kx::testing::ForwardingProblem {
 public:
  BrokenProblem(solvers::Problem& base, std::string what)
      : ForwardingProblem(base), what_(std::move(what)) {}
  void Bounds(std::span<double> xl, std::span<double> xu) override {
    base_.Bounds(xl, xu);
    if (what_ == "var-bounds") xl[1] = xu[1] + 1;
  }
  void ConstraintBounds(std::span<double> cl, std::span<double> cu) override {
    base_.ConstraintBounds(cl, cu);
    if (what_ == "row-bounds") cu[0] = cl[0] - 1;
  }
  void Start(std::span<double> x) override {
    base_.Start(x);
    if (what_ == "nan-start") x[0] = std::nan("");
  }
  bool Gradient(std::span<const double> x, std::span<double> g) override {
    const bool ok = base_.Gradient(x, g);
    if (what_ == "nan-gradient") g[1] = std::nan("");
    return ok && what_ != "nan-gradient";
  }
  bool JacobianValues(std::span<const double> x, std::span<double> v) override {
    const bool ok = base_.JacobianValues(x, v);
    if (what_ == "inf-jacobian") v[0] = std::numeric_limits<double>::infinity();
    return ok;
  }

 private:
  std::string what_;  // the broken part; empty for none
};

// The solver's printed iterates with their rounding noise masked: the time as <time>, reals
// printed to six or more decimals as <real>, and values below 1e-8 as <tiny>.
std::string MaskIterates(const std::string& text) {
  static const std::regex time("Tm: +[0-9.]+"), tiny("[0-9]\\.[0-9]+e-(0[89]|[1-9][0-9])");
  static const std::regex real("-?[0-9]+\\.[0-9]{6,}(e[-+][0-9]+)?");
  const std::string t = std::regex_replace(text, time, "Tm: <time>");
  return std::regex_replace(std::regex_replace(t, tiny, "<tiny>"), real, "<real>");
}

// A model solved by ASOPT with the options file that `options=name:value,...` gives and
// `break=` applied: what the solver prints (iterates masked), then its status.
std::string SolveWithAsopt(const Chunk& c) {
  std::string options;
  if (c.keys.count("options")) {
    for (std::string o : Split(c.keys.at("options"), ',')) {
      std::replace(o.begin(), o.end(), ':', ' ');
      options += o + "\n";
    }
  }
  auto model = kx::testing::LoadModelText(c.text);
  BrokenProblem problem(*model->problem, c.keys.count("break") ? c.keys.at("break") : "");
  const kx::testing::Solved s = kx::testing::SolveAsoptWithOptions(problem, options);
  return MaskIterates(s.output) + fmt::format("status {}\n", s.result.status);
}

// A cycle chunk's files: app.zpm up to the first "==== NAME" line, which starts file NAME.
void WriteCycleFiles(const std::string& chunk_text, const kx::testing::ScratchDir& dir) {
  std::string name = "app.zpm", text;
  for (const std::string& line : Split(chunk_text, '\n')) {
    if (line.rfind("==== ", 0) != 0) {
      text += line + "\n";
      continue;
    }
    dir.Write(name, text);
    name = line.substr(5);
    text.clear();
  }
  dir.Write(name, text);
}

// A key's value with `blank` standing for a blank; `fallback` when the chunk has no such key.
std::string BlankedKey(const Chunk& c, const std::string& key, const std::string& fallback,
                       char blank) {
  std::string v = c.keys.count(key) ? c.keys.at(key) : fallback;
  std::replace(v.begin(), v.end(), blank, ' ');
  return v;
}

// The stretch of `out` a chunk shows: from the first line holding `from=` up to the one
// holding `until=`, at most `lines=` lines, and of those only the lines holding `only=`.
std::string ShownLines(const Chunk& c, const std::string& out) {
  const std::string from = BlankedKey(c, "from", "", '~'), until = BlankedKey(c, "until", "", '~');
  const std::string only = BlankedKey(c, "only", "", '~');
  const int lines = IntKey(c, "lines", INT_MAX);
  std::string shown;
  bool started = false;
  int count = 0;
  for (const std::string& line : Split(out, '\n')) {
    if (!started && line.find(from) == std::string::npos) continue;
    started = true;
    if (line.find(only) == std::string::npos) continue;
    if (count++ >= lines) break;
    shown += line + "\n";
    if (!until.empty() && line.find(until) != std::string::npos) break;
  }
  return started ? shown : "(no line holds \"" + from + "\")\n";
}

// A cycle of the program as a user runs it, on the chunk's files with the command line
// `args=` (commas for blanks, default "app"): the lines shown, then the exit status.
std::string RunCycle(const Chunk& c, kx::testing::ScratchDir& dir) {
  WriteCycleFiles(c.text, dir);
  const driver::RunResult r = driver::RunIn(dir, BlankedKey(c, "args", "app", ','));
  return ShownLines(c, r.out) + fmt::format("exit status {}\n", r.status);
}

// The zpm_files requests `calls=CODE:NAME,...` of an application "app", run in the scratch
// directory on the chunk's files (as a cycle chunk gives them; the model built quietly from
// app.zpm, none when it is empty): each shown as `> CODE NAME`, its printed lines and
// `= result`.
std::string RunFileRequests(const Chunk& c, kx::testing::ScratchDir& dir) {
  WriteCycleFiles(c.text, dir);
  const std::filesystem::path previous = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  dbs::OptionStore store;
  files::FileRoutine routine(store, "app");
  model::ModelStore model;
  model::ModelAccess access(model);
  if (!Trim(dir.Read("app.zpm")).empty()) {
    OutputCapture quiet;
    model = model::BuildModelFromText(dir.Read("app.zpm"), {.work_dir = dir.str()});
    routine.set_model(&access);
  }
  std::string out;
  for (const std::string& call : Split(c.keys.at("calls"), ',')) {
    const size_t colon = call.find(':');
    out += "> " + call.substr(0, colon) + " " + call.substr(colon + 1) + "\n";
    std::string result;
    RunCaptured(&out, [&] {
      result = fmt::format("= {}\n", routine.Run(std::stoi(call.substr(0, colon)),
                                                  call.substr(colon + 1)));
    });
    out += result;
  }
  std::filesystem::current_path(previous);
  return out;
}

// A chunk of the kinds that return their result as text; an unknown kind fails the case.
std::string RunTextChunk(const std::string& kind, const Chunk& c, kx::testing::ScratchDir& dir) {
  if (kind == "asopt-options") return ReadAsoptOptions(c.text, dir);
  if (kind == "time-grid") return LayOutTimeGrid(c);
  if (kind == "dbs") return ReadDbs(c);
  if (kind == "asopt") return SolveWithAsopt(c);
  if (kind == "cycle") return RunCycle(c, dir);
  if (kind == "info-file") return RegisterInfoFile(c.text);
  if (kind == "files") return RunFileRequests(c, dir);
  ADD_FAILURE() << "unknown golden kind " << kind;
  return "";
}

// The lines of `text` holding one of the '|'-separated `texts` ('~' for a blank).
std::string LinesHolding(const std::string& text, std::string texts) {
  std::replace(texts.begin(), texts.end(), '~', ' ');
  std::string out;
  for (const std::string& line : Split(text, '\n')) {
    for (const std::string& t : Split(texts, '|')) {
      if (line.find(t) == std::string::npos) continue;
      out += line + "\n";
      break;
    }
  }
  return out;
}

std::string RunModelChunks(const std::string& kind, const std::string& text) {
  std::string out;
  for (const Chunk& c : SplitChunks(text)) {
    kx::testing::ScratchDir dir("kx_golden");
    std::string chunk_out;
    if (kind == "reader") {
      lang::ReaderOptions o{IntKey(c, "diaglevel", 0), dir.str(), IntKey(c, "max_range", 10000000)};
      std::string parsed;
      RunCaptured(&chunk_out, [&] {
        lang::Compiler compiler;
        const lang::ParsedModel m = lang::ReadModelText(c.text, &compiler, o);
        if (c.keys.count("parsed")) parsed = DescribeParsedModel(m);
      });
      chunk_out += parsed;
    } else if (kind == "horizon") {
      SetUpHorizon(c, dir, &chunk_out);
    } else if (kind == "build") {
      model::BuildOptions o;
      o.diaglevel = IntKey(c, "diaglevel", 0);
      o.max_memory = IntKey(c, "max_memory", 4);
      o.work_dir = dir.str();
      model::ModelStore store;
      bool built = false;
      RunCaptured(&chunk_out, [&] {
        store = model::BuildModelFromText(c.text, o);
        built = true;
      });
      if (built && c.keys.count("records")) chunk_out += DescribeRecords(store);
      if (built && c.keys.count("calls")) RunCalls(c.keys.at("calls"), store, &chunk_out);
    } else {
      std::string result;
      RunCaptured(&chunk_out, [&] { result = RunTextChunk(kind, c, dir); });
      chunk_out += result;
    }
    if (c.keys.count("files")) {
      for (const std::string& spec : Split(c.keys.at("files"), ',')) {
        const std::string f = spec.substr(0, spec.find(':'));
        if (!dir.Exists(f)) {
          chunk_out += "file " + f + ": (absent)\n";
          continue;
        }
        std::string text = dir.Read(f);
        if (f != spec) text = LinesHolding(text, spec.substr(f.size() + 1));
        chunk_out += "file " + f + ":\n" + (c.keys.count("masked") ? MaskIterates(text) : text);
      }
    }
    out += "#### " + c.title + "\n" + Masked(chunk_out, dir.str(), c.keys.count("timing") > 0);
  }
  return out;
}

std::string RunCase(const GoldenCase& c) {
  const std::string input = c.input == "-" ? "" : ReadFile(kGoldenDir + "/input/" + c.input);
  if (c.kind == "syntax" || c.kind == "eval" || c.kind == "listing")
    return RunExpressions(c.kind, input);
  if (c.kind == "files-help") {
    std::string out;
    RunCaptured(&out, [] { files::zpm_files(0); });
    return out;
  }
  return RunModelChunks(c.kind, input);
}

class Golden : public ::testing::TestWithParam<GoldenCase> {};

TEST_P(Golden, OutputMatchesTheExpectedFile) {
  const GoldenCase& c = GetParam();
  const std::string expected_path = kGoldenDir + "/expected/" + c.name + ".txt";
  const std::string actual = RunCase(c);
  if (std::getenv("KX_UPDATE_GOLDEN") != nullptr) std::ofstream(expected_path) << actual;
  std::ifstream probe(expected_path);
  ASSERT_TRUE(probe) << expected_path << " is missing; run with KX_UPDATE_GOLDEN=1";
  EXPECT_EQ(actual, ReadFile(expected_path))
      << "golden case " << c.name << " differs; if the change is intended, rerun with "
      << "KX_UPDATE_GOLDEN=1 and review the diff of " << expected_path;
}

INSTANTIATE_TEST_SUITE_P(Cases, Golden, ::testing::ValuesIn(LoadCases()),
                         [](const ::testing::TestParamInfo<GoldenCase>& info) {
                           std::string name = info.param.name;
                           for (char& ch : name)
                             if (ch == '-') ch = '_';
                           return name;
                         });

// Every routine with a help text can be called from a golden case.
TEST(GoldenRunner, CallsEveryRoutineWithAHelpText) {
  for (const std::string& r : model::HelpRoutines()) EXPECT_TRUE(Routines().count(r)) << r;
}

}  // namespace
}  // namespace kx
