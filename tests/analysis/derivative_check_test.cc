// The finite-difference checks against problems whose claimed derivatives are planted: each
// case says what the problem computes, what it claims, and whether the check must object.
#include "analysis/derivative_check.h"

#include <gtest/gtest.h>

#include <vector>

#include "base/report.h"
#include "testing/scratch_dir.h"

namespace kx::analysis {
namespace {

// c_i(x) = sum_j a[i][j] x_j + q[i] x_0^2, f(x) = g . x; the problem claims the Jacobian entries
// `claimed` (row, col, value), the gradient `claimed_g` and the Hessian entry of x_0^2 in row
// `hess_row` as `hess_value` (none when hess_row < 0).
struct Planted : solvers::Problem {
  std::vector<std::vector<double>> a;
  std::vector<double> q, g, claimed_g;
  std::vector<std::tuple<int, int, double>> claimed;
  int hess_row = -1;
  double hess_value = 0;

  int num_vars() override { return static_cast<int>(a[0].size()); }
  int num_cons() override { return static_cast<int>(a.size()); }
  int nnz_jac() override { return static_cast<int>(claimed.size()); }
  int nnz_hess() override { return 1; }
  void Bounds(std::span<double> l, std::span<double> u) override {
    std::fill(l.begin(), l.end(), -1e20), std::fill(u.begin(), u.end(), 1e20);
  }
  void ConstraintBounds(std::span<double> l, std::span<double> u) override {
    std::fill(l.begin(), l.end(), 0), std::fill(u.begin(), u.end(), 0);
  }
  void Start(std::span<double> x) override { std::fill(x.begin(), x.end(), 1.0); }
  void JacobianStructure(std::span<int> r, std::span<int> c) override {
    for (size_t k = 0; k < claimed.size(); ++k) r[k] = std::get<0>(claimed[k]), c[k] = std::get<1>(claimed[k]);
  }
  void HessianStructure(std::span<int> r, std::span<int> c) override { r[0] = c[0] = 0; }
  bool Objective(std::span<const double> x, double& f) override {
    f = 0;
    for (size_t j = 0; j < x.size(); ++j) f += g[j] * x[j];
    return true;
  }
  bool Gradient(std::span<const double>, std::span<double> out) override {
    std::copy(claimed_g.begin(), claimed_g.end(), out.begin());
    return true;
  }
  bool Constraints(std::span<const double> x, std::span<double> c) override {
    for (size_t i = 0; i < a.size(); ++i) {
      c[i] = q[i] * x[0] * x[0];
      for (size_t j = 0; j < x.size(); ++j) c[i] += a[i][j] * x[j];
    }
    return true;
  }
  bool JacobianValues(std::span<const double> x, std::span<double> v) override {
    for (size_t k = 0; k < claimed.size(); ++k) {
      const auto [i, j, value] = claimed[k];
      v[k] = value + (j == 0 ? 2 * q[i] * (x[0] - 1.0) : 0.0);  // claimed at x = 1
    }
    return true;
  }
  bool HessianValues(std::span<const double>, double, std::span<const double> lambda,
                     std::span<double> v) override {
    v[0] = hess_row >= 0 ? lambda[hess_row] * hess_value : 0.0;
    return true;
  }
};

ProblemNames Names() {
  ProblemNames n;
  n.variable = [](int j) { return "x" + std::to_string(j); };
  n.is_derivative = [](int) { return false; };
  n.row = [](int i) { return "row" + std::to_string(i); };
  n.expression = [](int i) { return "text of row" + std::to_string(i); };
  return n;
}

struct JacobianCase {
  const char* what;
  double true_value;   // d c0 / d x1
  bool claimed;        // the pattern has (0, 1)
  double claimed_value;
  int errors;
  const char* marker;
};

class DerivativeCheck : public ::testing::Test {
 protected:
  std::string Read(const char* name) { return dir_.Read(name); }
  kx::testing::ScratchDir dir_{"kx_verify"};
  OutputCapture quiet_;
};

TEST_F(DerivativeCheck, JacobianThresholds) {
  const JacobianCase cases[] = {
      {"exact", 3.0, true, 3.0, 0, ""},
      {"normalised difference 0.04 passes", 104.0, true, 100.0, 0, ""},
      {"normalised difference 0.06 fails", 106.0, true, 100.0, 1, "(==)"},
      {"numeric 0.04 without an element passes", 0.04, false, 0, 0, ""},
      {"numeric 0.06 without an element fails", 0.06, false, 0, 1, "(xx)"},
      {"a wrong sign fails", -2.0, true, 2.0, 1, "(==)"},
  };
  for (const JacobianCase& c : cases) {
    Planted p;
    p.a = {{1.0, c.true_value}, {0.0, 1.0}};
    p.q = {0, 0};
    p.g = p.claimed_g = {0, 0};
    p.claimed = {{0, 0, 1.0}, {1, 1, 1.0}};
    if (c.claimed) p.claimed.push_back({0, 1, c.claimed_value});
    std::vector<double> x = {1.0, 1.0};
    EXPECT_EQ(VerifyJacobian(p, x, Names(), 2, dir_.str()), c.errors) << c.what;
    const std::string report = Read("verify_jacobian.txt");
    if (c.errors > 0) {
      EXPECT_NE(report.find(c.marker), std::string::npos) << c.what;
      EXPECT_NE(report.find("     Variable: x1\n     Equation     : row0\n"), std::string::npos)
          << c.what << "\n" << report;
    }
  }
}

TEST_F(DerivativeCheck, GradientAndHessianThresholds) {
  struct Case {
    const char* what;
    double claimed_g;  // the true gradient is 1
    int hess_row;      // row 0 holds x0^2 (true second derivative 2)
    double hess_value;
    int gradient_errors, hessian_errors;
  } cases[] = {
      {"exact", 1.0, 0, 2.0, 0, 0},
      {"gradient off by 5e-5 passes", 1.00005, 0, 2.0, 0, 0},
      {"gradient off by 1e-3 fails", 1.001, 0, 2.0, 1, 0},
      {"second derivative off by 0.1 fails", 1.0, 0, 2.1, 0, 1},
      {"missing second derivative fails", 1.0, -1, 0.0, 0, 1},
  };
  for (const Case& c : cases) {
    Planted p;
    p.a = {{0.0}};
    p.q = {1.0};
    p.g = {1.0};
    p.claimed_g = {c.claimed_g};
    p.claimed = {{0, 0, 2.0}};
    p.hess_row = c.hess_row;
    p.hess_value = c.hess_value;
    std::vector<double> x = {1.0};
    EXPECT_EQ(VerifyObjectiveGradient(p, x, Names(), dir_.str()), c.gradient_errors) << c.what;
    EXPECT_EQ(VerifyHessian(p, x, Names(), dir_.str()), c.hessian_errors) << c.what;
  }
}

}  // namespace
}  // namespace kx::analysis
