#include "solvers/model_problem.h"

#include <algorithm>

namespace kx::solvers {
namespace {

void ToZeroBased(std::span<int> v) {
  for (int& i : v) --i;
}

}  // namespace

ModelProblem::ModelProblem(model::ModelAccess& access, bool dynamic, std::string name)
    : nlp_(access, dynamic, /*scaled=*/false, model::PointHome::kArrays), name_(std::move(name)) {}

void ModelProblem::Bounds(std::span<double> xl, std::span<double> xu) { nlp_.GetBounds(xl, xu); }

void ModelProblem::ConstraintBounds(std::span<double> cl, std::span<double> cu) {
  nlp_.GetConstraintBounds(cl, cu);
}


bool ModelProblem::StartMultipliers(std::span<double> lambda) {
  if (start_multipliers.size() != lambda.size()) return false;
  std::copy(start_multipliers.begin(), start_multipliers.end(), lambda.begin());
  return true;
}

std::vector<int> ModelProblem::IntegerVariables() {
  std::vector<int> list = nlp_.IntegerColumns();
  ToZeroBased(list);
  return list;
}

void ModelProblem::JacobianStructure(std::span<int> rows, std::span<int> cols) {
  nlp_.JacobianStructure(rows, cols);
  ToZeroBased(rows);
  ToZeroBased(cols);
}

void ModelProblem::HessianStructure(std::span<int> rows, std::span<int> cols) {
  nlp_.HessianStructure(rows, cols);
  ToZeroBased(rows);
  ToZeroBased(cols);
}

// The model evaluates without failing: a domain error shows as NaN or Inf in the result,
// which the problem view turns into a failed evaluation.
bool ModelProblem::Objective(std::span<const double> x, double& f) {
  f = nlp_.Objective(x);
  return true;
}

bool ModelProblem::Gradient(std::span<const double> x, std::span<double> g) {
  nlp_.Gradient(x, g);
  return true;
}

bool ModelProblem::Constraints(std::span<const double> x, std::span<double> c) {
  nlp_.Constraints(x, c);
  return true;
}

bool ModelProblem::JacobianValues(std::span<const double> x, std::span<double> values) {
  nlp_.JacobianValues(x, values);
  return true;
}

bool ModelProblem::HessianValues(std::span<const double> x, double obj_factor,
                                 std::span<const double> lambda, std::span<double> values) {
  nlp_.HessianValues(x, obj_factor, lambda, values);
  return true;
}

void ModelProblem::Start(std::span<double> x) {
  nlp_.Forget();  // the store may have been changed since the last point was written
  nlp_.GetStart(x);
}

void ModelProblem::Store(std::span<const double> x, std::span<const double> lambda) {
  nlp_.StoreSolution(x, lambda);
}

}  // namespace kx::solvers
