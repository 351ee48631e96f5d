// linalg/symmetric_ldl: the one factorisation of sparse symmetric indefinite matrices,
// K = L D L', with the inertia (negative and null pivots) that the optimisers' inertia
// correction reads. Systems up to `dense_limit` go to a dense Bunch-Kaufman factorisation
// (lapack_ldl.cc), larger ones to the sequential multifrontal library (mumps_ldl.cc).
//
// Call protocol: Analyse(dim, rows, cols) with the lower triangle as 0-based triplets (a
// position may repeat; repeated values add), then Factorise(values) in pattern order for each
// new matrix, then any number of Solve(rhs). Factor() does both steps and repeats the
// analysis only when the pattern changed. The caller decides how to correct the inertia.
#pragma once

#include <memory>
#include <span>
#include <vector>

namespace kx::linalg {

enum class FactorOutcome {
  kOk,        // factorised; the inertia is known
  kSingular,  // factorised with null pivots, or found numerically singular
  kFailed,    // the factorisation did not complete (memory or an internal error)
};

struct LdlSettings {
  int dense_limit = 0;               // largest dimension factored densely
  bool detect_null_pivots = false;   // sparse: report null pivots rather than tiny ones
  double pivot_threshold = -1.0;     // sparse relative pivot threshold; < 0: library default
  bool transversal_ordering = true;  // sparse: maximum-transversal permutation before ordering
  int workspace_percent = 50;        // sparse: working memory margin, doubled on a shortage
  int refinement_rounds = 0;         // sparse: iterative refinement steps after each solve
  double refinement_tol = 0.0;       // stop refining at |b - K x| <= tol * (1 + |b|)
};

class MumpsLdl;
class LapackLdl;

class SymmetricLdl {
 public:
  explicit SymmetricLdl(const LdlSettings& settings = {});
  ~SymmetricLdl();
  SymmetricLdl(const SymmetricLdl&) = delete;
  SymmetricLdl& operator=(const SymmetricLdl&) = delete;

  // Symbolic analysis of the pattern. False when the library refused it.
  bool Analyse(int dim, std::span<const int> rows, std::span<const int> cols);
  // Numeric factorisation of values in the order of the analysed pattern.
  FactorOutcome Factorise(std::span<const double> values);
  // Analyse (when the pattern differs from the last one) and Factorise.
  FactorOutcome Factor(int dim, std::span<const int> rows, std::span<const int> cols,
                       std::span<const double> values);
  int num_negative() const { return num_negative_; }  // negative pivots of the last factor
  int num_null() const { return num_null_; }          // null pivots of the last factor
  bool dense() const { return dense_; }               // the last factor was the dense one
  // Solves K x = rhs in place with the last factorisation, refined as the settings ask. False
  // on a library error or a solution that is not finite.
  bool Solve(std::span<double> rhs);

 private:
  bool SamePattern(int dim, std::span<const int> rows, std::span<const int> cols) const;
  bool AnalyseWithValues(int dim, std::span<const int> rows, std::span<const int> cols,
                         std::span<const double> values);
  void Residual(std::span<const double> b, std::span<const double> x,
                std::span<double> r) const;
  bool Refine(std::span<const double> b, std::span<double> x);

  LdlSettings settings_;
  int dim_ = 0;                     // dimension of the analysed pattern
  bool analysed_ = false;           // rows_/cols_ hold an analysed pattern
  bool dense_ = false;              // the dense factorisation holds the matrix
  std::vector<int> rows_, cols_;    // analysed lower-triangle pattern (row >= col); size nnz
  std::vector<double> values_;      // values of the last factorised matrix; size nnz
  std::unique_ptr<MumpsLdl> sparse_;  // created on the first sparse analysis
  std::unique_ptr<LapackLdl> dense_factor_;  // created on the first dense analysis
  int num_negative_ = 0;
  int num_null_ = 0;
};

}  // namespace kx::linalg
