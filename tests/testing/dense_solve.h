// A dense linear solve for tests that work out an expected answer independently of the engine.
#pragma once

#include <cmath>
#include <utility>
#include <vector>

namespace kx::testing {

// Solves the n x n system a x = b (a row-major) by Gaussian elimination with partial pivoting.
template <typename T>
std::vector<T> SolveDense(std::vector<T> a, std::vector<T> b) {
  const int n = static_cast<int>(b.size());
  for (int c = 0; c < n; ++c) {
    int piv = c;
    for (int r = c + 1; r < n; ++r)
      if (std::abs(a[r * n + c]) > std::abs(a[piv * n + c])) piv = r;
    for (int k = 0; k < n; ++k) std::swap(a[c * n + k], a[piv * n + k]);
    std::swap(b[c], b[piv]);
    for (int r = c + 1; r < n; ++r) {
      const T f = a[r * n + c] / a[c * n + c];
      for (int k = c; k < n; ++k) a[r * n + k] -= f * a[c * n + k];
      b[r] -= f * b[c];
    }
  }
  std::vector<T> x(n);
  for (int r = n - 1; r >= 0; --r) {
    T s = b[r];
    for (int k = r + 1; k < n; ++k) s -= a[r * n + k] * x[k];
    x[r] = s / a[r * n + r];
  }
  return x;
}

}  // namespace kx::testing
