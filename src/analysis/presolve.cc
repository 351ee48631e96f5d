#include "analysis/presolve.h"

#include <chrono>
#include <cmath>
#include <vector>

#include "base/report.h"
#include "base/file_writer.h"
#include "model/block_newton.h"
#include "model/btf.h"

namespace kx::analysis {
namespace {

using Clock = std::chrono::steady_clock;

class Presolver {
 public:
  Presolver(model::ModelAccess& access, const PresolveSettings& s)
      : access_(access), store_(access.store()), s_(s) {}

  int Run() {
    Sayf(" Original nvar: {}", store_.nvar);
    Sayf(" Original neqn: {}", store_.eqns.size());
    HoldDecisions();
    CollectSystem();
    Say(" Pre-solve turn off DOF");
    Sayf(" Pre-solve Variables: {}", cols_.size());
    Sayf(" Pre-solve Equations: {}", rows_.size());
    int status = 1;
    if (cols_.size() != rows_.size()) {
      Say("Presolve requires equal number of variables and equations");
      Sayf("Variables: {}", cols_.size());
      Sayf("Equations: {}", rows_.size());
    } else {
      status = SolveBlocks();
    }
    ReleaseDecisions();
    return status;
  }

 private:
  // Parameters freed as FVs or MVs are the degrees of freedom: held during the presolve.
  void HoldDecisions() {
    for (int n = 1; n <= store_.nvar; ++n) {
      model::Variable& v = store_.Var(n);
      if (v.fixed || v.vtype != model::kVarParameter) continue;
      v.fixed = true;
      held_.push_back(n);
    }
    access_.Invalidate();
  }
  void ReleaseDecisions() {
    for (int n : held_) store_.Var(n).fixed = false;
    access_.Invalidate();
  }

  void CollectSystem() {
    for (int n = 1; n <= store_.nvar; ++n) {
      const model::Variable& v = store_.Var(n);
      if (v.fixed || v.vtype == model::kVarStepLength) continue;
      cols_.push_back(n);
      if (s_.dynamic && v.idiff > 0) cols_.push_back(store_.nvar + n);
    }
    for (size_t e = 0; e < store_.eqns.size(); ++e) {
      const model::Equation& q = store_.eqns[e];
      if (q.active && !q.obj_eqn && q.program >= 0 && q.lower == q.upper)
        rows_.push_back(static_cast<int>(e));
    }
  }

  int SolveBlocks() {
    std::vector<int> position(2 * store_.nvar + 2, 0);  // 1-based unknown of each column
    for (size_t j = 0; j < cols_.size(); ++j) position[cols_[j]] = static_cast<int>(j) + 1;
    std::vector<int> pr, pc;
    for (size_t i = 0; i < rows_.size(); ++i)
      for (int c : store_.eqns[rows_[i]].columns)
        if (position[c] > 0) pr.push_back(static_cast<int>(i) + 1), pc.push_back(position[c]);
    const model::BlockOrder order =
        model::OrderBlockTriangular(static_cast<int>(rows_.size()), pr, pc);
    if (!order.ordered) {
      Say("Presolve did not find a zero-free diagonal");
      Sayf("Diagonal Non-zeros: {}", order.num_diagonal);
      Sayf("Diagonal Length   : {}", rows_.size());
      return 1;
    }
    CheckDifferentialPairs(order);
    if (s_.diaglevel >= 2) Record("presolve_init_");
    model::BlockNewton newton(access_);
    model::NewtonSettings ns{s_.tolerance, s_.max_iter};
    for (int b = 0; b < order.num_blocks; ++b) {
      std::vector<int> rows, cols;
      for (int k = 0; k < order.block_size[b]; ++k) {
        const int at = order.block_start[b] - 1 + k;
        rows.push_back(rows_[order.row_perm[at] - 1]);
        cols.push_back(cols_[order.col_perm[at] - 1]);
      }
      if (s_.diaglevel >= 1) Sayf(" --- Solve block size: {}", rows.size());
      const model::NewtonResult r = newton.Solve(rows, cols, ns);
      if (!r.ok) {
        ReportFailure(b + 1, rows, cols, r, newton);
        return -1;
      }
    }
    if (s_.diaglevel >= 2) Record("presolve_final_");
    return 0;
  }

