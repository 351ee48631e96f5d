#include "analysis/sensitivity.h"

#include <fmt/format.h>

#include <optional>

#include "base/report.h"
#include "base/file_writer.h"
#include "linalg/sparse_lu.h"
#include "model/jacobian.h"

namespace kx::analysis {
namespace {

// The Jacobian of the constraint rows split into the unknowns' part (triplets) and the
// inputs' columns (dense, one per input).
struct SplitJacobian {
  std::vector<int> rows, cols;
  std::vector<double> values;
  std::vector<std::vector<double>> inputs;  // per input, size num_rows
};

SplitJacobian Evaluate(model::ModelAccess& access, const std::vector<int>& unknown_of_col,
                       const std::vector<int>& input_of_col, int num_inputs) {
  const model::EquationLayout& layout = access.Layout();
  model::ModelStore& store = access.store();
  model::EvalScratch scratch;
  scratch.Reserve(layout);
  SplitJacobian j;
  const int m = access.NumRows();
  j.inputs.assign(num_inputs, std::vector<double>(m, 0.0));
  for (int r = 0; r < m; ++r) {
    const int e = layout.constraint_eqns[r];
    double residual = 0;
    model::RowGradient(store, layout, e, &scratch, &residual);
    const int first = layout.slot_begin[e];
    for (int s = first; s < layout.slot_begin[e + 1]; ++s) {
      const int col = layout.slot_column[s];
      const double g = scratch.grad[s - first];
      if (unknown_of_col[col] >= 0) {
        j.rows.push_back(r);
        j.cols.push_back(unknown_of_col[col]);
        j.values.push_back(g);
      } else if (input_of_col[col] >= 0) {
        j.inputs[input_of_col[col]][r] += g;
      }
    }
  }
  return j;
}

}  // namespace

std::optional<Sensitivities> ComputeSensitivities(model::ModelAccess& access, bool dynamic,
                                                  const std::vector<SensitivityInput>& inputs) {
  model::ModelStore& store = access.store();
  const int nvar = store.nvar;
  std::vector<int> unknown_of_col(2 * nvar + 2, -1), input_of_col(2 * nvar + 2, -1);
  Sensitivities out;
  int num_unknowns = 0;
  for (int n = 1; n <= nvar; ++n) {
    const model::Variable& v = store.Var(n);
    if (v.fixed) continue;
    out.numbers.push_back(n);
    unknown_of_col[n] = num_unknowns++;
  }
  if (dynamic)
    for (int n = 1; n <= nvar; ++n)
      if (store.Var(n).idiff > 0) unknown_of_col[nvar + n] = num_unknowns++;
  for (size_t i = 0; i < inputs.size(); ++i)
    for (int n : inputs[i].numbers) input_of_col[n] = static_cast<int>(i);
  const int m = access.NumRows();
  if (m != num_unknowns) {
    Sayf("Sensitivity analysis needs a square model: {} calculated variables, {} equations",
         num_unknowns, m);
    return std::nullopt;
  }
  SplitJacobian jac = Evaluate(access, unknown_of_col, input_of_col,
                               static_cast<int>(inputs.size()));
  linalg::SparseLu lu;
  if (!lu.Factor(m, jac.rows, jac.cols, jac.values)) {
    Say("Sensitivity analysis: the Jacobian is singular at the solution");
    return std::nullopt;
  }
  for (std::vector<double>& column : jac.inputs) {
    for (double& v : column) v = -v;
    lu.Solve(column);
    column.resize(out.numbers.size());  // the values' part; the derivatives follow it
    out.values.push_back(std::move(column));
  }
  return out;
}

bool WriteSensitivityFiles(model::ModelAccess& access, bool dynamic,
                           const std::vector<SensitivityInput>& inputs, const std::string& dir) {
  if (inputs.empty()) {
    Say("Sensitivity analysis: no FV or MV to take derivatives with respect to");
    return false;
  }
  const std::optional<Sensitivities> s = ComputeSensitivities(access, dynamic, inputs);
  if (!s) return false;
  const model::ModelStore& store = access.store();
  std::string table = "! sensitivity: d(variable)/d(input) at the solution\nvariable";
  for (const SensitivityInput& in : inputs) table += ", " + in.name;
  table += "\n";
  for (size_t i = 0; i < s->numbers.size(); ++i) {
    table += store.Var(s->numbers[i]).name;
    for (const auto& column : s->values) table += fmt::format(", {:.10e}", column[i]);
    table += "\n";
  }
  std::string dof = "! sensitivity inputs and their values\n";
  for (const SensitivityInput& in : inputs)
    dof += fmt::format("{} = {:.17g}\n", in.name, store.Var(in.numbers.front()).val);
  const std::string prefix = dir.empty() || dir == "." ? "" : dir + "/";
  Say("Sensitivity analysis written to sensitivity.txt and sensitivity_dof.t0");
  return WriteFileAtomically(prefix + "sensitivity.txt", table) &&
         WriteFileAtomically(prefix + "sensitivity_dof.t0", dof);
}

}  // namespace kx::analysis
