// BIOPT against the Ipopt library on the shared NLP suite (small and large problems), same
// tolerances (1e-8) and the same sparse factorisation: one run, one table. Each problem is
// built afresh for each solver so both start from the model's own start point; the solvers
// run quietly in a scratch directory (their log files land there).
//
//   bench_biopt [--small] [--adaptive] [name ...]
// --small leaves out the large problems; --adaptive runs BIOPT with the adaptive barrier rule.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>
#include <string_view>
#include <vector>

#include "base/report.h"
#include "solvers/biopt.h"
#include "solvers/ipopt_call.h"
#include "solvers/status.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::bench {
namespace {

constexpr double kTolerance = 1e-8;
constexpr double kObjectiveAgreement = 1e-6;  // relative error that counts as solved

struct Outcome {
  bool solved = false;  // success status and objective at the known optimum
  int status = 0;
  int iterations = 0;
  double seconds = 0;
  double objective = 0;
};

template <typename SolveFn>
Outcome Run(const kx::testing::SuiteEntry& entry, SolveFn solve, bool success_is_zero_or_one) {
  Outcome out;
  try {
    auto model = kx::testing::LoadModelFile(entry.path);
    solvers::SolverSettings settings;
    settings.objective_tol = kTolerance;
    settings.constraint_tol = kTolerance;
    settings.max_iter = 3000;
    OutputCapture quiet;
    const auto start = std::chrono::steady_clock::now();
    const solvers::SolverResult r = solve(*model->problem, settings);
    out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    out.status = r.status;
    out.iterations = r.iterations;
    out.objective = r.objective;
    const bool ok = r.status == 0 || (success_is_zero_or_one && r.status == 1);
    out.solved = ok && kx::testing::RelativeError(r.objective, entry.optimum) <= kObjectiveAgreement;
  } catch (const Stop&) {
    out.status = -999;
  }
  return out;
}

double Median(std::vector<double> v) {
  if (v.empty()) return std::nan("");
  std::sort(v.begin(), v.end());
  const size_t h = v.size() / 2;
  return v.size() % 2 == 1 ? v[h] : 0.5 * (v[h - 1] + v[h]);
}

std::string Mark(const Outcome& o) { return o.solved ? "ok" : fmt::format("F({})", o.status); }

int Main(int argc, char** argv) {
  bool small_only = false;
  solvers::biopt::BarrierRule rule = solvers::biopt::BarrierRule::kMonotone;
  std::vector<std::string> names;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--small") small_only = true;
    else if (arg == "--adaptive") rule = solvers::biopt::BarrierRule::kAdaptive;
    else names.emplace_back(arg);
  }
  auto suite = kx::testing::NlpSuite(!small_only);
  if (!names.empty()) {
    std::erase_if(suite, [&](const auto& e) {
      return std::find(names.begin(), names.end(), e.name) == names.end();
    });
  }
  kx::testing::WorkingDir scratch("bench_biopt");
  Sayf("{:<20} {:>6} {:>8} {:>6} {:>10}   {:>6} {:>8} {:>6} {:>10}", "problem", "BIOPT", "iter",
       "", "seconds", "Ipopt", "iter", "", "seconds");
  int solved_b = 0, solved_i = 0;
  double large_b = 0, large_i = 0;
  std::vector<double> ratios;
  for (const auto& entry : suite) {
    const Outcome b = Run(entry, [rule](solvers::Problem& p, const solvers::SolverSettings& s) {
      solvers::biopt::Options options;
      options.barrier_rule = rule;
      return solvers::SolveBiopt(p, s, options);
    }, false);
    const Outcome i = Run(entry, [](solvers::Problem& p, const solvers::SolverSettings& s) {
      return solvers::SolveIpopt(p, s);
    }, true);
    solved_b += b.solved;
    solved_i += i.solved;
    if (b.solved && i.solved && i.iterations > 0) {
      ratios.push_back(static_cast<double>(b.iterations) / i.iterations);
    }
    if (entry.large) large_b += b.seconds, large_i += i.seconds;
    Sayf("{:<20} {:>6} {:>8} {:>6} {:>10.4f}   {:>6} {:>8} {:>6} {:>10.4f}",
         entry.name + (entry.large ? "*" : ""), Mark(b), b.iterations, "", b.seconds, Mark(i),
         i.iterations, "", i.seconds);
  }
  Say("");
  Sayf("problems: {} (* large)", suite.size());
  Sayf("solved: BIOPT {}, Ipopt {}", solved_b, solved_i);
  Sayf("median iteration ratio BIOPT/Ipopt (both solved): {:.3f}", Median(ratios));
  if (large_i > 0) {
    Sayf("time on the large problems: BIOPT {:.3f} s, Ipopt {:.3f} s, ratio {:.3f}", large_b,
         large_i, large_b / large_i);
  }
  return 0;
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) { return kx::bench::Main(argc, argv); }
