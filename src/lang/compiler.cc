#include "lang/compiler.h"

#include <cstdint>
#include <new>
#include <string>

#include "base/check.h"
#include "base/report.h"
#include "lang/codegen.h"
#include "lang/deriv.h"
#include "lang/graph.h"
#include "lang/lexer.h"
#include "lang/parser.h"

namespace kx::lang {

// Limits of one equation, each 10^max_memory:
//   - local inputs (distinct columns, intermediates expanded, time derivatives included);
//   - instructions of the first-derivative segment ("1st Deriv");
//   - instructions of the second-derivative segment ("2nd Deriv").
// The residual segment has no limit of its own: the line length bounds it.
struct Compiler::Impl {
  explicit Impl(CompileLimits l);

  int LocalInput(int column, std::vector<int>* columns);
  int Import(int handle, std::vector<int>* columns);
  int EquationLeaf(const Resolver& resolve, std::string_view text, std::string_view name,
                   bool derivative, int pos, std::vector<int>* columns);
  void StartEquation();
  Program Build(int root, int num_inputs);
  void CheckSegment(int size, const char* which) const;

  CompileLimits limits;
  int64_t capacity;  // 10^max_memory
  Lexer lexer;
  Parser parser;
  Graph eq;     // nodes of the expression being compiled; cleared per expression
  Graph inter;  // every intermediate ever defined; kInput nodes carry model columns
  std::vector<int> inter_roots;  // intermediate handle -> root node in `inter`
  uint32_t stamp = 0;            // current compilation, for the stamped maps below
  std::vector<int> local_of_column;   // model column -> local input when stamped
  std::vector<uint32_t> column_stamp;  // column -> compilation that set local_of_column
  std::vector<int> input_nodes;        // local input -> its kInput node in `eq`
  std::vector<int> imported;           // `inter` node -> `eq` node when stamped
  std::vector<uint32_t> import_stamp;  // `inter` node -> compilation that set imported
  std::vector<int> stack;              // scratch stack of Import
  Deriv deriv;
  CodeGen codegen;
  std::vector<int> grad, hess_nodes;
  std::vector<HessPair> pairs;
};

Compiler::Impl::Impl(CompileLimits l) : limits(l), capacity(1) {
  for (int k = 0; k < limits.max_memory; ++k) capacity *= 10;
}

void Compiler::Impl::StartEquation() {
  eq.Clear();
  eq.set_fault_mode(Graph::FaultMode::kKeepNode);
  input_nodes.clear();
  if (++stamp == 0) {
    std::fill(column_stamp.begin(), column_stamp.end(), 0);
    std::fill(import_stamp.begin(), import_stamp.end(), 0);
    stamp = 1;
  }
}

int Compiler::Impl::LocalInput(int column, std::vector<int>* columns) {
  KX_CHECK(column >= 0);
  if (column >= static_cast<int>(local_of_column.size())) {
    local_of_column.resize(column + 1 + column / 2);
    column_stamp.resize(local_of_column.size(), 0);
  }
  if (column_stamp[column] == stamp) return input_nodes[local_of_column[column]];
  const int local = static_cast<int>(columns->size());
  if (local + 1 > capacity)
    Fatal({"The number of variables in each equation is limited to " + std::to_string(capacity),
           "Increase size of ideriv and deriv with MAX_MEMORY"});
  columns->push_back(column);
  column_stamp[column] = stamp;
  local_of_column[column] = local;
  input_nodes.push_back(eq.Input(local));
  return input_nodes.back();
}

// Copies the graph of intermediate `handle` into `eq`, mapping its columns to local inputs.
// Iterative, since intermediates built on intermediates can nest deeply.
int Compiler::Impl::Import(int handle, std::vector<int>* columns) {
  KX_CHECK(handle >= 0 && handle < static_cast<int>(inter_roots.size()));
  if (import_stamp.size() < static_cast<size_t>(inter.size())) {
    imported.resize(inter.size());
    import_stamp.resize(inter.size(), 0);
  }
  stack.assign(1, inter_roots[handle]);
  while (!stack.empty()) {
    const int id = stack.back();
    if (import_stamp[id] == stamp) {
      stack.pop_back();
      continue;
    }
    const Node x = inter.node(id);
    const int arity = OpArity(x.op);
    // Push b before a so that a is imported first: columns come out in reading order.
    bool ready = true;
    if (arity == 2 && import_stamp[x.b] != stamp) ready = false, stack.push_back(x.b);
    if (arity >= 1 && import_stamp[x.a] != stamp)
      ready = false, stack.push_back(x.a);
    if (!ready) continue;
    int made;
    if (x.op == Op::kConst) made = eq.Const(x.value);
    else if (x.op == Op::kInput) made = LocalInput(x.a, columns);
    else made = eq.Make(x.op, imported[x.a], arity == 2 ? imported[x.b] : -1);
    imported[id] = made;
    import_stamp[id] = stamp;
    stack.pop_back();
  }
  return imported[inter_roots[handle]];
}

int Compiler::Impl::EquationLeaf(const Resolver& resolve, std::string_view text,
                                 std::string_view name, bool derivative, int pos,
                                 std::vector<int>* columns) {
  const Symbol s = resolve(name, derivative);
  switch (s.kind) {
    case Symbol::Kind::kConstant: return eq.Const(s.value);
    case Symbol::Kind::kColumn: return LocalInput(s.column, columns);
    case Symbol::Kind::kIntermediate: return Import(s.intermediate, columns);
    case Symbol::Kind::kUnknown: break;
  }
  SyntaxError(text, "Invalid element: " + std::string(derivative ? "$" : "") + std::string(name),
              pos);
}

void Compiler::Impl::CheckSegment(int size, const char* which) const {
  if (size <= capacity) return;
  Fatal({std::string("Error: Not enough memory to compile model ") + which,
         "Increase MAX_MEMORY 10^(2-10), Currently: 10^" + std::to_string(limits.max_memory)},
        "Stopping...");
}

// Emits the three segments. When memory runs out, the stop names the segment that failed
// (status 1) beside those already built (status 0); a segment not reached shows 1 as well.
Program Compiler::Impl::Build(int root, int num_inputs) {
  Program program;
  int built = 0;  // segments finished
  try {
    codegen.Begin(eq, num_inputs, &program);
    codegen.EmitResidual(eq, root);
    built = 1;
    deriv.Gradient(&eq, root, input_nodes, &grad);
    codegen.EmitGradient(eq, grad);
    CheckSegment(program.first_size(), "1st derivatives");
    built = 2;
    deriv.Hessian(&eq, input_nodes, grad, &pairs, &hess_nodes);
    codegen.EmitHessian(eq, pairs, hess_nodes);
  } catch (const std::bad_alloc&) {
    Fatal({"*** Parser error: Memory allocation for byte code failed",
           fmt::format("Byte Code {}", built > 0 ? 0 : 1),
           fmt::format("1st Deriv {}", built > 1 ? 0 : 1), "2nd Deriv 1"});
  }
  CheckSegment(program.second_size(), "2nd derivatives");
  return program;
}

Compiler::Compiler(CompileLimits limits) : impl_(new Impl(limits)) {}

Compiler::~Compiler() { delete impl_; }

void Compiler::CheckSyntax(std::string_view text) const { impl_->lexer.Scan(text); }

void Compiler::CheckSyntax(std::string_view part, std::string_view statement, int offset) const {
  impl_->lexer.Scan(part, statement, offset);
}

int Compiler::DefineIntermediate(std::string_view text, const Resolver& resolve) {
  Impl& m = *impl_;
  m.lexer.Scan(text);
  m.inter.set_fault_mode(Graph::FaultMode::kKeepNode);
  const LeafFn leaf = [&](std::string_view name, bool derivative, int pos) {
    const Symbol s = resolve(name, derivative);
    switch (s.kind) {
      case Symbol::Kind::kConstant: return m.inter.Const(s.value);
      case Symbol::Kind::kColumn: return m.inter.Input(s.column);
      case Symbol::Kind::kIntermediate:
        KX_CHECK(s.intermediate >= 0 && s.intermediate < static_cast<int>(m.inter_roots.size()));
        return m.inter_roots[s.intermediate];
      case Symbol::Kind::kUnknown: break;
    }
    SyntaxError(text, "Invalid element: " + std::string(derivative ? "$" : "") + std::string(name),
                pos);
  };
  m.inter_roots.push_back(m.parser.Parse(text, m.lexer.tokens(), &m.inter, leaf));
  return static_cast<int>(m.inter_roots.size()) - 1;
}

Program Compiler::CompileEquation(int eqn_index, std::string_view text, const Resolver& resolve,
                                  std::vector<int>* columns) {
  if (eqn_index < 1) Fatal({"Error: use eval_once for one time calculations"});
  Impl& m = *impl_;
  m.lexer.Scan(text);
  m.StartEquation();
  columns->clear();
  const LeafFn leaf = [&](std::string_view name, bool derivative, int pos) {
    return m.EquationLeaf(resolve, text, name, derivative, pos, columns);
  };
  const int root = m.parser.Parse(text, m.lexer.tokens(), &m.eq, leaf);
  return m.Build(root, static_cast<int>(columns->size()));
}

Program Compiler::CompileIntermediateValue(int handle, std::vector<int>* columns) const {
  Impl& m = *impl_;
  m.StartEquation();
  columns->clear();
  const int root = m.Import(handle, columns);
  return m.Build(root, static_cast<int>(columns->size()));
}

double Compiler::EvalOnce(std::string_view text, const Resolver& resolve) {
  Impl& m = *impl_;
  m.lexer.Scan(text);
  m.StartEquation();
  m.eq.set_fault_mode(Graph::FaultMode::kStop);
  const LeafFn leaf = [&](std::string_view name, bool derivative, int pos) {
    const Symbol s = derivative ? Symbol{} : resolve(name, false);
    if (s.kind != Symbol::Kind::kConstant)
      SyntaxError(text, "Invalid element: " + std::string(derivative ? "$" : "") +
                            std::string(name), pos);
    return m.eq.Const(s.value);
  };
  const int root = m.parser.Parse(text, m.lexer.tokens(), &m.eq, leaf);
  m.eq.set_fault_mode(Graph::FaultMode::kKeepNode);
  KX_CHECK(m.eq.IsConst(root));
  return m.eq.node(root).value;
}

}  // namespace kx::lang
