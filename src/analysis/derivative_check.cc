#include "analysis/derivative_check.h"

#include <chrono>
#include <cmath>
#include <map>
#include <utility>
#include <vector>

#include "base/file_writer.h"
#include "base/report.h"

namespace kx::analysis {
namespace {

using Clock = std::chrono::steady_clock;
const std::string kRule(72, '_');

double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

std::string Path(const std::string& dir, const char* name) {
  return dir.empty() || dir == "." ? name : dir + "/" + name;
}

// The Jacobian at x as a map per row: column -> value (repeated positions add).
struct SparseJacobian {
  std::vector<int> rows, cols;
  std::vector<std::map<int, double>> by_row;

  SparseJacobian(solvers::Problem& p, std::span<const double> x) {
    rows.resize(p.nnz_jac());
    cols.resize(p.nnz_jac());
    p.JacobianStructure(rows, cols);
    by_row.resize(p.num_cons());
    Fill(p, x);
  }
  void Fill(solvers::Problem& p, std::span<const double> x) {
    std::vector<double> v(rows.size());
    p.JacobianValues(x, v);
    for (auto& r : by_row) r.clear();
    for (size_t k = 0; k < v.size(); ++k) by_row[rows[k]][cols[k]] += v[k];
  }
  // Entry (i, j), or nothing when the pattern has none.
  const double* Find(int i, int j) const {
    auto it = by_row[i].find(j);
    return it == by_row[i].end() ? nullptr : &it->second;
  }
};

void ErrorReport(std::string& text, std::span<const double> x,
                 const ProblemNames& names, const SparseJacobian& jac, int i, int j, double an,
                 double num) {
  text += "_Error_Report_____________________________________________________\n";
  const std::string label = names.is_derivative(j) ? "     Differential Variable: "
                                                   : "     Variable: ";
  text += label + names.variable(j) + "\n";
  text += "     Equation     : " + names.row(i) + "\n";
  text += "     Expression   : " + names.expression(i) + "\n";
  text += fmt::format("     Analytic     : {:.8e}\n", an);
  text += fmt::format("     Numeric      : {:.8e}\n", num);
  text += "     All Variables in Equation\n";
  for (const auto& [col, value] : jac.by_row[i])
    text += fmt::format("       {:<30} {:.8e}\n", names.variable(col), x[col]);
}

// "zpm_verify_jacobian: located N errors (see verify_jacobian.txt)".
void SayCount(const char* routine, const char* word, int errors) {
  const std::string see = std::string(" (see verify_") + word + ".txt)";
  if (errors == 1) {
    Sayf("{}: located 1 error{}", routine, see);
  } else {
    Sayf("{}: located {} errors{}", routine, errors, see);
  }
}

}  // namespace

int VerifyObjectiveGradient(solvers::Problem& p, std::span<const double> x0,
                            const ProblemNames& names, const std::string& dir) {
  const auto start = Clock::now();
  std::vector<double> x(x0.begin(), x0.end()), g(x.size());
  double base = 0;
  p.Objective(x, base);
  p.Gradient(x, g);
  if (std::abs(base) > kLargeObjective) {
    Say("WARNING: Base objective function = " + fmt::format("{:.8e}", base));
    Say("This large value may cause poor numerical results from");
    Say(" relatively small objective function gradients.");
  }
  std::string text = "Objective Derivatives - d(obj)/d(x)\n";
  text += fmt::format(" ** = difference > {:g}\n", kGradientTolerance);
  text += " Variable      Analytic        Numeric\n" + kRule + "\n";
  int errors = 0;
  for (size_t j = 0; j < x.size(); ++j) {
    const double keep = x[j];
    x[j] += kGradientStep;
    double f = 0;
    p.Objective(x, f);
    x[j] = keep;
    const double numeric = (f - base) / kGradientStep;
    const bool bad = std::abs(g[j] - numeric) > kGradientTolerance;
    errors += bad;
    text += fmt::format(" {:<12} {:15.8e} {:15.8e} {}\n", names.variable(static_cast<int>(j)),
                        g[j], numeric, bad ? "**" : "");
  }
  text += fmt::format(" Timing information\n   {:.6f} sec\n", Seconds(start));
  WriteFileAtomically(Path(dir, "verify_obj_grad.txt"), text);
  return errors;
}

int VerifyJacobian(solvers::Problem& p, std::span<const double> x0, const ProblemNames& names,
                   int num_states, const std::string& dir) {
  const int n = p.num_vars(), m = p.num_cons();
  std::vector<double> x(x0.begin(), x0.end()), base(m), c(m);
  p.Constraints(x, base);
  SparseJacobian jac(p, x);
  std::string text = " 1st Derivative Verification  d(residual)/d(variable)\n";
  text += " Problem Information\n";
  text += fmt::format("   Number of States:    {}\n   Number of Variables: {}\n"
                      "   Number of Equations: {}\n",
                      num_states, n, m);
  text += fmt::format(" (==) normalized difference > {:g}\n", kJacobianTolerance);
  text += fmt::format(" (xx) numeric jacobian element > {:g} with no analytic element\n",
                      kJacobianTolerance);
  text += "       Eqn      Var  Analytic        Numeric\n" + kRule + "\n";
  std::string sparsity = "! row column (1-based) of each analytic Jacobian element\n";
  std::string values = "! row column analytic numeric\n";
  int errors = 0;
  for (int j = 0; j < n; ++j) {
    const double keep = x[j];
    x[j] += kJacobianStep;
    p.Constraints(x, c);
    x[j] = keep;
    for (int i = 0; i < m; ++i) {
      const double numeric = (c[i] - base[i]) / kJacobianStep;
      const double* an = jac.Find(i, j);
      const double analytic = an ? *an : 0.0;
      if (an) {
        sparsity += fmt::format("{} {}\n", i + 1, j + 1);
        values += fmt::format("{} {} {:.12e} {:.12e}\n", i + 1, j + 1, analytic, numeric);
      }
      const bool bad = an ? std::abs(numeric - analytic) / std::max(std::abs(numeric), 1.0) >=
                                kJacobianTolerance
                          : std::abs(numeric) >= kJacobianTolerance;
      if (!bad) continue;
      ++errors;
      text += fmt::format(" {:>9} {:>8} {:15.8e} {:15.8e} {}\n", i + 1, j + 1, analytic, numeric,
                          an ? "(==)" : "(xx)");
      ErrorReport(text, x, names, jac, i, j, analytic, numeric);
    }
  }
  WriteFileAtomically(Path(dir, "verify_jacobian.txt"), text);
  WriteFileAtomically(Path(dir, "sparsity.txt"), sparsity);
  WriteFileAtomically(Path(dir, "jacobian.txt"), values);
  return errors;
}

int VerifyHessian(solvers::Problem& p, std::span<const double> x0, const ProblemNames& names,
                  const std::string& dir) {
  const int n = p.num_vars(), m = p.num_cons();
  std::vector<double> x(x0.begin(), x0.end());
  std::vector<int> hr(p.nnz_hess()), hc(p.nnz_hess());
  p.HessianStructure(hr, hc);
  // Analytic second derivatives per row (row m is the objective), lower triangle.
  std::vector<std::map<std::pair<int, int>, double>> analytic(m + 1);
  std::vector<double> lambda(m, 0.0), h(hr.size());
  std::string text = "----BASELINE HESSIAN-----------------\nNon-zeros:\n" + kRule + "\n";
  for (int i = 0; i <= m; ++i) {
    if (i < m) lambda[i] = 1.0;
    p.HessianValues(x, i == m ? 1.0 : 0.0, lambda, h);
    if (i < m) lambda[i] = 0.0;
    for (size_t k = 0; k < h.size(); ++k) {
      if (h[k] == 0.0) continue;
      analytic[i][{std::max(hr[k], hc[k]), std::min(hr[k], hc[k])}] += h[k];
      text += fmt::format(" {:>9} {:>8} {:>8} {:15.8e}\n", i < m ? i + 1 : 0, hr[k] + 1,
                          hc[k] + 1, h[k]);
    }
  }
  text += "Variable 2nd Derivatives - d2(res)/d(xi)*d(xj)\n";
  text += fmt::format(" * = difference > {:g}\n", kHessianTolerance);
  text += fmt::format(" x = numeric element > {:g} with no analytic element\n", kHessianTolerance);
  text += " Equation    Var i    Var j     Analytic        Numeric\n" + kRule + "\n";
  SparseJacobian base(p, x), moved(p, x);
  std::vector<double> g0(n), g1(n);
  p.Gradient(x, g0);
  int errors = 0;
  auto check = [&](int i, int vi, int vj, double numeric) {
    auto it = analytic[i].find({vi, vj});
    const bool has = it != analytic[i].end();
    const double an = has ? it->second : 0.0;
    const bool bad = has ? std::abs(numeric - an) >= kHessianTolerance
                         : std::abs(numeric) >= kHessianTolerance;
    if (!bad) return;
    ++errors;
    text += fmt::format(" {:>8} {:>8} {:>8} {:15.8e} {:15.8e} {}\n",
                        i < m ? names.row(i) : "objective", vi + 1, vj + 1, an, numeric,
                        has ? "*" : "x");
  };
  for (int j = 0; j < n; ++j) {
    const double keep = x[j];
    x[j] += kHessianStep;
    moved.Fill(p, x);
    p.Gradient(x, g1);
    x[j] = keep;
    for (int i = 0; i < m; ++i) {
      for (const auto& [k, value] : moved.by_row[i]) {
        if (k < j) continue;  // lower triangle: (k, j) with k >= j
        const double* b = base.Find(i, k);
        check(i, k, j, (value - (b ? *b : 0.0)) / kHessianStep);
      }
    }
    for (int k = j; k < n; ++k) check(m, k, j, (g1[k] - g0[k]) / kHessianStep);
  }
  WriteFileAtomically(Path(dir, "verify_hessian.txt"), text);
  return errors;
}

void RunDerivativeChecks(solvers::Problem& p, const ProblemNames& names, int num_states,
                         int imode, int diaglevel, const std::string& dir) {
  if (diaglevel < 5) return;
  if (imode < 1 || imode > 9) Fatal({fmt::format("zpm_verify_jacobian: imode invalid {}", imode)});
  std::vector<double> x(p.num_vars());
  p.Start(x);
  Say("checking objective 1st derivatives...");
  const int gradient = VerifyObjectiveGradient(p, x, names, dir);
  if (gradient > 0)
    Sayf("objective gradient: {} differences (see verify_obj_grad.txt)", gradient);
  Say("checking constraint 1st derivatives...");
  SayCount("zpm_verify_jacobian", "jacobian", VerifyJacobian(p, x, names, num_states, dir));
  Say("...done");
  if (diaglevel < 6) return;
  if (!p.has_hessian()) {
    Say("second derivative check unavailable or not needed");
    return;
  }
  Say("checking 2nd derivatives...");
  SayCount("zpm_verify_hessian", "hessian", VerifyHessian(p, x, names, dir));
  Say("...done");
}

}  // namespace kx::analysis
