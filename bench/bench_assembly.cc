// Assembly cost of the Jacobian and the Hessian of the Lagrangian on the generated model family
// of model_gen.h. Google Benchmark times, for each size N:
//   BM_StructureBuild/N     layout, steady-state Jacobian and Hessian patterns, from scratch
//   BM_JacobianValues/N     one values-only Jacobian call
//   BM_HessianValues/N      one values-only Hessian call
//   BM_BareGradient/N       gather + Program::Gradient for every row, nothing placed
//   BM_BareHessian/N        gather + Program::Hessian for every row, nothing placed
// Then, per size, the table gives those times and the ratios (values-only Jacobian + Hessian) /
// (bare evaluation), all measured in this run, with the domain faults met.
//
// Usage: bench_assembly [--quick] [N ...] [--benchmark_...]      (--quick skips N = 100000)
#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_util.h"
#include "lang/compiler.h"
#include "model/access.h"
#include "model_gen.h"

namespace kx::bench {
namespace {

constexpr uint64_t kModelSeed = 2024;
constexpr uint64_t kValueSeed = 11;

// A model store of the generated model: n variables x[i], n equations, random multipliers.
std::unique_ptr<model::ModelStore> BuildStore(const GeneratedModel& gen) {
  auto store = std::make_unique<model::ModelStore>();
  store->nvar = gen.n;
  GenRandom rng(kValueSeed);
  for (int i = 1; i <= gen.n; ++i) {
    model::Variable v;
    v.name = fmt::format("x[{}]", i);
    v.number = i;
    v.val = rng.Uniform(-2, 2);
    store->order.push_back(i - 1);
    store->vars.push_back(v);
  }
  const lang::Resolver resolve = GeneratedNames(gen.num_q);
  lang::Compiler compiler;
  for (int j = 1; j <= gen.num_q; ++j) compiler.DefineIntermediate(gen.Intermediate(j), resolve);
  store->programs.reserve(gen.n);
  for (int i = 0; i < gen.n; ++i) {
    model::Equation e;
    e.name = fmt::format("eqn {}", i + 1);
    e.program = i;
    e.lambda = rng.Uniform(-1, 1);
    store->programs.push_back(
        compiler.CompileEquation(i + 1, gen.Residual(i), resolve, &e.columns));
    store->eqns.push_back(std::move(e));
  }
  return store;
}

// What the assembly benchmarks of one size share; built once, outside the timings.
struct AssemblyCase {
  std::unique_ptr<model::ModelStore> store;
  std::unique_ptr<model::ModelAccess> access;
  std::vector<double> jac, hess;  // values-only outputs; sizes nnz, nnzh
  model::EvalScratch bare;        // scratch of the bare evaluations
  double sink = 0;                // keeps the bare results alive

  explicit AssemblyCase(int n)
      : store(BuildStore(GenerateModel(n, kModelSeed))),
        access(std::make_unique<model::ModelAccess>(*store)) {
    Prepare();
  }

  // Builds the structure if a structure benchmark left it invalid, and sizes the outputs.
  void Prepare() {
    jac.resize(access->Jacobian(model::Shape::kSteady).nnz());
    hess.resize(access->Hessian(model::Shape::kSteady).nnz());
    bare.Reserve(access->Layout());
  }
};

void StructureBuild(AssemblyCase& c) {
  c.access->Invalidate();
  c.access->Jacobian(model::Shape::kSteady);
  c.access->Hessian(model::Shape::kSteady);
}

void JacobianValues(AssemblyCase& c) {
  c.access->JacobianValues(model::Shape::kSteady, false, c.jac);
}

void HessianValues(AssemblyCase& c) {
  c.access->HessianValues(model::Shape::kSteady, false, {}, c.hess);
}

// Gather + Program::Gradient (or ::Hessian) for every row into scratch, nothing placed.
template <bool kHessian>
void Bare(AssemblyCase& c) {
  const model::EquationLayout& layout = c.access->Layout();
  const model::ModelStore& store = *c.store;
  model::EvalScratch& s = c.bare;
  for (int e : layout.constraint_eqns) {
    model::GatherInputs(layout, e, s.in.data());
    const lang::Program& p = store.programs[store.eqns[e].program];
    c.sink += kHessian ? p.Hessian(s.in.data(), s.work.data(), s.grad.data(), s.hess.data(),
                                   &s.errors)
                       : p.Gradient(s.in.data(), s.work.data(), s.grad.data(), &s.errors);
  }
}

// Times pass(c) once per iteration on the case of size state.range(0).
template <void (*pass)(AssemblyCase&)>
void TimePass(benchmark::State& state) {
  AssemblyCase& c = CaseFor<AssemblyCase>(static_cast<int>(state.range(0)));
  c.Prepare();
  for (auto _ : state) {
    pass(c);
    benchmark::DoNotOptimize(c.jac.data());
    benchmark::DoNotOptimize(c.hess.data());
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(c.sink);
  state.SetItemsProcessed(state.iterations() * c.access->num_eqns());
}

void PrintSize(int n, const RunKeeper& runs) {
  auto t = [&](const char* family) { return runs.Seconds(SizedName(family, n)); };
  const double jac = t("BM_JacobianValues"), hess = t("BM_HessianValues");
  const double bare_grad = t("BM_BareGradient"), bare_hess = t("BM_BareHessian");
  if (std::isnan(jac) && std::isnan(hess)) return;
  AssemblyCase& c = CaseFor<AssemblyCase>(n);
  c.Prepare();
  Sayf("n = {:>6}  nnz {:>8}  nnzh {:>8}  structure build {:9.3f} ms", n, c.jac.size(),
       c.hess.size(), 1e3 * t("BM_StructureBuild"));
  Sayf("            values-only:    Jacobian {:9.3f} ms  Hessian {:9.3f} ms", 1e3 * jac,
       1e3 * hess);
  Sayf("            bare byte code: Gradient {:9.3f} ms  Hessian {:9.3f} ms", 1e3 * bare_grad,
       1e3 * bare_hess);
  Sayf("            (Jacobian + Hessian) / (bare Gradient + bare Hessian) = {:5.2f}",
       (jac + hess) / (bare_grad + bare_hess));
  Sayf("            Hessian / bare Hessian = {:5.2f}   Jacobian / bare Gradient = {:5.2f}",
       hess / bare_hess, jac / bare_grad);
  Sayf("            domain faults: values-only {}, bare {}", c.access->domain_errors().Total(),
       c.bare.errors.Total());
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  using namespace kx::bench;
  return RunRatioBenchmark(
      argc, argv,
      {{"BM_StructureBuild", TimePass<StructureBuild>},
       {"BM_JacobianValues", TimePass<JacobianValues>},
       {"BM_HessianValues", TimePass<HessianValues>},
       {"BM_BareGradient", TimePass<Bare<false>>},
       {"BM_BareHessian", TimePass<Bare<true>>}},
      "Values-only assembly against bare byte-code evaluation (fastest repetition above)",
      PrintSize);
}
