#include "model/connections.h"

#include <iterator>
#include <optional>

#include "base/file_writer.h"
#include "base/report.h"
#include "base/text.h"
#include "model/checks.h"

namespace kx::model {
namespace {

std::vector<std::string> EchoLines(const lang::ConnectionDecl& c) {
  return {fmt::format("Connection # {}", c.number), "A: " + c.a, "B: " + c.b};
}

// Appends the absorbed record's name and aliases to the survivor's alias list, with the walk
// limits that guard against a corrupted list. The aliases move: the absorbed record forwards
// to the survivor, which answers for every name from now on (and a chain of merges stays
// linear in its length).
void AppendAliases(Variable* survivor, Variable* absorbed) {
  if (survivor->aliases().size() > static_cast<size_t>(kMaxAliasSteps)) {
    Fatal({"zpm_variable_connect - 1: POSSIBLE INFINITE LOOP", "variable a: " + survivor->name,
           "alias_a: " + survivor->aliases().back()});
  }
  if (absorbed->aliases().size() > static_cast<size_t>(kMaxAliasSteps)) {
    Fatal({"zpm_variable_connect - 2: POSSIBLE INFINITE LOOP", "variable a: " + survivor->name,
           "variable b: " + absorbed->name, "variable c: " + survivor->name,
           "variable d: " + absorbed->name, "alias_b: " + absorbed->aliases().back()});
  }
  std::vector<std::string>& aliases = survivor->notes.mutable_value().aliases;
  if (survivor->name != absorbed->name) aliases.push_back(absorbed->name);
  if (!absorbed->notes.has_value()) return;
  std::vector<std::string>& moved = absorbed->notes.mutable_value().aliases;
  aliases.insert(aliases.end(), std::make_move_iterator(moved.begin()),
                 std::make_move_iterator(moved.end()));
  // Releases the storage too: clear() keeps the capacity, and along a chain of n merges the
  // absorbed records would keep O(n^2) moved-from strings alive (1.5 GB at n = 10000).
  std::vector<std::string>().swap(moved);
}

[[noreturn]] void FailConnection(const lang::ConnectionDecl& c, const ModelStore& store,
                                 const ConnectionOptions& options) {
  Say("Warning: connection failed");
  Say("unable to locate variable");
  Say("connection failed");
  Say("unable to locate variable");
  Say("creating file connect_error.t0 to display valid variable names");
  std::string names;
  for (const Variable& v : store.vars) names += v.name + '\n';
  WriteFileAtomically(options.work_dir + "/connect_error.t0", names);
  Fatal({fmt::format("Connection # {}", c.number), "A: " + c.a, "B: " + c.b}, "STOPPING. . .");
}

// Handles `a = fixed`, `a = calculated` and `a = number`; false when b names a variable.
bool ApplySpecCode(const lang::ConnectionDecl& c, int a, ModelStore* store) {
  int spec = kSpecNone;
  std::optional<double> value;
  if (c.b == "fixed") {
    spec = kSpecFixed;
  } else if (c.b == "calculated") {
    spec = kSpecCalculated;
  } else if (a >= 0 && (value = ParseNumber(c.b))) {
    Variable& v = store->vars[ResolveForward(*store, a)];
    v.val = *value;
    spec = v.spec != kSpecNone ? v.spec : kSpecValue;
  }
  if (spec == kSpecNone || a < 0) return false;
  Variable& v = store->vars[ResolveForward(*store, a)];
  v.spec = spec;
  if (spec == kSpecFixed) v.fixed = true;
  if (spec == kSpecCalculated) v.fixed = false;
  return true;
}

void WriteConnectionsFile(const ModelStore& store, const std::string& work_dir) {
  std::string text;
  for (const Connection& c : store.connections)
    text += fmt::format("Connection # {}\nA: {}\nB: {}\n\n", c.number, c.a, c.b);
  WriteFileAtomically(work_dir + "/model_connections.txt", text);
}

}  // namespace

int MergeVariables(ModelStore* store, int a, int b) {
  int ra = ResolveForward(*store, a);
  int rb = ResolveForward(*store, b);
  if (ra == rb) return ra;
  bool keep_b = store->vars[rb].preferred && !store->vars[ra].preferred;
  int survivor = keep_b ? rb : ra;
  int absorbed = keep_b ? ra : rb;
  AppendAliases(&store->vars[survivor], &store->vars[absorbed]);
  store->vars[absorbed].forward = survivor;
  return survivor;
}

void ApplyConnections(const std::vector<lang::ConnectionDecl>& connections,
                      const RecordOfName& record_of, const ConnectionOptions& options,
                      ModelStore* store) {
  store->connections.reserve(connections.size());
  for (const lang::ConnectionDecl& c : connections) {
    if (options.diaglevel > 3) {
      for (const auto& line : EchoLines(c)) Say(line);
    }
    bool wildcard = c.a.find('*') != std::string::npos || c.b.find('*') != std::string::npos;
    bool prefix = c.a.find('.') != std::string::npos || c.b.find('.') != std::string::npos;
    if (wildcard && prefix) {
      std::vector<std::string> lines = EchoLines(c);
      lines.push_back("Error: Connection with prefix cannot have wildcard");
      Fatal(lines, "Stopping...");
    }
    int a = record_of(c.a);
    store->connections.push_back({c.number, c.a, c.b, a, -1});
    if (ApplySpecCode(c, a, store)) continue;
    int b = record_of(c.b);
    if (a < 0 || b < 0) {
      WriteConnectionsFile(*store, options.work_dir);
      FailConnection(c, *store, options);
    }
    store->connections.back().var_b = b;
    // Side A decides whether the merged variable is fixed, except that a declared record
    // outranks an object member: `f.u = uin` with a parameter uin stays a parameter.
    const Variable& va = store->vars[ResolveForward(*store, a)];
    const Variable& vb = store->vars[ResolveForward(*store, b)];
    const bool fixed = vb.preferred && !va.preferred ? vb.fixed : va.fixed;
    int survivor = MergeVariables(store, a, b);
    store->vars[survivor].fixed = fixed;
  }
  if (!store->connections.empty()) WriteConnectionsFile(*store, options.work_dir);
}

}  // namespace kx::model
