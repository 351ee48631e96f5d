// linalg/mumps_ldl: the sequential multifrontal library in symmetric indefinite mode, silent.
// Used only through linalg/symmetric_ldl.
#pragma once

#include <span>
#include <vector>

#include "linalg/symmetric_ldl.h"

namespace kx::linalg {

class MumpsLdl {
 public:
  explicit MumpsLdl(const LdlSettings& settings);
  ~MumpsLdl();
  MumpsLdl(const MumpsLdl&) = delete;
  MumpsLdl& operator=(const MumpsLdl&) = delete;

  // Lower-triangle pattern, 0-based (row >= col). The analysis may read the values for its
  // ordering; they, as those given to Factorise, must stay alive until the next call.
  bool Analyse(int dim, std::span<const int> rows, std::span<const int> cols,
               std::span<double> values);
  FactorOutcome Factorise(std::span<double> values);
  bool Solve(std::span<double> rhs);
  int num_negative() const { return num_negative_; }
  int num_null() const { return num_null_; }

 private:
  bool Run(int job);

  struct Instance;
  Instance* instance_;   // the library's instance
  int dim_ = 0;
  std::vector<int> irn_, jcn_;  // 1-based pattern the library reads at every job; size nnz
  int num_negative_ = 0;
  int num_null_ = 0;
};

}  // namespace kx::linalg
