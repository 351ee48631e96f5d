// solvers/biopt_filter: the filter of BIOPT's line search, a set of (theta, phi) pairs of
// constraint violation and barrier function that a trial point must improve on in at least one
// of the two measures. Emptied whenever the barrier parameter changes.
#pragma once

#include <vector>

namespace kx::solvers::biopt {

class Filter {
 public:
  // True when (theta, phi) is not dominated by any entry.
  bool Accepts(double theta, double phi) const;
  // Adds the entry and drops the entries it dominates.
  void Add(double theta, double phi);
  void Clear() { entries_.clear(); }
  int size() const { return static_cast<int>(entries_.size()); }

 private:
  struct Entry {
    double theta;  // constraint violation (1-norm)
    double phi;    // barrier function value
  };
  std::vector<Entry> entries_;
};

}  // namespace kx::solvers::biopt
