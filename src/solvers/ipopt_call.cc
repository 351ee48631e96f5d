#include "solvers/ipopt_call.h"

#include <dlfcn.h>

#include <algorithm>
#include <coin/IpStdCInterface.h>
#include <string>
#include <variant>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "base/timers.h"
#include "solvers/banner.h"
#include "solvers/problem_view.h"
#include "solvers/status.h"

namespace kx::solvers {
namespace {

// Print level of the library's log file "ipopt.out": one line per iteration plus the
// derivative checker's report and the final statistics.
constexpr int kFilePrintLevel = 5;

// What the callbacks see of the call: the problem through its view (evaluations, counts,
// timers, MAX_TIME) and the iteration count the library last reported.
struct CallData {
  ProblemView* view = nullptr;
  int iterations = 0;
  std::vector<int> solver_row;   // the library's index of each of the problem's rows
  std::vector<double> row_work;  // residuals or multipliers in the problem's row order
};

// The rows in the order of their first column (stable): rows that read neighbouring columns
// become neighbours. Models list their rows statement by statement, so that the rows of one
// interval of a discretisation lie far apart; the factorisation's ordering of the KKT matrix
// breaks its ties by index and finds less fill from this order.
std::vector<int> BandedRowOrder(const ProblemView& view) {
  const int m = view.m();
  std::vector<int> first(m, view.n());
  for (size_t k = 0; k < view.jac_rows().size(); ++k)
    first[view.jac_rows()[k]] = std::min(first[view.jac_rows()[k]], view.jac_cols()[k]);
  std::vector<int> order(m);
  for (int r = 0; r < m; ++r) order[r] = r;
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return first[a] < first[b]; });
  std::vector<int> solver_row(m);
  for (int k = 0; k < m; ++k) solver_row[order[k]] = k;
  return solver_row;
}

// Row-indexed values between the problem's order (`model`) and the library's (`solver`).
void ToSolverRows(const std::vector<int>& solver_row, const double* model, double* solver) {
  for (size_t r = 0; r < solver_row.size(); ++r) solver[solver_row[r]] = model[r];
}
void ToModelRows(const std::vector<int>& solver_row, const double* solver, double* model) {
  for (size_t r = 0; r < solver_row.size(); ++r) model[r] = solver[solver_row[r]];
}

CallData& Data(UserDataPtr user_data) { return *static_cast<CallData*>(user_data); }
ProblemView& View(UserDataPtr user_data) { return *Data(user_data).view; }

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
  return Guarded([&] { return View(user_data).Objective({x, size_t(n)}, *f); });
}

Bool EvalConstraints(Index n, Number* x, Bool, Index m, Number* c, UserDataPtr user_data) {
  CallData& data = Data(user_data);
  return Guarded([&] {
    if (!data.view->Constraints({x, size_t(n)}, {data.row_work.data(), size_t(m)})) return false;
    ToSolverRows(data.solver_row, data.row_work.data(), c);
    return true;
  });
}

Bool EvalGradient(Index n, Number* x, Bool, Number* g, UserDataPtr user_data) {
  return Guarded([&] { return View(user_data).Gradient({x, size_t(n)}, {g, size_t(n)}); });
}

// Copies a structure the view read into the library's arrays.
Bool CopyStructure(const std::vector<int>& rows, const std::vector<int>& cols, Index* out_rows,
                   Index* out_cols) {
  std::copy(rows.begin(), rows.end(), out_rows);
  std::copy(cols.begin(), cols.end(), out_cols);
  return TRUE;
}

// First call (values == NULL): the structure; later calls: the values.
Bool EvalJacobian(Index n, Number* x, Bool, Index, Index nnz, Index* rows, Index* cols,
                  Number* values, UserDataPtr user_data) {
  ProblemView& view = View(user_data);
  if (values == nullptr) {
    CopyStructure(view.jac_rows(), view.jac_cols(), rows, cols);
    for (Index k = 0; k < nnz; ++k) rows[k] = Data(user_data).solver_row[rows[k]];
    return TRUE;
  }
  return Guarded([&] { return view.Jacobian({x, size_t(n)}, {values, size_t(nnz)}); });
}

Bool EvalHessian(Index n, Number* x, Bool, Number obj_factor, Index m, Number* lambda, Bool,
                 Index nnz, Index* rows, Index* cols, Number* values, UserDataPtr user_data) {
  ProblemView& view = View(user_data);
  if (!view.has_hessian()) return FALSE;
  if (values == nullptr) return CopyStructure(view.hess_rows(), view.hess_cols(), rows, cols);
  CallData& data = Data(user_data);
  ToModelRows(data.solver_row, lambda, data.row_work.data());
  return Guarded([&] {
    return view.Hessian({x, size_t(n)}, obj_factor, {data.row_work.data(), size_t(m)},
                        {values, size_t(nnz)});
  });
}

