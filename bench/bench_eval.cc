// Byte-code compile and evaluation speed against hand-written C++ for the generated model
// family of model_gen.h. Google Benchmark times, for each size N:
//   BM_CompileEquations/N   compiling the intermediates and the N equations
//   BM_ResidualByteCode/N   gather + Program::Residual for every equation
//   BM_ResidualHand/N       HandResidual for every equation
//   BM_AllByteCode/N        gather + Program::Hessian (residual, gradient, Hessian)
//   BM_AllHand/N            HandDerivatives for every equation
// Then, per size, the table gives the compile time per equation and the ratios (byte code /
// hand-written) of residual evaluation and of residual + gradient + Hessian evaluation, all
// measured in this run, and checks the byte code against the hand-written templates: largest
// residual and gradient difference and the domain faults met.
//
// Usage: bench_eval [--quick] [N ...] [--benchmark_...]      (--quick skips N = 100000)
#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_util.h"
#include "lang/compiler.h"
#include "model_gen.h"

namespace kx::bench {
namespace {

constexpr uint64_t kModelSeed = 2024;
constexpr uint64_t kPointSeed = 5;
constexpr int kMaxInputs = 64;  // local inputs of any generated equation, with room to spare

struct Compiled {
  std::vector<lang::Program> programs;
  std::vector<int> col_start;  // equation -> start in cols; size n + 1
  std::vector<int> cols;       // model columns of each program's local inputs, concatenated
};

Compiled CompileAll(const GeneratedModel& m, const std::vector<std::string>& texts) {
  Compiled c;
  c.programs.reserve(m.n);
  c.col_start.reserve(m.n + 1);
  const lang::Resolver resolve = GeneratedNames(m.num_q);
  lang::Compiler compiler;
  for (int j = 1; j <= m.num_q; ++j) compiler.DefineIntermediate(m.Intermediate(j), resolve);
  std::vector<int> columns;
  for (int i = 0; i < m.n; ++i) {
    c.programs.push_back(compiler.CompileEquation(i + 1, texts[i], resolve, &columns));
    c.col_start.push_back(static_cast<int>(c.cols.size()));
    c.cols.insert(c.cols.end(), columns.begin(), columns.end());
  }
  c.col_start.push_back(static_cast<int>(c.cols.size()));
  return c;
}

std::vector<std::string> ResidualTexts(const GeneratedModel& m) {
  std::vector<std::string> texts(m.n);
  for (int i = 0; i < m.n; ++i) texts[i] = m.Residual(i);
  return texts;
}

// What the evaluation benchmarks of one size share; built once, outside the timings.
struct EvalCase {
  GeneratedModel model;
  Compiled code;
  std::vector<double> x;               // point, by model column; size n + 1
  std::vector<double> r_code, r_hand;  // residuals of the last pass; size n
  std::vector<double> in, work, grad, hess;  // byte-code scratch
  lang::DomainErrors errors;           // met by every timed byte-code pass
  double sink = 0;                     // keeps the derivative results alive

  explicit EvalCase(int n)
      : model(GenerateModel(n, kModelSeed)),
        code(CompileAll(model, ResidualTexts(model))),
        x(n + 1), r_code(n), r_hand(n), in(kMaxInputs), grad(kMaxInputs),
        hess(kMaxInputs * kMaxInputs) {
    GenRandom rng(kPointSeed);
    for (double& v : x) v = rng.Uniform(-2, 2);
    size_t w = 0;
    for (const auto& p : code.programs) w = std::max<size_t>(w, p.work_size());
    work.resize(w);
  }

