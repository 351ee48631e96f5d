#include "solvers/biopt_filter.h"

#include <algorithm>

namespace kx::solvers::biopt {

bool Filter::Accepts(double theta, double phi) const {
  for (const Entry& e : entries_) {
    if (theta >= e.theta && phi >= e.phi) return false;
  }
  return true;
}

void Filter::Add(double theta, double phi) {
  std::erase_if(entries_, [&](const Entry& e) { return e.theta >= theta && e.phi >= phi; });
  entries_.push_back({theta, phi});
}

}  // namespace kx::solvers::biopt
