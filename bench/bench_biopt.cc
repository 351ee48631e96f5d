// BIOPT against the Ipopt library on the shared NLP suite (small and large problems), same
// tolerances (1e-8) and the same sparse factorisation: one run, one table. Each problem is
// built afresh for each solver so both start from the model's own start point; the solvers
// run quietly in a scratch directory (their log files land there).
//
//   bench_biopt [--small] [--monotone | --adaptive] [--probing] [--mu-init MU] [--logs DIR]
//               [--generated N] [name ...]
// --small leaves out the large problems; --monotone / --adaptive pick BIOPT's barrier rule,
// --probing the adaptive rule's centring from an affine-scaling probe (instead of the spread
// of the products);
// --mu-init sets BIOPT's first barrier parameter; --logs DIR runs in DIR (kept afterwards, so
// that the solvers' log files of the last problem can be read) instead of a scratch directory;
// --generated N adds two scalable models of about N variables (a chained Rosenbrock function
// under ring constraints, a discretised control problem with an exponential source). Their
// optimum is not known beforehand: a success status counts as solved, and the table notes
// when the two solvers' objectives differ.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
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

// Chained Rosenbrock with bounds and one inequality per neighbour pair; infeasible start.
constexpr const char* kChainedRosenbrock = R"(Model crosen
  Constants
    n = {}
  End Constants
  Variables
    x[1:n] = -1.2, >= -5, <= 5
  End Variables
  Equations
    minimize 100*(x[2:n] - x[1:n-1]^2)^2 + (1 - x[1:n-1])^2
    x[1:n-1]^2 + x[2:n]^2 <= 1.5
  End Equations
End Model
)";

// -u'' = 2 exp(u) + 100 v on a grid with u = 0 at both ends, bounded control v, tracking
// objective.
constexpr const char* kExponentialControl = R"(Model expcontrol
  Constants
    n = {}
    h2 = 1/(n+1)^2
  End Constants
  Variables
    u[1:n] = 0
    v[1:n] = 0, >= -2, <= 2
  End Variables
  Equations
    u[1] = 0
    u[n] = 0
    u[1:n-2] - 2*u[2:n-1] + u[3:n] + h2*(2*exp(u[2:n-1]) + 100*v[2:n-1]) = 0
    minimize (u[1:n] - 0.3)^2 + 1e-3*v[1:n]^2
  End Equations
End Model
)";

// Writes the generated models into the current (scratch) directory as suite entries.
std::vector<kx::testing::SuiteEntry> GeneratedModels(int n) {
  const std::pair<const char*, std::string> models[] = {
      {"crosen", fmt::format(kChainedRosenbrock, n)},
      {"expcontrol", fmt::format(kExponentialControl, n / 2)}};
  std::vector<kx::testing::SuiteEntry> entries;
  for (const auto& [name, text] : models) {
    const std::string path = (std::filesystem::current_path() / (std::string(name) + ".zpm"));
    std::ofstream(path) << text;
    entries.push_back({fmt::format("{}_{}", name, n), path, std::nan(""), true});
  }
  return entries;
}

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
    out.solved = ok && (std::isnan(entry.optimum) ||
                        kx::testing::RelativeError(r.objective, entry.optimum) <=
                            kObjectiveAgreement);
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
  solvers::biopt::Options options;
  std::vector<std::string> names;
  int generated = 0;
  std::string logs;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--generated" && i + 1 < argc) generated = std::atoi(argv[++i]);
    else if (arg == "--small") small_only = true;
    else if (arg == "--adaptive") options.barrier_rule = solvers::biopt::BarrierRule::kAdaptive;
    else if (arg == "--monotone") options.barrier_rule = solvers::biopt::BarrierRule::kMonotone;
    else if (arg == "--probing") options.mu_oracle = solvers::biopt::MuOracle::kProbing;
    else if (arg == "--mu-init" && i + 1 < argc) options.mu_init = std::atof(argv[++i]);
    else if (arg == "--logs" && i + 1 < argc) logs = argv[++i];
    else names.emplace_back(arg);
  }
  auto suite = kx::testing::NlpSuite(!small_only);
  if (!names.empty()) {
    std::erase_if(suite, [&](const auto& e) {
      return std::find(names.begin(), names.end(), e.name) == names.end();
    });
  }
  std::optional<kx::testing::WorkingDir> scratch;
  if (logs.empty()) {
    scratch.emplace("bench_biopt");
  } else {
    std::filesystem::create_directories(logs);
    std::filesystem::current_path(logs);
  }
  if (generated > 0) {
    for (auto& e : GeneratedModels(generated)) suite.push_back(std::move(e));
  }
  Sayf("{:<20} {:>6} {:>8} {:>6} {:>10}   {:>6} {:>8} {:>6} {:>10}", "problem", "BIOPT", "iter",
       "", "seconds", "Ipopt", "iter", "", "seconds");
  int solved_b = 0, solved_i = 0;
  double large_b = 0, large_i = 0;
  std::vector<double> ratios;
  for (const auto& entry : suite) {
    Outcome b = Run(entry, [&options](solvers::Problem& p, const solvers::SolverSettings& s) {
      return solvers::SolveBiopt(p, s, options);
    }, false);
    Outcome i = Run(entry, [](solvers::Problem& p, const solvers::SolverSettings& s) {
      return solvers::SolveIpopt(p, s);
    }, true);
    const bool differ = std::isnan(entry.optimum) && b.solved && i.solved &&
                        kx::testing::RelativeError(b.objective, i.objective) > kObjectiveAgreement;
    solved_b += b.solved;
    solved_i += i.solved;
    if (b.solved && i.solved && i.iterations > 0) {
      ratios.push_back(static_cast<double>(b.iterations) / i.iterations);
    }
    if (entry.large) large_b += b.seconds, large_i += i.seconds;
    Sayf("{:<20} {:>6} {:>8} {:>6} {:>10.4f}   {:>6} {:>8} {:>6} {:>10.4f}",
         entry.name + (entry.large ? "*" : ""), Mark(b), b.iterations, "", b.seconds, Mark(i),
         i.iterations, "", i.seconds);
    if (differ) Sayf("  objectives differ: BIOPT {:.10e}, Ipopt {:.10e}", b.objective, i.objective);
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
