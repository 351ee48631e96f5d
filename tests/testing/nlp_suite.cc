#include "testing/nlp_suite.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "base/report.h"
#include "base/text.h"
#include "model/builder.h"
#include "solvers/asopt.h"
#include "solvers/biopt.h"
#include "solvers/ipopt_call.h"
#include "solvers/status.h"
#include "testing/scratch_dir.h"

namespace kx::testing {
namespace {

std::unique_ptr<LoadedModel> Wrap(model::ModelStore store, std::string name) {
  auto m = std::make_unique<LoadedModel>();
  m->store = std::move(store);
  m->access = std::make_unique<model::ModelAccess>(m->store);
  m->problem = std::make_unique<solvers::ModelProblem>(*m->access, false, std::move(name));
  return m;
}

// Reads the "! key: value" header lines at the top of a suite file.
SuiteEntry ReadEntry(const std::filesystem::path& path) {
  SuiteEntry e{.name = path.stem().string(), .path = path.string()};
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::string t(Trim(line));
    if (t.empty()) continue;
    if (t[0] != '!') break;
    t = std::string(Trim(std::string_view(t).substr(1)));
    if (StartsWith(t, "optimum:")) e.optimum = std::stod(t.substr(8));
    if (StartsWith(t, "status:")) e.status = std::stoi(t.substr(7));
    if (StartsWith(t, "size:")) e.large = Trim(std::string_view(t).substr(5)) == "large";
  }
  return e;
}

std::vector<SuiteEntry> Scan(const std::string& folder, bool include_large) {
  std::vector<SuiteEntry> list;
  std::filesystem::path dir = std::filesystem::path(KX_SOURCE_DIR) / "tests/models" / folder;
  if (!std::filesystem::exists(dir)) return list;
  for (const auto& f : std::filesystem::directory_iterator(dir)) {
    if (f.path().extension() != ".zpm") continue;
    SuiteEntry e = ReadEntry(f.path());
    if (include_large || !e.large) list.push_back(e);
  }
  std::sort(list.begin(), list.end(),
            [](const SuiteEntry& a, const SuiteEntry& b) { return a.name < b.name; });
  return list;
}

}  // namespace

std::unique_ptr<LoadedModel> LoadModelText(std::string_view zpm_text, std::string name) {
  OutputCapture quiet;
  model::BuildOptions options;
  options.max_memory = 10;
  return Wrap(model::BuildModelFromText(zpm_text, options), std::move(name));
}

std::unique_ptr<LoadedModel> LoadModelFile(const std::string& path) {
  OutputCapture quiet;
  model::BuildOptions options;
  options.max_memory = 10;
  return Wrap(model::BuildModel(path, options),
              std::filesystem::path(path).stem().string());
}

std::vector<SuiteEntry> NlpSuite(bool include_large) { return Scan("nlp", include_large); }

std::vector<SuiteEntry> MinlpSuite() { return Scan("minlp", true); }

Solved SolveQuietly(SolverKind solver, solvers::Problem& problem,
                    const solvers::SolverSettings& settings,
                    const solvers::biopt::Options& biopt_options) {
  WorkingDir dir("kx_solve");
  OutputCapture capture;
  Solved s;
  switch (solver) {
    case SolverKind::kAsopt:
      s.result = solvers::SolveAsopt(problem, settings);
      break;
    case SolverKind::kBiopt:
      s.result = solvers::SolveBiopt(problem, settings, biopt_options);
      break;
    case SolverKind::kIpopt:
      s.result = solvers::SolveIpopt(problem, settings);
      break;
  }
  s.output = capture.text();
  return s;
}

const std::vector<BarrierRule>& BarrierRules() {
  using solvers::biopt::BarrierRule, solvers::biopt::MuOracle;
  const auto rule = [](BarrierRule r, MuOracle oracle) {
    solvers::biopt::Options options;
    options.log_file = "";
    options.barrier_rule = r;
    options.mu_oracle = oracle;
    return options;
  };
  static const std::vector<testing::BarrierRule> rules = {
      {"monotone", rule(BarrierRule::kMonotone, MuOracle::kSpread)},
      {"adaptive_spread", rule(BarrierRule::kAdaptive, MuOracle::kSpread)},
      {"adaptive_probing", rule(BarrierRule::kAdaptive, MuOracle::kProbing)},
  };
  return rules;
}

Solved SolveAsoptWithOptions(solvers::Problem& problem, const std::string& options,
                             const solvers::SolverSettings& settings) {
  WorkingDir dir("kx_asopt");
  if (!options.empty()) dir.Write("asopt.opt", options);
  OutputCapture capture;
  Solved s;
  solvers::SqpState state;
  s.result = solvers::SolveAsopt(problem, settings, state, solvers::WarmStart::kCold);
  s.output = capture.text();
  return s;
}

double Stationarity(solvers::Problem& p, const solvers::SolverResult& r) {
  std::vector<double> g(p.num_vars()), jv(p.nnz_jac());
  std::vector<int> rows(p.nnz_jac()), cols(p.nnz_jac());
  p.JacobianStructure(rows, cols);
  if (!p.Gradient(r.x, g) || !p.JacobianValues(r.x, jv)) return INFINITY;
  double gmax = 1;
  for (double v : g) gmax = std::max(gmax, std::abs(v));
  for (size_t k = 0; k < jv.size(); ++k) g[cols[k]] += jv[k] * r.lambda[rows[k]];
  double worst = 0;
  for (size_t j = 0; j < g.size(); ++j) {
    worst = std::max(worst, std::abs(g[j] - r.z_lower[j] + r.z_upper[j]));
  }
  return worst / gmax;
}

std::string ModelText(const std::string& variables, const std::string& equations) {
  return "Model test\n  Variables\n" + variables + "  End Variables\n  Equations\n" +
         equations + "  End Equations\nEnd Model\n";
}

const std::vector<ModelCase>& ModelCases() {
  static const std::vector<ModelCase> cases = [] {
    std::vector<ModelCase> list;
    for (const SuiteEntry& e : Scan("cases", true))
      list.push_back({e.name, ReadFile(e.path), e.status, e.optimum});
    return list;
  }();
  return cases;
}

const std::string& ModelCaseText(const std::string& name) {
  for (const ModelCase& c : ModelCases())
    if (c.name == name) return c.text;
  throw std::runtime_error("no model case " + name);
}

double RelativeError(double f, double optimum) {
  if (optimum == 0.0) return std::abs(f);
  return std::abs(f - optimum) / std::max(std::abs(optimum), 1e-8);
}

}  // namespace kx::testing
