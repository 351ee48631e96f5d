#include "model/diagnostics.h"

#include <fmt/format.h>

#include <sstream>

#include "base/file_writer.h"

namespace kx::model {
namespace {

// Name of model column `col`: a variable, or "$name" for the time derivative of one.
std::string ColumnName(const ModelStore& store, int col) {
  if (col >= 1 && col <= store.nvar) return store.Var(col).name;
  if (col > store.nvar && col <= 2 * store.nvar) return "$" + store.Var(col - store.nvar).name;
  return fmt::format("<column {}>", col);
}

}  // namespace

void WriteByteCodeListing(const ModelStore& store, const std::string& path) {
  std::ostringstream out;
  out << "! Byte code of every equation: columns read (model column and name), then the\n"
         "! residual, first-derivative and second-derivative segments of its program.\n";
  for (size_t e = 0; e < store.eqns.size(); ++e) {
    const Equation& q = store.eqns[e];
    out << fmt::format("\nEqn({}) {}{}: {}\n", e + 1, q.name, q.obj_eqn ? " (objective)" : "",
                       q.Text());
    for (size_t k = 0; k < q.columns.size(); ++k)
      out << fmt::format("  in[{}] = column {} {}\n", k, q.columns[k],
                         ColumnName(store, q.columns[k]));
    if (q.program >= 0) out << store.programs[q.program].Listing();
  }
  WriteFileAtomically(path, out.str());
}

void WriteSparsityListing(ModelAccess& access, const std::string& path) {
  const ModelStore& store = access.store();
  const JacobianPattern& jac = access.Jacobian(Shape::kSteady);
  const HessianPattern& hess = access.Hessian(Shape::kSteady);
  std::ostringstream out;
  out << fmt::format("! Steady-state problem: {} variables, {} constraint rows\n", store.nvar,
                     access.NumRows());
  out << fmt::format("! Jacobian non-zeros {}, Hessian non-zeros (lower triangle) {}\n",
                     jac.nnz(), static_cast<int>(hess.rows.size()));
  out << "\n! Jacobian: row, column, equation, variable\n";
  for (int k = 0; k < jac.nnz(); ++k)
    out << fmt::format("{:>8} {:>8}  {}  {}\n", jac.rows[k], jac.cols[k],
                       access.Row(jac.rows[k]).name, ColumnName(store, jac.cols[k]));
  out << "\n! Hessian of the Lagrangian: row, column, variable, variable\n";
  for (size_t k = 0; k < hess.rows.size(); ++k)
    out << fmt::format("{:>8} {:>8}  {}  {}\n", hess.rows[k], hess.cols[k],
                       ColumnName(store, hess.rows[k]), ColumnName(store, hess.cols[k]));
  WriteFileAtomically(path, out.str());
}

}  // namespace kx::model
