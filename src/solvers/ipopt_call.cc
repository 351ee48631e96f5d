#include "solvers/ipopt_call.h"

#include <dlfcn.h>

#include <algorithm>
#include <coin/IpIpoptApplication.hpp>
#include <coin/IpTNLP.hpp>
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

using Ipopt::Index;
using Ipopt::Number;

// Print level of the library's log file "ipopt.out": one line per iteration plus the
// derivative checker's report and the final statistics.
constexpr Ipopt::EJournalLevel kFilePrintLevel = Ipopt::J_ITERSUMMARY;

// The rows in the order of their first column (stable): rows that read neighbouring columns
// become neighbours. Models list their rows statement by statement, so that the rows of one
// interval of a discretisation lie far apart; the factorisation's ordering of the KKT matrix
// breaks its ties by index and finds less fill from this order.
std::vector<int> BandedRowOrder(int n, int m, const std::vector<int>& jac_rows,
                                const std::vector<int>& jac_cols) {
  std::vector<int> first(m, n);
  for (size_t k = 0; k < jac_rows.size(); ++k)
    first[jac_rows[k]] = std::min(first[jac_rows[k]], jac_cols[k]);
  std::vector<int> order(m);
  for (int r = 0; r < m; ++r) order[r] = r;
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return first[a] < first[b]; });
  std::vector<int> solver_row(m);
  for (int k = 0; k < m; ++k) solver_row[order[k]] = k;
  return solver_row;
}

// A structure read from the problem, held only until the library has taken its own copy.
struct Structure {
  std::vector<int> rows, cols;

  // Copies into the library's arrays (rows through `row_map` when given) and lets go.
  void HandOver(Ipopt::Index* out_rows, Ipopt::Index* out_cols,
                const std::vector<int>* row_map = nullptr) {
    for (size_t k = 0; k < rows.size(); ++k) {
      out_rows[k] = row_map ? (*row_map)[rows[k]] : rows[k];
      out_cols[k] = cols[k];
    }
    *this = Structure{};
  }
};

// Row-indexed values between the problem's order (`model`) and the library's (`solver`).
void ToSolverRows(const std::vector<int>& solver_row, const double* model, double* solver) {
  for (size_t r = 0; r < solver_row.size(); ++r) solver[solver_row[r]] = model[r];
}
void ToModelRows(const std::vector<int>& solver_row, const double* solver, double* model) {
  for (size_t r = 0; r < solver_row.size(); ++r) model[r] = solver[solver_row[r]];
}

// The problem as the library's problem interface sees it: evaluations go through the view
// (counts, timers, MAX_TIME). Bounds, start and structures are written from the problem
// straight into the library's arrays, which it keeps, so no copy of them is held here; the
// solution is kept when the library hands it back.
class IpoptAdapter : public Ipopt::TNLP {
 public:
  // Reads both structures (the row order needs the Jacobian's) and holds them until the
  // library asks for them.
  IpoptAdapter(ProblemView& view, SolverResult& result)
      : view_(view), result_(result), row_work_(view.m()) {
    {
      ScopedTimer timer("Sparsity: zpm_s");
      Read(jacobian_, view.nnz_jac(), &Problem::JacobianStructure);
      Read(hessian_, view.nnz_hess(), &Problem::HessianStructure);
    }
    solver_row_ = BandedRowOrder(view.n(), view.m(), jacobian_.rows, jacobian_.cols);
  }

  int iterations() const { return iterations_; }
  bool finalized() const { return finalized_; }

  // Starts from the problem's previous row multipliers when `wanted` and it has them; true
  // when it will.
  bool WarmStart(bool wanted) {
    warm_ = wanted && view_.m() > 0 && view_.problem().StartMultipliers(row_work_);
    return warm_;
  }

  bool get_nlp_info(Index& n, Index& m, Index& nnz_jac, Index& nnz_hess,
                    IndexStyleEnum& style) override {
    n = view_.n();
    m = view_.m();
    nnz_jac = view_.nnz_jac();
    nnz_hess = view_.nnz_hess();
    style = C_STYLE;
    return true;
  }

