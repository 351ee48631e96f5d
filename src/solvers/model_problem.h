// solvers/model_problem: the model's callback set (model::Nlp) as a solvers::Problem. Converts
// the model's 1-based structures to 0-based ones; the solvers read it through
// solvers/problem_view, which checks, counts and times every evaluation.
#pragma once

#include <vector>

#include "model/access.h"
#include "model/nlp.h"
#include "solvers/problem.h"

namespace kx::solvers {

class ModelProblem : public Problem {
 public:
  // Steady state (dynamic = false): one column per variable.
  ModelProblem(model::ModelAccess& access, bool dynamic, std::string name);

  std::string name() const override { return name_; }
  int num_vars() override { return nlp_.num_vars(); }
  int num_cons() override { return nlp_.num_cons(); }
  int nnz_jac() override { return nlp_.nnz_jac(); }
  int nnz_hess() override { return nlp_.nnz_hess(); }
  bool has_hessian() override { return nlp_.has_hessian(); }

  void Bounds(std::span<double> xl, std::span<double> xu) override;
  void ConstraintBounds(std::span<double> cl, std::span<double> cu) override;
  void Start(std::span<double> x) override;
  bool StartMultipliers(std::span<double> lambda) override;
  std::vector<int> IntegerVariables() override;

  void JacobianStructure(std::span<int> rows, std::span<int> cols) override;
  void HessianStructure(std::span<int> rows, std::span<int> cols) override;

  bool Objective(std::span<const double> x, double& f) override;
  bool Gradient(std::span<const double> x, std::span<double> g) override;
  bool Constraints(std::span<const double> x, std::span<double> c) override;
  bool JacobianValues(std::span<const double> x, std::span<double> values) override;
  bool HessianValues(std::span<const double> x, double obj_factor,
                     std::span<const double> lambda, std::span<double> values) override;

  // Writes x (and, when given, the row multipliers) into the model store.
  void Store(std::span<const double> x, std::span<const double> lambda);

  // Multipliers the warm start offers (set by the cycle from "lam.t0"); empty for none.
  std::vector<double> start_multipliers;

 private:
  model::Nlp nlp_;
  std::string name_;
};

}  // namespace kx::solvers
