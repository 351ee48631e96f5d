#include "solvers/residual_dump.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "base/report.h"

namespace kx::solvers {
namespace {

constexpr size_t kClip = 10;

std::string Text(double v) { return fmt::format("{:g}", v); }
std::string Text(int v) { return fmt::format("{}", v); }

template <typename T>
void PrintVector(std::string_view label, std::span<const T> v) {
  std::string line(label);
  for (size_t i = 0; i < std::min(v.size(), kClip); ++i) line += (i > 0 ? " " : "") + Text(v[i]);
  Say(line);
}

// Column of each non-zero in row order followed by the row starts, all 1-based, as one
// vector of nz + m + 2 entries (the first entry is the count nz).
std::vector<int> CombinedIndex(std::span<const int> rows, std::span<const int> cols, int m,
                               std::vector<int>* order) {
  const int nz = static_cast<int>(rows.size());
  order->resize(nz);
  std::iota(order->begin(), order->end(), 0);
  std::stable_sort(order->begin(), order->end(), [&](int a, int b) { return rows[a] < rows[b]; });
  std::vector<int> ia;
  ia.reserve(nz + m + 2);
  ia.push_back(nz);
  for (int k : *order) ia.push_back(cols[k] + 1);
  int at = 1;
  for (int r = 0; r <= m; ++r) {
    ia.push_back(at);
    while (at <= nz && rows[(*order)[at - 1]] == r) ++at;
  }
  return ia;
}

}  // namespace

// Failed evaluations are printed as they came: the dump shows what the solver would see.
void PrintResidualDump(ProblemView& view, std::span<const double> x) {
  const int n = view.n(), m = view.m(), nz = view.nnz_jac();
  std::vector<double> f(m), g(n), a(nz);
  std::vector<int> order;
  view.Constraints(x, f);
  double objective = 0;
  view.Objective(x, objective);
  view.Gradient(x, g);
  view.Jacobian(x, a);
  std::vector<int> ia = CombinedIndex(view.jac_rows(), view.jac_cols(), m, &order);
  std::vector<double> a_sorted(nz);
  for (int k = 0; k < nz; ++k) a_sorted[k] = a[order[k]];

  Say("----- Kestrix Residual Evaluation -----");
  Say("note: clipped at 10 values max");
  Say("Variables -------");
  Sayf("nvar (n): {}", n);
  PrintVector<double>("x(1:n): ", x);
  PrintVector<double>("xl(1:n) lower: ", view.xl());
  PrintVector<double>("xu(1:n) upper: ", view.xu());
  Say("Equations -------");
  Sayf("neqn (m): {}", m);
  PrintVector<double>("residuals (f(1:m)): ", f);
  Say("Objective -------");
  Sayf("objective: {:g}", objective);
  PrintVector<double>("obj grad (g(1:n)): ", g);
  Say("Equation Derivatives -------");
  Sayf("1st deriv non-zeros (nz): {}", nz);
  PrintVector<double>("1st derivs (a(1:nz)): ", a_sorted);
  PrintVector<int>("1st deriv sparsity (ia(0:nz+m+1)): ", ia);
}

}  // namespace kx::solvers