// Called once per iteration: keeps the iteration count and stops the solve when the wall
// time of the call is used up.
Bool OnIteration(Index, Index iter_count, Number, Number, Number, Number, Number, Number,
                 Number, Number, Index, UserDataPtr user_data) {
  CallData& data = Data(user_data);
  data.iterations = iter_count;
  return data.view->TimeUp() ? FALSE : TRUE;
}

// One library option: its key, its value, and a line printed just before it is set.
struct Option {
  std::string key;
  std::variant<std::string, int, double> value;
  std::string note;
};

constexpr int kMumpsOrderQamd = 6;  // MUMPS ICNTL(7): approximate minimum degree, dense rows aside

std::string DerivativeTest(int diaglevel) {
  if (diaglevel <= 4) return "none";
  return diaglevel == 5 ? "first-order" : "second-order";
}

// The option list, in the order it is set: the fixed set first, then the additions that keep
// the console quiet (the file keeps the detail) and carry the warm start.
std::vector<Option> BuildOptions(const ProblemView& view, const SolverSettings& settings,
                                 bool warm_start) {
  std::vector<Option> options = {{"derivative_test", DerivativeTest(settings.diaglevel), ""},
                                 {"mu_strategy", std::string("adaptive"), ""}};
  if (view.has_hessian()) {
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
    // MUMPS's automatic choice is AMF here: on a horizon's banded KKT matrix its fill, and so
    // the factor time, grows faster than the step count. QAMD keeps the growth linear.
    options.push_back({"mumps_pivot_order", kMumpsOrderQamd, ""});
  }
  options.push_back({"max_iter", settings.max_iter, ""});
  options.push_back({"tol", settings.constraint_tol, ""});
  options.push_back({"mu_init", 0.0001, ""});
  options.push_back({"derivative_test_tol", 0.005, ""});
  options.push_back({"print_level", 0, ""});
  options.push_back({"sb", std::string("yes"), ""});
  if (warm_start) options.push_back({"warm_start_init_point", std::string("yes"), ""});
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

// The point and multipliers the library starts from and overwrites with its solution.
struct Iterates {
  std::vector<double> x, lambda, z_lower, z_upper;
};

Iterates StartIterates(ProblemView& view) {
  return {view.Start(), std::vector<double>(view.m(), 0.0), std::vector<double>(view.n(), 0.0),
          std::vector<double>(view.n(), 0.0)};
}

// Sets the options in order and solves; false (after its message) when the log file or an
// option could not be set, in which case nothing was solved.
bool ConfigureAndSolve(IpoptProblem handle, const SolverSettings& settings, Iterates& a,
                       CallData& data, SolverResult& result) {
  if (!OpenIpoptOutputFile(handle, const_cast<char*>("ipopt.out"), kFilePrintLevel)) {
    Say("Error opening the Ipopt output file.");
    return false;
  }
  bool warm = settings.warm && !a.lambda.empty() &&
              data.view->problem().StartMultipliers(data.row_work);
  if (warm) ToSolverRows(data.solver_row, data.row_work.data(), a.lambda.data());
  for (const Option& option : BuildOptions(*data.view, settings, warm)) {
    if (!SetOption(handle, option)) {
      Say("Error setting an option");
      return false;
    }
  }
  SetIntermediateCallback(handle, OnIteration);
  std::vector<double> c(a.lambda.size());
  double objective = 0.0;
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
  ProblemView view(problem, settings.max_time);
  Iterates a = StartIterates(view);
  CallData data{.view = &view,
                .solver_row = BandedRowOrder(view),
                .row_work = std::vector<double>(view.m())};
  // The library copies the bounds; it takes them through non-const pointers.
  auto bounds = [](const std::vector<double>& v) { return const_cast<double*>(v.data()); };
  std::vector<double> cl(view.m()), cu(view.m());
  ToSolverRows(data.solver_row, view.cl().data(), cl.data());
  ToSolverRows(data.solver_row, view.cu().data(), cu.data());
  SolverResult result;
  result.status = kSystemError;
  IpoptProblem handle = CreateIpoptProblem(
      view.n(), bounds(view.xl()), bounds(view.xu()), view.m(), cl.data(), cu.data(),
      view.nnz_jac(), view.nnz_hess(),
      /*index_style=*/0, EvalObjective, EvalConstraints, EvalGradient, EvalJacobian, EvalHessian);
  if (handle == nullptr) {
    Say("Error creating an Ipopt Problem handle.");
  } else {
    if (ConfigureAndSolve(handle, settings, a, data, result)) ReportOutcome(result);
    FreeIpoptProblem(handle);
  }
  result.iterations = data.iterations;
  result.residual_evals = view.residual_evals();
  result.jacobian_evals = view.jacobian_evals();
  result.x = std::move(a.x);
  result.lambda.resize(a.lambda.size());
  ToModelRows(data.solver_row, a.lambda.data(), result.lambda.data());
  result.z_lower = std::move(a.z_lower);
  result.z_upper = std::move(a.z_upper);
  return result;
}

}  // namespace kx::solvers
