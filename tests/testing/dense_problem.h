// A small hand-written problem for the solver tests: dense callbacks, optional NaN results.
#pragma once

#include <cmath>
#include <functional>
#include <vector>

#include "solvers/problem.h"

namespace kx::testing {

class DenseProblem : public solvers::Problem {
 public:
  using Vec = std::vector<double>;
  int n = 0, m = 0;
  Vec xl, xu, cl, cu, x0;
  std::function<double(const Vec&)> f;
  std::function<Vec(const Vec&)> grad;
  std::function<Vec(const Vec&)> cons;                              // size m
  std::function<Vec(const Vec&)> jac;                               // m x n row-major
  std::function<Vec(const Vec&, double, const Vec&)> hess;          // n x n row-major
  bool exact_hessian = true;

  int num_vars() override { return n; }
  int num_cons() override { return m; }
  int nnz_jac() override { return n * m; }
  int nnz_hess() override { return n * (n + 1) / 2; }
  bool has_hessian() override { return exact_hessian; }
  void Bounds(std::span<double> l, std::span<double> u) override { Copy(xl, l), Copy(xu, u); }
  void ConstraintBounds(std::span<double> l, std::span<double> u) override {
    Copy(cl, l), Copy(cu, u);
  }
  void Start(std::span<double> x) override { Copy(x0, x); }
  void JacobianStructure(std::span<int> rows, std::span<int> cols) override {
    for (int i = 0, k = 0; i < m; ++i) {
      for (int j = 0; j < n; ++j, ++k) rows[k] = i, cols[k] = j;
    }
  }
  void HessianStructure(std::span<int> rows, std::span<int> cols) override {
    for (int i = 0, k = 0; i < n; ++i) {
      for (int j = 0; j <= i; ++j, ++k) rows[k] = i, cols[k] = j;
    }
  }
  bool Objective(std::span<const double> x, double& v) override {
    v = f(Vec(x.begin(), x.end()));
    return std::isfinite(v);
  }
  bool Gradient(std::span<const double> x, std::span<double> g) override {
    return Finite(grad(Vec(x.begin(), x.end())), g);
  }
  bool Constraints(std::span<const double> x, std::span<double> c) override {
    return Finite(cons(Vec(x.begin(), x.end())), c);
  }
  bool JacobianValues(std::span<const double> x, std::span<double> v) override {
    return Finite(jac(Vec(x.begin(), x.end())), v);
  }
  bool HessianValues(std::span<const double> x, double sigma, std::span<const double> lambda,
                     std::span<double> v) override {
    const Vec h = hess(Vec(x.begin(), x.end()), sigma, Vec(lambda.begin(), lambda.end()));
    for (int i = 0, k = 0; i < n; ++i) {
      for (int j = 0; j <= i; ++j, ++k) v[k] = h[i * n + j];
    }
    for (double e : v) {
      if (!std::isfinite(e)) return false;
    }
    return true;
  }

 private:
  static void Copy(const Vec& from, std::span<double> to) {
    for (size_t i = 0; i < to.size(); ++i) to[i] = from[i];
  }
  static bool Finite(const Vec& from, std::span<double> to) {
    Copy(from, to);
    for (double e : from) {
      if (!std::isfinite(e)) return false;
    }
    return true;
  }
};

}  // namespace kx::testing
