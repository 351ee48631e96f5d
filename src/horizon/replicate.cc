#include "horizon/replicate.h"

#include <unordered_map>

#include "base/check.h"
#include "base/report.h"
#include "horizon/collocation.h"
#include "model/builder.h"
#include "model/checks.h"

namespace kx::horizon {

namespace {

using model::Equation;
using model::ModelStore;
using model::Variable;

class Replicator {
 public:
  Replicator(const ModelStore& base, const TimeGrid& grid, bool data_sets) : base_(base) {
    h_.grid = grid;
    h_.data_sets = data_sets;
    h_.vars_per_point = base.nvar;
    nvar_ = grid.num_points() * base.nvar + (data_sets ? 0 : grid.num_steps());
  }

  Horizon Run(const DataFile* data, int csv_read) {
    CopyShared();
    AddVariables();
    if (data != nullptr && h_.grid.from_data) ApplyData(*data, csv_read);
    AddEquations();
    LinkElements();
    FinishCounts();
    return std::move(h_);
  }

 private:
  // Column of the replicated store read at point p where the model equation reads `col`.
  int MapColumn(int p, int col) const {
    int nb = base_.nvar;
    return col <= nb ? h_.Number(p, col) : nvar_ + h_.Number(p, col - nb);
  }

  void CopyShared();
  void AddVariables();
  void AddPointVariables(int p);
  void AddStepLengths();
  void ApplyData(const DataFile& data, int csv_read);
  void ApplyColumn(const DataFile& data, int column, int base_number);
  void AddEquations();
  void AddModelEquation(int p, int e);
  void AddCollocationRows(int p);
  void LinkElements();
  void FinishCounts();

