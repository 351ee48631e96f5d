#include "horizon/inputs.h"

#include <cmath>

#include "base/report.h"
#include "base/text.h"
#include "horizon/collocation.h"
#include "horizon/terms.h"
#include "model/builder.h"

namespace kx::horizon {
namespace {

// Node position rounded to three decimals, as the in-step rows use it.
double RoundedPosition(double position) { return std::round(position * 1000.0) / 1000.0; }

void CheckOrder(int nodes) {
  if (nodes < kMinNodes || nodes > kMaxNodes)
    Fatal({fmt::format("Order {} is not available", nodes)}, "Stopping. . .");
}

}  // namespace

int HorizonRows::Add(int point, std::string name, std::string text, std::string_view expr,
                     const std::vector<int>& numbers, RowKind kind) {
  std::vector<RowInput> inputs;
  for (size_t i = 0; i < numbers.size(); ++i)
    inputs.push_back({std::string(1, static_cast<char>('a' + i)), numbers[i]});
  const int row = b_.AddRow(std::move(name), std::move(text), expr, inputs, kind);
  h_.eqn_origin.push_back(-2);
  h_.eqn_point.push_back(point);
  h_.colloc_var.push_back(0);
  return row;
}

void ShareOverHorizon(HorizonRows& rows, int number, const std::string& name) {
  Horizon& h = rows.horizon();
  const int first = h.Number(0, number);
  h.store.Var(first).fixed = false;
  for (int p = 1; p < h.grid.num_points(); ++p) {
    const int copy = h.Number(p, number);
    h.store.Var(copy).fixed = false;
    rows.Add(p, h.store.Var(copy).name + ".link", "0 = " + name + " - " + name + "_0", "a - b",
             {copy, first}, RowKind::kEquality);
  }
}

void FreePerStep(HorizonRows& rows, int number, int mv_type, bool first_fixed) {
  Horizon& h = rows.horizon();
  const int nodes = h.grid.nodes;
  CheckOrder(nodes);
  for (int p = 0; p < h.grid.num_points(); ++p) {
    const bool boundary = h.data_sets || p % (nodes - 1) == 0;
    if (boundary && !(p == 0 && first_fixed)) h.store.Var(h.Number(p, number)).fixed = false;
  }
  if (h.data_sets) return;
  const std::vector<double> pos = LobattoPositions(nodes);
  for (int k = 1; k <= h.grid.num_steps(); ++k) {
    const int u1 = h.Number(h.grid.Point(k, 1), number);
    const int un = h.Number(h.grid.Point(k, nodes), number);
    for (int i = 2; i < nodes; ++i) {
      const int p = h.grid.Point(k, i);
      const int ui = h.Number(p, number);
      model::Variable& v = h.store.Var(ui);
      v.fixed = false;
      const std::string row_name = v.name + ".in_step";
      if (mv_type == 0) {
        rows.Add(p, row_name, fmt::format("0= u_{} - u_1", i), "a - b", {ui, u1},
                 RowKind::kEquality);
      } else {
        const double w = RoundedPosition(pos[i - 1]);
        const double w1 = RoundedPosition(1.0 - pos[i - 1]);
        rows.Add(p, row_name,
                      fmt::format("0= u_{} - ({} u_1 + {} u_{})", i, FormatReal(w1),
                                  FormatReal(w), nodes),
                      fmt::format("a - ({}*b + {}*c)", FormatReal(w1), FormatReal(w)),
                 {ui, u1, un}, RowKind::kEquality);
      }
    }
  }
}

}  // namespace kx::horizon