  bool get_bounds_info(Index n, Number* xl, Number* xu, Index m, Number* cl, Number* cu) override {
    view_.problem().Bounds({xl, size_t(n)}, {xu, size_t(n)});
    view_.problem().ConstraintBounds({cl, size_t(m)}, {cu, size_t(m)});
    for (Number* bounds : {cl, cu}) {
      std::copy(bounds, bounds + m, row_work_.begin());
      ToSolverRows(solver_row_, row_work_.data(), bounds);
    }
    return true;
  }

  // The start point; bound multipliers start at zero, row multipliers (warm start only) at
  // the problem's previous ones.
  bool get_starting_point(Index n, bool init_x, Number* x, bool init_z, Number* z_lower,
                          Number* z_upper, Index m, bool init_lambda, Number* lambda) override {
    if (init_x) view_.problem().Start({x, size_t(n)});
    if (init_z) {
      std::fill(z_lower, z_lower + n, 0.0);
      std::fill(z_upper, z_upper + n, 0.0);
    }
    if (init_lambda) {
      std::fill(row_work_.begin(), row_work_.end(), 0.0);
      if (warm_) view_.problem().StartMultipliers(row_work_);
      ToSolverRows(solver_row_, row_work_.data(), lambda);
    }
    return m == view_.m();
  }

  bool eval_f(Index n, const Number* x, bool, Number& f) override {
    return Guarded([&] { return view_.Objective({x, size_t(n)}, f); });
  }

  bool eval_grad_f(Index n, const Number* x, bool, Number* g) override {
    return Guarded([&] { return view_.Gradient({x, size_t(n)}, {g, size_t(n)}); });
  }

  bool eval_g(Index n, const Number* x, bool, Index m, Number* c) override {
    return Guarded([&] {
      if (!view_.Constraints({x, size_t(n)}, {row_work_.data(), size_t(m)})) return false;
      ToSolverRows(solver_row_, row_work_.data(), c);
      return true;
    });
  }

  // First call (values == NULL): the structure; later calls: the values.
  bool eval_jac_g(Index n, const Number* x, bool, Index, Index nnz, Index* rows, Index* cols,
                  Number* values) override {
    if (values == nullptr) {
      if (jacobian_.rows.size() != size_t(nnz)) Read(jacobian_, nnz, &Problem::JacobianStructure);
      jacobian_.HandOver(rows, cols, &solver_row_);
      return true;
    }
    return Guarded([&] { return view_.Jacobian({x, size_t(n)}, {values, size_t(nnz)}); });
  }

  bool eval_h(Index n, const Number* x, bool, Number obj_factor, Index m, const Number* lambda,
              bool, Index nnz, Index* rows, Index* cols, Number* values) override {
    if (!view_.has_hessian()) return false;
    if (values == nullptr) {
      if (hessian_.rows.size() != size_t(nnz)) Read(hessian_, nnz, &Problem::HessianStructure);
      hessian_.HandOver(rows, cols);
      return true;
    }
    ToModelRows(solver_row_, lambda, row_work_.data());
    return Guarded([&] {
      return view_.Hessian({x, size_t(n)}, obj_factor, {row_work_.data(), size_t(m)},
                           {values, size_t(nnz)});
    });
  }

  // Called once per iteration: keeps the iteration count and stops the solve when the wall
  // time of the call is used up.
  bool intermediate_callback(Ipopt::AlgorithmMode, Index iter, Number, Number, Number, Number,
                             Number, Number, Number, Number, Index, const Ipopt::IpoptData*,
                             Ipopt::IpoptCalculatedQuantities*) override {
    iterations_ = iter;
    return !view_.TimeUp();
  }

  void finalize_solution(Ipopt::SolverReturn, Index n, const Number* x, const Number* z_lower,
                         const Number* z_upper, Index m, const Number*, const Number* lambda,
                         Number objective, const Ipopt::IpoptData*,
                         Ipopt::IpoptCalculatedQuantities*) override {
    result_.x.assign(x, x + n);
    result_.z_lower.assign(z_lower, z_lower + n);
    result_.z_upper.assign(z_upper, z_upper + n);
    result_.lambda.resize(m);
    ToModelRows(solver_row_, lambda, result_.lambda.data());
    result_.objective = objective;
    finalized_ = true;
  }

 private:
  using ReadFn = void (Problem::*)(std::span<int>, std::span<int>);

