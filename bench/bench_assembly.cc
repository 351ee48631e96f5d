// Assembly cost of the Jacobian and the Hessian of the Lagrangian on the generated model family
// of model_gen.h. Prints, for each size, the time of one structure build (layout, steady-state
// Jacobian and Hessian patterns), of one values-only Jacobian call and one values-only Hessian
// call, of the bare byte-code evaluation of the same derivatives (gather + Program::Gradient for
// every row, gather + Program::Hessian for every row, no scatter), and the ratio
// (values-only Jacobian + Hessian) / (bare evaluation), all measured in this run.
//
// Usage: bench_assembly [--quick]      (--quick skips n = 100000)
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "base/report.h"
#include "base/timers.h"
#include "lang/compiler.h"
#include "model/access.h"
#include "model_gen.h"

namespace kx {
namespace {

using Clock = std::chrono::steady_clock;

lang::Resolver GeneratedNames(int num_q) {
  return [num_q](std::string_view name, bool) {
    lang::Symbol s;
    if (name == "half") {
      s.kind = lang::Symbol::Kind::kConstant;
      s.value = bench::kHalf;
      return s;
    }
    int index = 0;
    std::from_chars(name.data() + 2, name.data() + name.size() - 1, index);
    if (name[0] == 'x') {
      s.kind = lang::Symbol::Kind::kColumn;
      s.column = index;
    } else if (name[0] == 'q' && index >= 1 && index <= num_q) {
      s.kind = lang::Symbol::Kind::kIntermediate;
      s.intermediate = index - 1;
    }
    return s;
  };
}

// A model store of the generated model: n variables x[i], n equations, random multipliers.
model::ModelStore BuildStore(const bench::GeneratedModel& gen) {
  model::ModelStore store;
  store.nvar = gen.n;
  bench::GenRandom rng(11);
  for (int i = 1; i <= gen.n; ++i) {
    model::Variable v;
    v.name = fmt::format("x[{}]", i);
    v.number = i;
    v.val = rng.Uniform(-2, 2);
    store.order.push_back(i - 1);
    store.vars.push_back(v);
  }
  const lang::Resolver resolve = GeneratedNames(gen.num_q);
  lang::Compiler compiler;
  for (int j = 1; j <= gen.num_q; ++j) compiler.DefineIntermediate(gen.Intermediate(j), resolve);
  store.programs.reserve(gen.n);
  for (int i = 0; i < gen.n; ++i) {
    model::Equation e;
    e.name = fmt::format("eqn {}", i + 1);
    e.program = i;
    e.lambda = rng.Uniform(-1, 1);
    store.programs.push_back(compiler.CompileEquation(i + 1, gen.Residual(i), resolve, &e.columns));
    store.eqns.push_back(std::move(e));
  }
  return store;
}

// Best of three timings of `reps` calls of f, in seconds per call.
template <typename F>
double Time(int reps, F f) {
  double best = 1e30;
  for (int trial = 0; trial < 3; ++trial) {
    const auto start = Clock::now();
    for (int r = 0; r < reps; ++r) f();
    best = std::min(best, SecondsSince(start) / reps);
  }
  return best;
}

// Gather + Program::Gradient (or ::Hessian) for every row into scratch, nothing placed.
double TimeBare(model::ModelAccess& m, int reps, bool hessian, double* sink) {
  const model::EquationLayout& layout = m.Layout();
  model::EvalScratch s;
  s.Reserve(layout);
  const model::ModelStore& store = m.store();
  return Time(reps, [&] {
    for (int e : layout.constraint_eqns) {
      model::GatherInputs(layout, e, s.in.data());
      const lang::Program& p = store.programs[store.eqns[e].program];
      *sink += hessian ? p.Hessian(s.in.data(), s.work.data(), s.grad.data(), s.hess.data(),
                                   &s.errors)
                       : p.Gradient(s.in.data(), s.work.data(), s.grad.data(), &s.errors);
    }
  });
}

void RunSize(int n) {
  const bench::GeneratedModel gen = bench::GenerateModel(n, 2024);
  model::ModelStore store = BuildStore(gen);
  model::ModelAccess m(store);
  const int reps = std::max(3, 1000000 / n);
  const double t_structure = Time(1, [&] {
    m.Invalidate();
    m.Jacobian(model::Shape::kSteady);
    m.Hessian(model::Shape::kSteady);
  });
  std::vector<double> jac(m.Jacobian(model::Shape::kSteady).nnz());
  std::vector<double> hess(m.Hessian(model::Shape::kSteady).nnz());
  const double t_jac = Time(reps, [&] { m.JacobianValues(model::Shape::kSteady, false, jac); });
  const double t_hess =
      Time(reps, [&] { m.HessianValues(model::Shape::kSteady, false, {}, hess); });
  double sink = 0;
  const double t_bare_grad = TimeBare(m, reps, false, &sink);
  const double t_bare_hess = TimeBare(m, reps, true, &sink);
  Sayf("n = {:>6}  nnz {:>8}  nnzh {:>8}  structure build {:8.4f} s", n, jac.size(), hess.size(),
       t_structure);
  Sayf("            values-only: Jacobian {:8.4f} s  Hessian {:8.4f} s", t_jac, t_hess);
  Sayf("            bare byte code: Gradient {:8.4f} s  Hessian {:8.4f} s", t_bare_grad,
       t_bare_hess);
  Sayf("            (Jacobian + Hessian) / (bare Gradient + bare Hessian) = {:5.2f}",
       (t_jac + t_hess) / (t_bare_grad + t_bare_hess));
  Sayf("            Hessian / bare Hessian = {:5.2f}   Jacobian / bare Gradient = {:5.2f}",
       t_hess / t_bare_hess, t_jac / t_bare_grad);
  volatile double keep = sink + jac[0] + hess[0];
  (void)keep;
}

}  // namespace
}  // namespace kx

int main(int argc, char** argv) {
  const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  for (int n : {1000, 10000, 100000}) {
    if (quick && n > 10000) break;
    kx::RunSize(n);
  }
  return 0;
}