  const ModelStore& base_;
  Horizon h_;
  int nvar_ = 0;                               // variables of the replicated store
  std::vector<CollocationProgram> colloc_;     // compiled rows of nodes 2..NODES
  std::vector<int> colloc_program_;            // store program index of each of them
  std::vector<int> diff_vars_;                 // model variable of each idiff (1-based idiff)
};

void Replicator::CopyShared() {
  ModelStore& s = h_.store;
  s.name = base_.name;
  s.constants = base_.constants;
  s.connections = base_.connections;
  s.objects = base_.objects;
  s.compounds = base_.compounds;
  s.exact_hessian = base_.exact_hessian;
  s.programs = base_.programs;  // shares the byte code
  colloc_ = CompileCollocationRows(h_.grid.nodes);
  for (CollocationProgram& row : colloc_) {
    colloc_program_.push_back(static_cast<int>(s.programs.size()));
    s.programs.push_back(row.program);
  }
  s.intermediates = base_.intermediates;
  for (model::Intermediate& m : s.intermediates) {
    for (int& c : m.columns) c = MapColumn(0, c);
  }
  diff_vars_.assign(base_.ndiff + 1, 0);
  for (int n = 1; n <= base_.nvar; ++n) {
    if (base_.Var(n).idiff > 0) diff_vars_[base_.Var(n).idiff] = n;
  }
}

void Replicator::AddVariables() {
  ModelStore& s = h_.store;
  s.vars.reserve(nvar_);
  s.order.reserve(nvar_);
  for (int p = 0; p < h_.grid.num_points(); ++p) AddPointVariables(p);
  AddStepLengths();
  s.nvar = nvar_;
  KX_CHECK(static_cast<int>(s.vars.size()) == nvar_);
}

void Replicator::AddPointVariables(int p) {
  ModelStore& s = h_.store;
  int step = h_.data_sets ? p + 1 : h_.grid.StepOf(p);
  int node = h_.data_sets ? 1 : h_.grid.NodeOf(p);
  std::string prefix = fmt::format("p({}).n({}).", step, node);
  for (int n = 1; n <= base_.nvar; ++n) {
    Variable v = base_.Var(n);
    v.name = prefix + v.name;
    v.number = v.number_v = h_.Number(p, n);
    v.number_h = step;
    v.number_n = node;
    v.forward = -1;
    v.idiff = 0;  // numbered in FinishCounts
    if (p == 0 && v.diff && !h_.data_sets) model::FixVariable(&v);  // initial condition
    s.order.push_back(static_cast<int>(s.vars.size()));
    s.vars.push_back(std::move(v));
  }
}

void Replicator::AddStepLengths() {
  ModelStore& s = h_.store;
  for (int k = 1; k <= h_.grid.num_steps() && !h_.data_sets; ++k) {
    Variable v;
    v.name = fmt::format("p({}).dt", k);
    v.vtype = model::kVarStepLength;
    v.fixed = true;
    v.number = v.number_v = h_.StepLengthNumber(k);
    v.number_h = k;
    v.number_n = 1;
    v.val = v.lower = v.upper = h_.grid.dt[k - 1];
    s.order.push_back(static_cast<int>(s.vars.size()));
    s.vars.push_back(std::move(v));
  }
}

void Replicator::ApplyData(const DataFile& data, int csv_read) {
  std::unordered_map<std::string, int> number_of;  // any record name -> surviving number
  for (int i = 0; i < static_cast<int>(base_.vars.size()); ++i) {
    const Variable& rec = base_.vars[model::ResolveForward(base_, i)];
    number_of.emplace(base_.vars[i].name, rec.number);
    for (const std::string& alias : base_.vars[i].aliases()) number_of.emplace(alias, rec.number);
  }
  for (int c = 0; c < data.num_columns(); ++c) {
    const std::string& name = data.columns[c];
    if (name == "time") continue;
    auto it = number_of.find(name);
    if (it == number_of.end() || it->second < 1) {
      Sayf("WARNING: data column \"{}\" is not a parameter or variable of the model: ignored",
           name);
      continue;
    }
    // Parameters always take their data; variables only when calculated values are read too.
    if (base_.Var(it->second).vtype == model::kVarParameter || csv_read >= 2) {
      ApplyColumn(data, c, it->second);
    }
  }
}

void Replicator::ApplyColumn(const DataFile& data, int column, int base_number) {
  std::vector<double> row_value(data.num_rows);
  double last = base_.Var(base_number).val;
  for (int r = 0; r < data.num_rows; ++r) {
    if (!DataFile::IsNoValue(data.At(r, column))) last = data.At(r, column);
    row_value[r] = last;
  }
  for (int p = 0; p < h_.grid.num_points(); ++p) {
    int r = h_.data_sets ? p : h_.grid.RowOf(p);
    // A point inside step k takes the value of the step's end row, row k.
    h_.store.Var(h_.Number(p, base_number)).val = row_value[r >= 0 ? r : h_.grid.StepOf(p)];
  }
}

void Replicator::AddEquations() {
  int per_point = static_cast<int>(base_.eqns.size()) + base_.ndiff;
  h_.store.eqns.reserve(static_cast<size_t>(per_point) * h_.grid.num_points());
  h_.eqn_origin.reserve(h_.store.eqns.capacity());
  for (int p = 0; p < h_.grid.num_points(); ++p) {
    for (int e = 0; e < static_cast<int>(base_.eqns.size()); ++e) {
      // The differential equations do not hold at the horizon start.
      if (p == 0 && base_.eqns[e].differential && !h_.data_sets) continue;
      AddModelEquation(p, e);
    }
    if (p > 0 && !h_.data_sets) AddCollocationRows(p);
  }
}

void Replicator::AddModelEquation(int p, int e) {
  const Equation& q = base_.eqns[e];
  Equation copy;
  copy.name = h_.data_sets ? fmt::format("p({}).n(1).{}", p + 1, q.name)
                           : fmt::format("p({}).n({}).{}", h_.grid.StepOf(p), h_.grid.NodeOf(p),
                                         q.name);
  copy.text = q.text;
  copy.copy = q.copy;
  copy.copied = q.copied;
  copy.type = q.type;
  copy.active = q.active;
  copy.differential = q.differential;
  copy.obj_eqn = q.obj_eqn;
  copy.lower = q.lower;
  copy.upper = q.upper;
  copy.scaling = q.scaling;
  copy.program = q.program;  // shared byte code
  copy.columns.reserve(q.columns.size());
  for (int c : q.columns) copy.columns.push_back(MapColumn(p, c));
  copy.line = q.line;
  copy.statement = q.statement;
  h_.store.eqns.push_back(std::move(copy));
  h_.eqn_origin.push_back(e);
  h_.eqn_point.push_back(p);
  h_.colloc_var.push_back(0);
}

void Replicator::AddCollocationRows(int p) {
  int k = h_.grid.StepOf(p), i = h_.grid.NodeOf(p);
  int start = h_.grid.Point(k, 1);
  const CollocationProgram& row = colloc_[i - 2];
  for (int d = 1; d <= base_.ndiff; ++d) {
    int n = diff_vars_[d];
    Equation q;
    q.name = fmt::format("p({}).n({}).collocation.{}", k, i, base_.Var(n).name);
    q.text = fmt::format("collocation of ${} at node {}", base_.Var(n).name, i);
    q.differential = true;
    q.program = colloc_program_[i - 2];
    q.columns.reserve(row.inputs.size());
    for (int input : row.inputs) {
      int col = 0;
      if (input == kValueAtNode) {
        col = h_.Number(p, n);
      } else if (input == kValueAtStart) {
        col = h_.Number(start, n);
      } else if (input == kStepLength) {
        col = h_.StepLengthNumber(k);
      } else {
        int j = input - kFirstDerivative + 2;
        col = nvar_ + h_.Number(h_.grid.Point(k, j), n);
      }
      q.columns.push_back(col);
    }
    h_.store.eqns.push_back(std::move(q));
    h_.eqn_origin.push_back(-1);
    h_.eqn_point.push_back(p);
    h_.colloc_var.push_back(n);
  }
}

void Replicator::LinkElements() {
  const TimeGrid& g = h_.grid;
  int ns = g.num_steps(), nodes = g.nodes;
  if (h_.data_sets) return;
  h_.elements.reserve(static_cast<size_t>(base_.ndiff) * ns * nodes);
  for (int d = 1; d <= base_.ndiff; ++d) {
    int n = diff_vars_[d];
    for (int k = 1; k <= ns; ++k) {
      for (int j = 1; j <= nodes; ++j) {
        HorizonElement el;
        el.number = h_.Number(g.Point(k, j), n);
        el.position = k;
        el.num_positions = ns;
        el.node = j;
        el.linked_onward = j < nodes;
        el.next_node = j < nodes ? h_.Number(g.Point(k, j + 1), n) : 0;
        el.next_horizon = k < ns ? h_.Number(g.Point(k + 1, 1), n) : 0;
        h_.elements.push_back(el);
      }
    }
  }
}

void Replicator::FinishCounts() {
  ModelStore& s = h_.store;
  s.ndiff = s.num_integer = 0;
  for (int num = 1; num <= s.nvar; ++num) {
    Variable& v = s.Var(num);
    bool reads_derivative = v.diff && !(v.number_h == 1 && v.number_n == 1) && !h_.data_sets;
    v.idiff = reads_derivative && v.vtype != model::kVarStepLength ? ++s.ndiff : 0;
    v.number_d = v.idiff > 0 ? s.nvar + v.idiff : 0;
    if (v.integer) ++s.num_integer;
  }
  model::CountEquationKinds(&s);
}

}  // namespace

Horizon Replicate(const ModelStore& base, const TimeGrid& grid, const DataFile* data,
                  int csv_read) {
  Replicator r(base, grid, /*data_sets=*/false);
  return r.Run(data, csv_read);
}

Horizon ReplicateDataSets(const ModelStore& base, const DataFile& data, int csv_read) {
  TimeGrid grid;
  grid.nodes = 2;
  grid.positions = {0.0, 1.0};
  const int time = data.Column("time");
  for (int r = 0; r < data.num_rows; ++r) {
    const double t = time >= 0 ? data.At(r, time) : kNoValue;
    grid.times.push_back(DataFile::IsNoValue(t) ? r : t);
  }
  for (int r = 1; r < data.num_rows; ++r) grid.dt.push_back(1.0);
  grid.ctrl_hor = grid.num_steps();
  grid.from_data = true;
  Replicator rep(base, grid, /*data_sets=*/true);
  return rep.Run(&data, csv_read);
}

}  // namespace kx::horizon
