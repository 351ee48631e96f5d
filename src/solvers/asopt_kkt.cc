#include "solvers/asopt_kkt.h"

#include <chrono>

#include <fmt/format.h>

namespace kx::solvers {

KktFactor::KktFactor()
    : ldl_(linalg::LdlSettings{.dense_limit = kDenseLimit,
                               .detect_null_pivots = true,
                               .refinement_rounds = 1}) {}

void KktFactor::SetTrace(int level, std::function<void(const std::string&)> log) {
  trace_level_ = level;
  trace_ = std::move(log);
}

bool KktFactor::Factor(int dim, std::span<const int> rows, std::span<const int> cols,
                       std::span<const double> values) {
  ++factorizations_;
  const auto start = std::chrono::steady_clock::now();
  const bool ok = ldl_.Factor(dim, rows, cols, values) != linalg::FactorOutcome::kFailed;
  if (trace_level_ < 1 || !trace_) return ok;
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  trace_(fmt::format("   factor {:6d}  {}  n {:8d}  nnz {:9d}  negative {:8d}  null {:6d}  "
                     "{:9.4f} s{}",
                     factorizations_, ldl_.dense() ? "dense " : "sparse", dim, rows.size(),
                     num_negative(), num_null(), took.count(), ok ? "" : "  FAILED"));
  return ok;
}

}  // namespace kx::solvers
