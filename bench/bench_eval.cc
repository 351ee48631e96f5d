// Byte-code compile and evaluation speed against hand-written C++ for the generated model
// family of model_gen.h. Prints, for each size, the compile time per equation and the ratios
// (byte code / hand-written) of residual evaluation and of residual + gradient + Hessian
// evaluation, measured in this run, and the largest difference between the two results.
//
// Usage: bench_eval [--quick]      (--quick skips n = 100000)
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "base/report.h"
#include "base/timers.h"
#include "lang/compiler.h"
#include "model_gen.h"

namespace kx {
namespace {

using bench::GeneratedModel;
using Clock = std::chrono::steady_clock;

struct Compiled {
  std::vector<lang::Program> programs;
  std::vector<int> col_start;  // equation -> start in cols
  std::vector<int> cols;       // model columns of each program's local inputs, concatenated
  double seconds = 0;
};

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

Compiled CompileAll(const GeneratedModel& m) {
  std::vector<std::string> texts(m.n);
  for (int i = 0; i < m.n; ++i) texts[i] = m.Residual(i);
  Compiled c;
  c.programs.reserve(m.n);
  c.col_start.reserve(m.n + 1);
  const lang::Resolver resolve = GeneratedNames(m.num_q);
  const auto start = Clock::now();
  lang::Compiler compiler;
  for (int j = 1; j <= m.num_q; ++j) compiler.DefineIntermediate(m.Intermediate(j), resolve);
  std::vector<int> columns;
  for (int i = 0; i < m.n; ++i) {
    c.programs.push_back(compiler.CompileEquation(i + 1, texts[i], resolve, &columns));
    c.col_start.push_back(static_cast<int>(c.cols.size()));
    c.cols.insert(c.cols.end(), columns.begin(), columns.end());
  }
  c.col_start.push_back(static_cast<int>(c.cols.size()));
  c.seconds = SecondsSince(start);
  return c;
}

// Best of `trials` timings of `reps` calls of f, in seconds per call.
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

struct Buffers {
  std::vector<double> in, work, grad, hess;
  explicit Buffers(const Compiled& c) : in(64), grad(64), hess(64 * 64) {
    size_t w = 0;
    for (const auto& p : c.programs) w = std::max<size_t>(w, p.work_size());
    work.resize(w);
  }
};

void Gather(const Compiled& c, int i, const std::vector<double>& x, double* in) {
  for (int k = c.col_start[i]; k < c.col_start[i + 1]; ++k) in[k - c.col_start[i]] = x[c.cols[k]];
}

void RunSize(int n) {
  const GeneratedModel m = bench::GenerateModel(n, 2024);
  const Compiled c = CompileAll(m);
  std::vector<double> x(n + 1), r_code(n), r_hand(n);
  bench::GenRandom rng(5);
  for (double& v : x) v = rng.Uniform(-2, 2);
  Buffers b(c);
  lang::DomainErrors errs;
  const int reps = std::max(1, 2000000 / n);

  const double t_res_code = Time(reps, [&] {
    for (int i = 0; i < n; ++i) {
      Gather(c, i, x, b.in.data());
      r_code[i] = c.programs[i].Residual(b.in.data(), b.work.data(), &errs);
    }
  });
  const double t_res_hand = Time(reps, [&] {
    for (int i = 0; i < n; ++i) r_hand[i] = bench::HandResidual(m.eqs[i], x.data());
  });
  double diff = 0;
  for (int i = 0; i < n; ++i) diff = std::max(diff, std::fabs(r_code[i] - r_hand[i]));

  double sink_code = 0, sink_hand = 0;
  const double t_all_code = Time(reps, [&] {
    for (int i = 0; i < n; ++i) {
      Gather(c, i, x, b.in.data());
      r_code[i] = c.programs[i].Hessian(b.in.data(), b.work.data(), b.grad.data(), b.hess.data(),
                                        &errs);
      sink_code += b.grad[0] + b.hess[0];
    }
  });
  const double t_all_hand = Time(reps, [&] {
    for (int i = 0; i < n; ++i) {
      double g[6] = {}, h[36] = {};
      r_hand[i] = bench::HandDerivatives(m.eqs[i], x.data(), g, h);
      sink_hand += g[0] + h[0];
    }
  });

  size_t code = 0, first = 0, second = 0;
  for (const auto& p : c.programs) {
    code += p.residual_size();
    first += p.first_size();
    second += p.second_size();
  }
  Sayf("n = {:>6}  compile {:8.3f} s ({:5.2f} us/eqn)  instructions/eqn: residual {:.1f}, "
       "1st {:.1f}, 2nd {:.1f}",
       n, c.seconds, 1e6 * c.seconds / n, double(code) / n, double(first) / n, double(second) / n);
  Sayf("            residual:         byte code {:8.2f} ns/eqn  hand {:8.2f} ns/eqn  ratio {:5.2f}",
       1e9 * t_res_code / n, 1e9 * t_res_hand / n, t_res_code / t_res_hand);
  Sayf("            res+grad+hessian: byte code {:8.2f} ns/eqn  hand {:8.2f} ns/eqn  ratio {:5.2f}",
       1e9 * t_all_code / n, 1e9 * t_all_hand / n, t_all_code / t_all_hand);
  Sayf("            largest residual difference {:.3g}, domain faults {}", diff, errs.Total());
  volatile double keep = sink_code + sink_hand;  // keeps the derivative work alive
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
