// Test problems for the solvers: models written in the modelling language, built through the
// real compiler, and handed to a solver as a solvers::Problem. The suite files live in
// tests/models/nlp/*.zpm, the small cases in tests/models/cases/*.zpm; each starts with
// comment lines that give its known outcome:
//   ! optimum: -44.0
//   ! status: -1         (cases only: the solver status expected, 0 when omitted)
//   ! size: large        (optional: a scalable problem of 1e4 variables or more)
//   ! source: <literature reference>
#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "model/access.h"
#include "model/records.h"
#include "solvers/biopt_solver.h"
#include "solvers/model_problem.h"
#include "solvers/problem.h"

namespace kx::testing {

// A model built from a file or text, kept alive together with its access and problem.
struct LoadedModel {
  model::ModelStore store;
  std::unique_ptr<model::ModelAccess> access;
  std::unique_ptr<solvers::ModelProblem> problem;
};

// Builds quietly (the builder's report is swallowed); a model error throws kx::Stop.
std::unique_ptr<LoadedModel> LoadModelText(std::string_view zpm_text, std::string name = "text");
std::unique_ptr<LoadedModel> LoadModelFile(const std::string& path);

struct SuiteEntry {
  std::string name;   // file stem
  std::string path;   // absolute path of the .zpm file
  double optimum = 0;
  int status = 0;
  bool large = false;
};

// Parameterised tests over the suite show each problem by name in failure messages (the test
// framework finds this overload).
inline void PrintTo(const SuiteEntry& entry, std::ostream* os) { *os << entry.name; }

// The suite in name order; `include_large` false leaves out the scalable problems.
std::vector<SuiteEntry> NlpSuite(bool include_large);
std::vector<SuiteEntry> MinlpSuite();  // tests/models/minlp/*.zpm, same header

// The solvers under test, and one way to run each: quietly, in a fresh scratch directory
// where the solver writes its log files.
enum class SolverKind { kAsopt, kBiopt, kIpopt };
struct Solved {
  solvers::SolverResult result;
  std::string output;  // what the solve printed
};
Solved SolveQuietly(SolverKind solver, solvers::Problem& problem,
                    const solvers::SolverSettings& settings,
                    const solvers::biopt::Options& biopt_options = {});
// BIOPT's barrier rules (and, for the adaptive rule, centring oracles), quiet: no log file.
struct BarrierRule {
  const char* name;
  solvers::biopt::Options options;
};
const std::vector<BarrierRule>& BarrierRules();

// ASOPT from a cold start with `options` as the run's "asopt.opt" (none when empty).
Solved SolveAsoptWithOptions(solvers::Problem& problem, const std::string& options,
                             const solvers::SolverSettings& settings = {});

// Largest |grad f + J' lambda - z_lower + z_upper| at the result, relative to
// max(1, largest gradient entry); infinite when an evaluation fails.
double Stationarity(solvers::Problem& problem, const solvers::SolverResult& r);

// "Model test" with the given variable and equation sections.
std::string ModelText(const std::string& variables, const std::string& equations);

// Small models with a known outcome that ASOPT and BIOPT must both reach: a status and, on
// success, the optimum.
struct ModelCase {
  std::string name;
  std::string text;
  int status = 0;
  double optimum = 0;
};
inline void PrintTo(const ModelCase& c, std::ostream* os) { *os << c.name; }
const std::vector<ModelCase>& ModelCases();  // in name order
const std::string& ModelCaseText(const std::string& name);

// |f - optimum| / max(|optimum|, 1e-8): relative to the optimum's own size, so an objective
// of order 1e-2 is judged as strictly as one of order 1e2; |f| when the optimum is 0.
double RelativeError(double f, double optimum);

}  // namespace kx::testing