  void Gather(int i) {
    for (int k = code.col_start[i]; k < code.col_start[i + 1]; ++k)
      in[k - code.col_start[i]] = x[code.cols[k]];
  }
};

void ResidualByteCode(EvalCase& c) {
  for (int i = 0; i < c.model.n; ++i) {
    c.Gather(i);
    c.r_code[i] = c.code.programs[i].Residual(c.in.data(), c.work.data(), &c.errors);
  }
}

void ResidualHand(EvalCase& c) {
  for (int i = 0; i < c.model.n; ++i) c.r_hand[i] = HandResidual(c.model.eqs[i], c.x.data());
}

void AllByteCode(EvalCase& c) {
  for (int i = 0; i < c.model.n; ++i) {
    c.Gather(i);
    c.r_code[i] = c.code.programs[i].Hessian(c.in.data(), c.work.data(), c.grad.data(),
                                             c.hess.data(), &c.errors);
    c.sink += c.grad[0] + c.hess[0];
  }
}

void AllHand(EvalCase& c) {
  for (int i = 0; i < c.model.n; ++i) {
    double g[kMaxTemplateVars] = {}, h[kMaxTemplateVars * kMaxTemplateVars] = {};
    c.r_hand[i] = HandDerivatives(c.model.eqs[i], c.x.data(), g, h);
    c.sink += g[0] + h[0];
  }
}

// Times pass(c) once per iteration on the case of size state.range(0).
template <void (*pass)(EvalCase&)>
void TimePass(benchmark::State& state) {
  EvalCase& c = CaseFor<EvalCase>(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    pass(c);
    benchmark::DoNotOptimize(c.r_code.data());
    benchmark::DoNotOptimize(c.r_hand.data());
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(c.sink);
  state.SetItemsProcessed(state.iterations() * c.model.n);
}

void BM_CompileEquations(benchmark::State& state) {
  const GeneratedModel m = GenerateModel(static_cast<int>(state.range(0)), kModelSeed);
  const std::vector<std::string> texts = ResidualTexts(m);
  for (auto _ : state) {
    Compiled c = CompileAll(m, texts);
    benchmark::DoNotOptimize(c.programs.data());
  }
  state.SetItemsProcessed(state.iterations() * m.n);
}

// Largest differences between byte code and hand-written templates at the case's point, and
// the domain faults of one residual pass and one derivative pass.
struct Agreement {
  double residual = 0;
  double gradient = 0;
  long faults = 0;
};

Agreement Check(EvalCase& c) {
  Agreement a;
  lang::DomainErrors errors;
  for (int i = 0; i < c.model.n; ++i) {
    const GenEquation& e = c.model.eqs[i];
    const lang::Program& p = c.code.programs[i];
    c.Gather(i);
    const double r = p.Residual(c.in.data(), c.work.data(), &errors);
    p.Hessian(c.in.data(), c.work.data(), c.grad.data(), c.hess.data(), &errors);
    double g[kMaxTemplateVars] = {}, h[kMaxTemplateVars * kMaxTemplateVars] = {};
    const double rh = HandDerivatives(e, c.x.data(), g, h);
    a.residual = std::max({a.residual, std::fabs(r - rh),
                           std::fabs(r - HandResidual(e, c.x.data()))});
    for (int k = c.code.col_start[i]; k < c.code.col_start[i + 1]; ++k) {
      const int* var = std::find(e.var, e.var + kTemplateVars[e.tmpl], c.code.cols[k]);
      const double byte_code = c.grad[k - c.code.col_start[i]];
      a.gradient = std::max(a.gradient, std::fabs(byte_code - g[var - e.var]));
    }
  }
  a.faults = errors.Total();
  return a;
}

void PrintSize(int n, const RunKeeper& runs) {
  auto t = [&](const char* family) { return runs.Seconds(SizedName(family, n)); };
  if (std::isnan(t("BM_ResidualByteCode")) && std::isnan(t("BM_AllByteCode"))) return;
  EvalCase& c = CaseFor<EvalCase>(n);
  size_t code = 0, first = 0, second = 0;
  for (const auto& p : c.code.programs) {
    code += p.residual_size();
    first += p.first_size();
    second += p.second_size();
  }
  const double compile = t("BM_CompileEquations");
  Sayf("n = {:>6}  compile {:8.3f} s ({:5.2f} us/eqn)  instructions/eqn: residual {:.1f}, "
       "1st {:.1f}, 2nd {:.1f}",
       n, compile, 1e6 * compile / n, double(code) / n, double(first) / n, double(second) / n);
  const double res_code = t("BM_ResidualByteCode"), res_hand = t("BM_ResidualHand");
  Sayf("            residual:         byte code {:8.2f} ns/eqn  hand {:8.2f} ns/eqn  ratio {:5.2f}",
       1e9 * res_code / n, 1e9 * res_hand / n, res_code / res_hand);
  const double all_code = t("BM_AllByteCode"), all_hand = t("BM_AllHand");
  Sayf("            res+grad+hessian: byte code {:8.2f} ns/eqn  hand {:8.2f} ns/eqn  ratio {:5.2f}",
       1e9 * all_code / n, 1e9 * all_hand / n, all_code / all_hand);
  const Agreement a = Check(c);
  Sayf("            largest residual difference {:.3g}, gradient difference {:.3g}, "
       "domain faults {} (timed passes {})",
       a.residual, a.gradient, a.faults, c.errors.Total());
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  using namespace kx::bench;
  return RunRatioBenchmark(
      argc, argv,
      {{"BM_CompileEquations", BM_CompileEquations},
       {"BM_ResidualByteCode", TimePass<ResidualByteCode>},
       {"BM_ResidualHand", TimePass<ResidualHand>},
       {"BM_AllByteCode", TimePass<AllByteCode>},
       {"BM_AllHand", TimePass<AllHand>}},
      "Byte code against hand-written C++ (fastest repetition of each benchmark above)",
      PrintSize);
}
