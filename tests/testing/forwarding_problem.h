// A problem that hands every call to another one: tests derive from it and override only what
// they change (bounds held at other values, no second derivatives, ...).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "solvers/problem.h"

namespace kx::testing {

class ForwardingProblem : public solvers::Problem {
 public:
  explicit ForwardingProblem(solvers::Problem& base) : base_(base) {}

  int num_vars() override { return base_.num_vars(); }
  int num_cons() override { return base_.num_cons(); }
  int nnz_jac() override { return base_.nnz_jac(); }
  int nnz_hess() override { return base_.nnz_hess(); }
  bool has_hessian() override { return base_.has_hessian(); }
  void Bounds(std::span<double> l, std::span<double> u) override { base_.Bounds(l, u); }
  void ConstraintBounds(std::span<double> l, std::span<double> u) override {
    base_.ConstraintBounds(l, u);
  }
  void Start(std::span<double> x) override { base_.Start(x); }
  std::vector<int> IntegerVariables() override { return base_.IntegerVariables(); }
  void JacobianStructure(std::span<int> r, std::span<int> c) override {
    base_.JacobianStructure(r, c);
  }
  void HessianStructure(std::span<int> r, std::span<int> c) override {
    base_.HessianStructure(r, c);
  }
  bool Objective(std::span<const double> x, double& f) override { return base_.Objective(x, f); }
  bool Gradient(std::span<const double> x, std::span<double> g) override {
    return base_.Gradient(x, g);
  }
  bool Constraints(std::span<const double> x, std::span<double> c) override {
    return base_.Constraints(x, c);
  }
  bool JacobianValues(std::span<const double> x, std::span<double> v) override {
    return base_.JacobianValues(x, v);
  }
  bool HessianValues(std::span<const double> x, double of, std::span<const double> l,
                     std::span<double> v) override {
    return base_.HessianValues(x, of, l, v);
  }

 protected:
  solvers::Problem& base_;
};

// The problem claiming to have no second derivatives; asking for them fails the test.
class WithoutHessian : public ForwardingProblem {
 public:
  using ForwardingProblem::ForwardingProblem;
  bool has_hessian() override { return false; }
  int nnz_hess() override { return 0; }
  void HessianStructure(std::span<int>, std::span<int>) override {
    ADD_FAILURE() << "Hessian structure asked for";
  }
  bool HessianValues(std::span<const double>, double, std::span<const double>,
                     std::span<double>) override {
    ADD_FAILURE() << "second derivatives asked for";
    return false;
  }
};

// The problem with one bound moved (a variable's, a row's, or a fixed variable's value) and
// a given start point.
class MovedBound : public ForwardingProblem {
 public:
  using ForwardingProblem::ForwardingProblem;
  void Bounds(std::span<double> xl, std::span<double> xu) override {
    base_.Bounds(xl, xu);
    if (var >= 0 && parameter) xl[var] = xu[var] = value;
    if (var >= 0 && !parameter) (upper ? xu : xl)[var] = value;
  }
  void ConstraintBounds(std::span<double> cl, std::span<double> cu) override {
    base_.ConstraintBounds(cl, cu);
    if (row >= 0) (upper ? cu : cl)[row] = value;
  }
  void Start(std::span<double> x) override {
    if (start.empty()) return base_.Start(x);
    std::copy(start.begin(), start.end(), x.begin());
    if (var >= 0 && parameter) x[var] = value;
  }
  int var = -1, row = -1;     // the moved bound: a variable's or a row's
  bool upper = false;         // which side
  bool parameter = false;     // the variable is a fixed one (a model parameter): both sides
  double value = 0.0;         // its new value
  std::vector<double> start;  // the start point; empty for the base problem's
};

}  // namespace kx::testing
