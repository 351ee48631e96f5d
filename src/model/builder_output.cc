// What the builder reports once the model is compiled: intermediate values and initial
// residuals, the model size report and the initial-value diagnostic files.
#include <cmath>
#include <sstream>

#include "base/file_writer.h"
#include "base/report.h"
#include "model/builder.h"
#include "model/sparsity.h"

namespace kx::model {
namespace {

constexpr const char* kSizeLabels[] = {"Objects",     "Constants", "Variables", "Intermediates",
                                       "Connections", "Equations", "Residuals"};

// Evaluates one program at the values `by_column` and the intermediates' current values;
// domain errors are counted, never fatal.
double EvaluateProgram(const ModelStore& store, const std::vector<double>& by_column,
                       int program, const std::vector<int>& columns, std::vector<double>* in,
                       std::vector<double>* work, lang::DomainErrors* errs) {
  const lang::Program& p = store.programs[program];
  in->resize(columns.size());
  for (size_t k = 0; k < columns.size(); ++k) {
    const int c = columns[k];
    (*in)[k] = c < 0 ? store.intermediates[-c - 1].value : by_column[c];
  }
  if (work->size() < static_cast<size_t>(p.work_size())) work->resize(p.work_size());
  return p.Residual(in->data(), work->data(), errs);
}

}  // namespace

void EvaluateInitialState(ModelStore* store) {
  std::vector<double> in, work;
  std::vector<double> by_column(2 * static_cast<size_t>(store->nvar) + 1);
  ColumnValues(*store, by_column);
  lang::DomainErrors& errs = store->start_errors;
  errs = {};
  for (Intermediate& m : store->intermediates) {
    if (m.program < 0) continue;
    m.value = EvaluateProgram(*store, by_column, m.program, m.columns, &in, &work, &errs);
    if (!std::isfinite(m.value)) {
      Say("custom: Explicit calculation failed");
      Say("Intermediate: " + m.name + " = " + m.text);
    }
  }
  for (Equation& q : store->eqns) {
    if (q.program < 0) continue;
    q.residual = EvaluateProgram(*store, by_column, q.program, q.columns, &in, &work, &errs);
  }
}

void PrintSizeReport(const ModelStore& store, const lang::ModelCounts& c) {
  const long values[] = {c.objects,     c.constants,  c.parameters + c.variables,
                         c.intermediates, c.connections, c.equations, c.residuals};
  Say("--------- ZPM Model Size ------------");
  Say("Each time step contains");
  for (size_t i = 0; i < std::size(kSizeLabels); ++i) {
    Sayf("   {:<14}: {:>10}", kSizeLabels[i], values[i]);
  }
  Say("-------------------------------------");
}

void WriteInitialFiles(const ModelStore& store, const std::vector<std::string>& residuals,
                       const std::string& dir) {
  std::ostringstream values;
  values << "! Initial values: number, name, value, lower, upper, d(value)/dt\n";
  for (int n = 1; n <= store.nvar; ++n) {
    const Variable& v = store.Var(n);
    values << fmt::format("{:>8} {:<40} {:>24.16e} {:>24.16e} {:>24.16e} {:>24.16e}\n", n,
                          v.name, v.val, v.lower, v.upper, v.d_val);
  }
  values << "! Intermediates: name, value\n";
  for (const Intermediate& m : store.intermediates) {
    values << fmt::format("{:>8} {:<40} {:>24.16e}\n", "", m.name, m.value);
  }
  WriteFileAtomically(dir + "/model_init_values.txt", values.str());
  std::ostringstream res;
  res << "! Initial residuals: equation, residual, residual expression\n";
  for (size_t e = 0; e < store.eqns.size(); ++e) {
    res << fmt::format("Eqn({}) {:>24.16e}   0 = {}\n", e + 1, store.eqns[e].residual,
                       residuals[e]);
  }
  WriteFileAtomically(dir + "/model_init_res.txt", res.str());
}

}  // namespace kx::model
