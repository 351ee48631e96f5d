#include "solvers/ipopt_call.h"

#include <dlfcn.h>

#include <chrono>
#include <coin/IpStdCInterface.h>
#include <string>
#include <variant>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "base/timers.h"
#include "solvers/banner.h"
#include "solvers/status.h"

namespace kx::solvers {
namespace {

// Print level of the library's log file "ipopt.out": one line per iteration plus the
// derivative checker's report and the final statistics.
constexpr int kFilePrintLevel = 5;

// What the callbacks see of the call: the problem, the cycle's mode and the counters kept for
// the solve report.
struct CallData {
  Problem* problem = nullptr;
  int imode = 3;                  // IMODE of the cycle
  int iterations = 0;             // last iteration number the library reported
  int residual_evals = 0;         // constraint callbacks
  int jacobian_evals = 0;         // Jacobian value callbacks
  double max_time = kInfinity;    // wall-time limit of the solve, seconds
  std::chrono::steady_clock::time_point start;
};

CallData& Data(UserDataPtr user_data) { return *static_cast<CallData*>(user_data); }

// Runs one evaluation; an evaluation that fails or throws is reported to the library as a
// failed evaluation so that it cuts its step back instead of unwinding through C code.
template <typename Fn>
Bool Guarded(Fn&& fn) {
  try {
    return fn() ? TRUE : FALSE;
  } catch (...) {
    return FALSE;
  }
}

Bool EvalObjective(Index n, Number* x, Bool, Number* f, UserDataPtr user_data) {
  ScopedTimer timer("Objective Calc: zpm_p");
  return Guarded([&] { return Data(user_data).problem->Objective({x, size_t(n)}, *f); });
}

Bool EvalConstraints(Index n, Number* x, Bool, Index m, Number* c, UserDataPtr user_data) {
  ScopedTimer timer("Constraint Calc: zpm_c");
  CallData& data = Data(user_data);
  ++data.residual_evals;
  return Guarded([&] { return data.problem->Constraints({x, size_t(n)}, {c, size_t(m)}); });
}

Bool EvalGradient(Index n, Number* x, Bool, Number* g, UserDataPtr user_data) {
  ScopedTimer timer("Objective Grad: zpm_g");
  return Guarded([&] { return Data(user_data).problem->Gradient({x, size_t(n)}, {g, size_t(n)}); });
}

// First call (values == NULL): the structure; later calls: the values.
Bool EvalJacobian(Index n, Number* x, Bool, Index, Index nnz, Index* rows, Index* cols,
                  Number* values, UserDataPtr user_data) {
  CallData& data = Data(user_data);
  if (values == nullptr) {
    ScopedTimer timer("Sparsity: zpm_s");
    return Guarded([&] {
      data.problem->JacobianStructure({rows, size_t(nnz)}, {cols, size_t(nnz)});
      return true;
    });
  }
  ScopedTimer timer("1st Deriv #1: zpm_a1");
  ++data.jacobian_evals;
  return Guarded([&] { return data.problem->JacobianValues({x, size_t(n)}, {values, size_t(nnz)}); });
}

// First call (values == NULL): the lower-triangle structure; later calls: the values of the
// Hessian of obj_factor * f + lambda^T c.
Bool EvalHessian(Index n, Number* x, Bool, Number obj_factor, Index m, Number* lambda, Bool,
                 Index nnz, Index* rows, Index* cols, Number* values, UserDataPtr user_data) {
  Problem& problem = *Data(user_data).problem;
  if (!problem.has_hessian()) return FALSE;
  if (values == nullptr) {
    ScopedTimer timer("Sparsity: zpm_s");
    return Guarded([&] {
      problem.HessianStructure({rows, size_t(nnz)}, {cols, size_t(nnz)});
      return true;
    });
  }
  ScopedTimer timer("2nd Deriv: zpm_h");
  return Guarded([&] {
    return problem.HessianValues({x, size_t(n)}, obj_factor, {lambda, size_t(m)},
                                 {values, size_t(nnz)});
  });
}

// Called once per iteration: keeps the iteration count and stops the solve when the wall
// time of the call is used up.
Bool OnIteration(Index, Index iter_count, Number, Number, Number, Number, Number, Number,
                 Number, Number, Index, UserDataPtr user_data) {
  CallData& data = Data(user_data);
  data.iterations = iter_count;
  if (data.max_time >= kInfinity) return TRUE;
  return SecondsSince(data.start) <= data.max_time ? TRUE : FALSE;
}

// One library option: its key, its value, and a line printed just before it is set.
struct Option {
  std::string key;
  std::variant<std::string, int, double> value;
  std::string note;
};

std::string DerivativeTest(int diaglevel) {
  if (diaglevel <= 4) return "none";
  return diaglevel == 5 ? "first-order" : "second-order";
}

// The option list, in the order it is set: the fixed set first, then the additions that keep
// the console quiet (the file keeps the detail) and carry the warm start.
std::vector<Option> BuildOptions(Problem& problem, const SolverSettings& settings,
                                 bool warm_start) {
  std::vector<Option> options = {{"derivative_test", DerivativeTest(settings.diaglevel), ""},
                                 {"mu_strategy", std::string("adaptive"), ""}};
  if (problem.has_hessian()) {
    options.push_back({"hessian_approximation", std::string("exact"), "Info: Exact Hessian"});
  } else {
    options.push_back(
        {"hessian_approximation", std::string("limited-memory"), "Info: L-BFGS Hessian"});
  }
  if (HslAvailable()) {
    options.push_back({"linear_solver", std::string("ma27"), ""});
  } else {
    options.push_back({"linear_solver", std::string("mumps"),
                       "Info: MA27 not available, using linear solver MUMPS"});
  }
  options.push_back({"max_iter", settings.max_iter, ""});
  options.push_back({"tol", settings.constraint_tol, ""});
  options.push_back({"mu_init", 0.0001, ""});
  options.push_back({"derivative_test_tol", 0.005, ""});
  options.push_back({"print_level", 0, ""});
  options.push_back({"sb", std::string("yes"), ""});
  if (warm_start) options.push_back({"warm_start_init_point", std::string("yes"), ""});
  if (settings.warm) {
    // The start is the previous cycle's solution: keep it where it is instead of pushing
    // variables at their bounds into the interior, which can lead to another local optimum.
    options.push_back({"bound_push", 1e-6, ""});
    options.push_back({"bound_frac", 1e-6, ""});
  }
  return options;
}

bool SetOption(IpoptProblem handle, const Option& option) {
  if (!option.note.empty()) Say(option.note);
  char* key = const_cast<char*>(option.key.c_str());
  if (const auto* s = std::get_if<std::string>(&option.value)) {
    return AddIpoptStrOption(handle, key, const_cast<char*>(s->c_str()));
  }
  if (const auto* i = std::get_if<int>(&option.value)) return AddIpoptIntOption(handle, key, *i);
  return AddIpoptNumOption(handle, key, std::get<double>(option.value));
}

// The sizes, bounds and starting point handed to the library.
struct Arrays {
  int n = 0, m = 0, nnz_jac = 0, nnz_hess = 0;
  std::vector<double> xl, xu, cl, cu, x, lambda, z_lower, z_upper;
};

Arrays Gather(Problem& problem) {
  Arrays a;
  a.n = problem.num_vars();
  a.m = problem.num_cons();
  a.nnz_jac = problem.nnz_jac();
  a.nnz_hess = problem.has_hessian() ? problem.nnz_hess() : 0;
  a.xl.resize(a.n);
  a.xu.resize(a.n);
  a.x.resize(a.n);
  a.cl.resize(a.m);
  a.cu.resize(a.m);
  a.lambda.assign(a.m, 0.0);
  a.z_lower.assign(a.n, 0.0);
  a.z_upper.assign(a.n, 0.0);
  problem.Bounds(a.xl, a.xu);
  problem.ConstraintBounds(a.cl, a.cu);
  problem.Start(a.x);
  return a;
}

// Sets the options in order and solves; false (after its message) when the log file or an
// option could not be set, in which case nothing was solved.
bool ConfigureAndSolve(IpoptProblem handle, Problem& problem, const SolverSettings& settings,
                       Arrays& a, CallData& data, SolverResult& result) {
  if (!OpenIpoptOutputFile(handle, const_cast<char*>("ipopt.out"), kFilePrintLevel)) {
    Say("Error opening the Ipopt output file.");
    return false;
  }
  const bool warm = settings.warm && a.m > 0 && problem.StartMultipliers(a.lambda);
  for (const Option& option : BuildOptions(problem, settings, warm)) {
    if (!SetOption(handle, option)) {
      Say("Error setting an option");
      return false;
    }
  }
  SetIntermediateCallback(handle, OnIteration);
  std::vector<double> c(a.m);
  double objective = 0.0;
  data.start = std::chrono::steady_clock::now();
  {
    ScopedTimer timer("Solver: ipopt");
    result.status = IpoptSolve(handle, a.x.data(), c.data(), &objective, a.lambda.data(),
                               a.z_lower.data(), a.z_upper.data(), &data);
  }
  result.objective = objective;
  return true;
}

void ReportOutcome(const SolverResult& result) {
  if (result.status == 0) {
    Say("The solution was found.");
    Say("The final value of the objective function is " + FormatReal(result.objective));
  } else {
    Say("An error occured.");
    Say("The error code is " + std::to_string(result.status));
  }
}

}  // namespace

bool HslAvailable() {
  static const bool available = [] {
    for (const char* name : {"libhsl.so", "libcoinhsl.so"}) {
      if (void* lib = dlopen(name, RTLD_LAZY | RTLD_LOCAL)) {
        dlclose(lib);
        return true;
      }
    }
    return false;
  }();
  return available;
}

SolverResult SolveIpopt(Problem& problem, const SolverSettings& settings) {
  PrintSolverBanner('*', settings.imode, " with Interior Point Solver");
  Arrays a = Gather(problem);
  CallData data;
  data.problem = &problem;
  data.imode = settings.imode;
  data.max_time = settings.max_time;
  SolverResult result;
  result.status = kSystemError;
  IpoptProblem handle = CreateIpoptProblem(
      a.n, a.xl.data(), a.xu.data(), a.m, a.cl.data(), a.cu.data(), a.nnz_jac, a.nnz_hess,
      /*index_style=*/0, EvalObjective, EvalConstraints, EvalGradient, EvalJacobian, EvalHessian);
  if (handle == nullptr) {
    Say("Error creating an Ipopt Problem handle.");
  } else {
    if (ConfigureAndSolve(handle, problem, settings, a, data, result)) ReportOutcome(result);
    FreeIpoptProblem(handle);
  }
  result.iterations = data.iterations;
  result.residual_evals = data.residual_evals;
  result.jacobian_evals = data.jacobian_evals;
  result.x = std::move(a.x);
  result.lambda = std::move(a.lambda);
  result.z_lower = std::move(a.z_lower);
  result.z_upper = std::move(a.z_upper);
  return result;
}

}  // namespace kx::solvers