  // Reads a structure of `nnz` positions (again, should the library ask twice).
  void Read(Structure& s, int nnz, ReadFn read) {
    s.rows.assign(nnz, 0);
    s.cols.assign(nnz, 0);
    if (nnz > 0) (view_.problem().*read)(s.rows, s.cols);
  }

  // Runs one evaluation; an evaluation that fails or throws is reported to the library as a
  // failed evaluation so that it cuts its step back instead of unwinding through it.
  template <typename Fn>
  static bool Guarded(Fn&& fn) {
    try {
      return fn();
    } catch (...) {
      return false;
    }
  }

  ProblemView& view_;
  SolverResult& result_;
  bool warm_ = false;             // row multipliers start at the problem's previous ones
  Structure jacobian_, hessian_;  // read, not yet taken by the library
  std::vector<int> solver_row_;   // the library's index of each of the problem's rows
  std::vector<double> row_work_;  // residuals or multipliers in the problem's row order
  int iterations_ = 0;            // as the library last reported it
  bool finalized_ = false;        // the library handed a solution back
};

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

bool SetOption(Ipopt::OptionsList& list, const Option& option) {
  if (!option.note.empty()) Say(option.note);
  if (const auto* s = std::get_if<std::string>(&option.value)) {
    return list.SetStringValue(option.key, *s);
  }
  if (const auto* i = std::get_if<int>(&option.value)) return list.SetIntegerValue(option.key, *i);
  return list.SetNumericValue(option.key, std::get<double>(option.value));
}

// The library takes a problem with at least one variable whose rows, if any, have Jacobian
// entries.
bool LibraryTakes(const ProblemView& view) {
  return view.n() >= 1 && (view.m() == 0 ? view.nnz_jac() == 0 : view.nnz_jac() >= 1);
}

// Sets the options in order and solves; false (after its message) when the log file or an
// option could not be set, in which case nothing was solved. The option file "ipopt.opt",
// when there is one, is read after the options are set.
bool ConfigureAndSolve(Ipopt::IpoptApplication& app, const SolverSettings& settings,
                       Ipopt::SmartPtr<IpoptAdapter> adapter, ProblemView& view,
                       SolverResult& result) {
  if (!app.OpenOutputFile("ipopt.out", kFilePrintLevel)) {
    Say("Error opening the Ipopt output file.");
    return false;
  }
  const bool warm = adapter->WarmStart(settings.warm);
  for (const Option& option : BuildOptions(view, settings, warm)) {
    if (!SetOption(*app.Options(), option)) {
      Say("Error setting an option");
      return false;
    }
  }
  ScopedTimer timer("Solver: ipopt");
  Ipopt::ApplicationReturnStatus status = app.Initialize();
  if (status == Ipopt::Solve_Succeeded) {
    try {
      status = app.OptimizeTNLP(adapter);
    } catch (Ipopt::IpoptException& e) {
      e.ReportException(*app.Jnlst(), Ipopt::J_ERROR);
      status = Ipopt::Unrecoverable_Exception;
    }
  }
  result.status = status;
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
  ProblemView view(problem, settings.max_time, ProblemView::Reads::kSizes);
  SolverResult result;
  result.status = kSystemError;
  Ipopt::SmartPtr<IpoptAdapter> adapter = new IpoptAdapter(view, result);
  if (!LibraryTakes(view)) {
    Say("Error creating an Ipopt Problem handle.");
  } else {
    Ipopt::SmartPtr<Ipopt::IpoptApplication> app = new Ipopt::IpoptApplication();
    if (ConfigureAndSolve(*app, settings, adapter, view, result)) ReportOutcome(result);
  }
  if (!adapter->finalized()) {
    // No solution came back: the start point and multipliers stand.
    result.x = view.Start();
    result.lambda.assign(view.m(), 0.0);
    if (settings.warm) problem.StartMultipliers(result.lambda);
    result.z_lower.assign(view.n(), 0.0);
    result.z_upper.assign(view.n(), 0.0);
  }
  result.iterations = adapter->iterations();
  result.residual_evals = view.residual_evals();
  result.jacobian_evals = view.jacobian_evals();
  return result;
}

}  // namespace kx::solvers