  // A differential variable and its time derivative belong in the same block.
  void CheckDifferentialPairs(const model::BlockOrder& order) {
    std::vector<int> block_of(2 * store_.nvar + 2, -1);
    for (int b = 0; b < order.num_blocks; ++b)
      for (int k = 0; k < order.block_size[b]; ++k)
        block_of[cols_[order.col_perm[order.block_start[b] - 1 + k] - 1]] = b;
    for (int c : cols_) {
      if (c > store_.nvar || block_of[store_.nvar + c] < 0) continue;
      if (block_of[c] != block_of[store_.nvar + c]) {
        Say("Cutback: variable and associated differential are not in the same block");
        return;
      }
    }
  }

  void ReportFailure(int block, const std::vector<int>& rows, const std::vector<int>& cols,
                     const model::NewtonResult& r, model::BlockNewton& newton) {
    Sayf("Could not perform presolve. Failed at block {}", block);
    Say("with infeasible variables and equations reported in presolve.txt");
    std::string text = fmt::format("! presolve: block {} of {} equations did not solve: {}\n",
                                   block, rows.size(), r.why);
    text += "! equations: name, residual, text\n";
    for (int e : rows) {
      double res = 0;
      const bool ok = newton.Residual(e, &res);
      text += fmt::format("{}, {}, {}\n", store_.eqns[e].name,
                          ok ? fmt::format("{:.8e}", res) : "not a number", store_.eqns[e].Text());
    }
    text += "! variables: name, value, lower, upper\n";
    for (int c : cols) {
      if (c > store_.nvar) {
        text += fmt::format("d( {} )/dt, {:.8e}\n", store_.Var(c - store_.nvar).name,
                            store_.Var(c - store_.nvar).d_val);
        continue;
      }
      const model::Variable& v = store_.Var(c);
      text += fmt::format("{}, {:.8e}, {:.8e}, {:.8e}\n", v.name, v.val, v.lower, v.upper);
    }
    WriteFileAtomically(Path("presolve.txt"), text);
    Say("Use command zpm_get(server,app,'presolve.txt') to retrieve file");
  }

  // The point as a restart file: "NAME = VALUE", " *" for a calculated variable.
  void Record(const std::string& prefix) {
    Say("recording variables and equations...");
    std::string text = "! presolve point\n";
    for (int n = 1; n <= store_.nvar; ++n) {
      const model::Variable& v = store_.Var(n);
      text += fmt::format("{} = {:.17g}{}\n", v.name, v.val, v.fixed ? "" : " *");
    }
    WriteFileAtomically(Path(prefix + ".t0"), text);
    Say("...done");
  }

  std::string Path(const std::string& name) const {
    return s_.dir.empty() || s_.dir == "." ? name : s_.dir + "/" + name;
  }

  model::ModelAccess& access_;
  model::ModelStore& store_;
  PresolveSettings s_;
  std::vector<int> held_;  // decision variables held during the presolve
  std::vector<int> cols_;  // unknown columns
  std::vector<int> rows_;  // equality rows
};

}  // namespace

int BlockPresolve(model::ModelAccess& access, const PresolveSettings& settings) {
  const auto start = Clock::now();
  Say("--- Begin Pre-solve  -----------------------");
  Presolver p(access, settings);
  const int status = p.Run();
  if (status == 0) {
    Say("Successful Pre-solve Solution");
  } else {
    Sayf("Unsuccessful Pre-solve with error code {}", status);
  }
  Say("--- End Pre-solve -----------------------------------");
  Say(std::string(52, '-'));
  Sayf("Presolve total time  : {:.6f} sec",
       std::chrono::duration<double>(Clock::now() - start).count());
  access.Invalidate();
  access.EvaluateResiduals();
  return status;
}

}  // namespace kx::analysis
