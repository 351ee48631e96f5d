// Generator of large test models (benchmarks and scaling tests). Deterministic for a seed.
//
// A model of n equations in n variables x[1..n]: equation i follows template (i-1) % 8, touches
// 3 to 6 distinct variables near x[i], and carries two random coefficients. Together the
// templates use all sixteen functions with arguments kept in their domains, a constant, and
// the intermediates q[j] = 1 + x[j]^2 (j = 1..max(1, n/10), declared as a vector range).
//
// The generator gives the model-file text, and the same equations as plain residual strings
// with the intermediates' texts, so the expression compiler can be driven without the front
// end. HandResidual/HandDerivatives are the same templates written out by hand in C++, with
// first and second derivatives derived on paper: the reference for speed and for correctness.
#pragma once

#include <cmath>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace kx::bench {

inline constexpr int kNumTemplates = 8;
inline constexpr int kMaxTemplateVars = 6;
inline constexpr int kTemplateVars[kNumTemplates] = {3, 4, 5, 6, 4, 4, 4, 4};
inline constexpr double kHalf = 0.5;  // the model constant `half`

struct GenEquation {
  int tmpl;                   // template 0..7
  int var[kMaxTemplateVars];  // model columns (1-based) of the template's a, b, c, d, e, f
  double c0, c1;              // coefficients
};

struct GeneratedModel {
  int n = 0;      // variables and equations
  int num_q = 0;  // intermediates q[1..num_q]
  std::vector<GenEquation> eqs;

  // Residual text of equation i (0-based), e.g. "x[3]*exp(-x[5]) + ...".
  std::string Residual(int i) const;
  // Defining text of intermediate q[j], j = 1..num_q.
  std::string Intermediate(int j) const { return fmt::format("1 + x[{}]^2", j); }
  // The whole model file.
  std::string ModelText() const;
};

// splitmix64: small, fast and the same on every platform.
class GenRandom {
 public:
  explicit GenRandom(uint64_t seed) : state_(seed) {}
  uint64_t Next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  double Uniform(double lo, double hi) { return lo + (hi - lo) * (Next() >> 11) * 0x1.0p-53; }
  int Below(int n) { return static_cast<int>(Next() % static_cast<uint64_t>(n)); }

 private:
  uint64_t state_;
};

inline bool Contains(const int* v, int count, int x) {
  for (int k = 0; k < count; ++k)
    if (v[k] == x) return true;
  return false;
}

// n >= 50 keeps the neighbourhoods and the intermediates distinct.
inline GeneratedModel GenerateModel(int n, uint64_t seed) {
  GeneratedModel m;
  m.n = n;
  m.num_q = std::max(1, n / 10);
  GenRandom rng(seed);
  m.eqs.resize(n);
  for (int i = 0; i < n; ++i) {
    GenEquation& e = m.eqs[i];
    e.tmpl = i % kNumTemplates;
    e.var[0] = i + 1;
    for (int k = 1; k < kTemplateVars[e.tmpl]; ++k) {
      int v;
      do {
        if (e.tmpl == 5 && k == 3) v = 1 + rng.Below(m.num_q);  // d is the x of q[d]
        else v = 1 + ((i + rng.Below(41) - 20) % n + n) % n;
      } while (Contains(e.var, k, v));
      e.var[k] = v;
    }
    e.c0 = rng.Uniform(0.5, 2.0);
    e.c1 = rng.Uniform(-1.0, 1.0);
  }
  return m;
}

inline std::string GeneratedModel::Residual(int i) const {
  const GenEquation& e = eqs[i];
  auto x = [&](int k) { return fmt::format("x[{}]", e.var[k]); };
  const std::string c0 = fmt::format("{:.17g}", e.c0), c1 = fmt::format("({:.17g})", e.c1);
  switch (e.tmpl) {
    case 0:
      return fmt::format("{}*{}*exp(-{}) + log(1+{}^2) - {}", c0, x(0), x(1), x(2), c1);
    case 1:
      return fmt::format("sqrt(2+sin({}))*{} - {}*{}*{} + tanh({} - {})", x(0), x(1), c0, x(2),
                         x(3), x(0), x(3));
    case 2:
      return fmt::format("asin(half*tanh({})) + acos(half*tanh({}))*{} - {} + {}^2/(1+{}^2)",
                         x(0), x(1), x(2), c0, x(4), x(3));
    case 3:
      return fmt::format("log10(3+cos({})) + atan({}*{}) - erf({}) + erfc({})*{}", x(0), x(1),
                         x(2), x(3), x(4), x(5));
    case 4:
      return fmt::format("sinh(0.1*{})*cosh(0.1*{}) + abs({}) - {}*tan(0.5*tanh({}))", x(0),
                         x(1), x(2), c0, x(3));
    case 5:
      return fmt::format("q[{}]*{} - {}*{}^3 + {}*{}*exp(0.2*{})", e.var[3], x(0), c0, x(1), c1,
                         x(2), x(2));
    case 6:
      return fmt::format("({} - {})^2 + {}*({} - {})^2 + {}*{}*{}*{}", x(0), x(1), c0, x(2), x(3),
                         c1, x(0), x(1), x(2));
    default:
      return fmt::format("exp(0.1*{})*{}/(2+{}^2) - {}*sqrt(1+{}^2)", x(0), x(1), x(2), c0, x(3));
  }
}

inline std::string GeneratedModel::ModelText() const {
  std::string out = "Model generated\n  Constants\n    half = 0.5\n  End Constants\n";
  out += fmt::format("  Variables\n    x[1:{}] = 1, >= -10, <= 10\n  End Variables\n", n);
  out += fmt::format("  Intermediates\n    q[1:{0}] = 1 + x[1:{0}]^2\n  End Intermediates\n",
                     num_q);
  out += "  Equations\n";
  for (int i = 0; i < n; ++i) out += "    " + Residual(i) + " = 0\n";
  out += "  End Equations\nEnd Model\n";
  return out;
}

// ---- The templates by hand --------------------------------------------------------------
// x is indexed by model column (x[1..n]); g[k] is d r / d (template variable k); h is the dense
// lower triangle h[i*6 + j], i >= j, of the template variables (entries not written are 0).

inline double HandResidual(const GenEquation& e, const double* x) {
  const double a = x[e.var[0]], b = x[e.var[1]], c = x[e.var[2]];
  switch (e.tmpl) {
    case 0: return e.c0 * a * std::exp(-b) + std::log(1 + c * c) - e.c1;
    case 1: {
      const double d = x[e.var[3]];
      return std::sqrt(2 + std::sin(a)) * b - e.c0 * c * d + std::tanh(a - d);
    }
    case 2: {
      const double d = x[e.var[3]], f = x[e.var[4]];
      return std::asin(kHalf * std::tanh(a)) + std::acos(kHalf * std::tanh(b)) * c - e.c0 +
             f * f / (1 + d * d);
    }
    case 3: {
      const double d = x[e.var[3]], f = x[e.var[4]], g = x[e.var[5]];
      return std::log10(3 + std::cos(a)) + std::atan(b * c) - std::erf(d) + std::erfc(f) * g;
    }
    case 4: {
      const double d = x[e.var[3]];
      return std::sinh(0.1 * a) * std::cosh(0.1 * b) + std::fabs(c) -
             e.c0 * std::tan(0.5 * std::tanh(d));
    }
    case 5: {
      const double d = x[e.var[3]];
      return (1 + d * d) * a - e.c0 * b * b * b + e.c1 * c * std::exp(0.2 * c);
    }
    case 6: {
      const double d = x[e.var[3]];
      return (a - b) * (a - b) + e.c0 * (c - d) * (c - d) + e.c1 * a * b * c;
    }
    default: {
      const double d = x[e.var[3]];
      return std::exp(0.1 * a) * b / (2 + c * c) - e.c0 * std::sqrt(1 + d * d);
    }
  }
}

namespace hand {

constexpr double kTwoOverSqrtPi = 1.1283791670955126;
constexpr double kLn10 = 2.302585092994046;

// asin(0.5*tanh(t)) and its first two derivatives in t.
inline void AsinHalfTanh(double t, double* f, double* d1, double* d2) {
  const double th = std::tanh(t), u = 1 - th * th, w = kHalf * th;
  const double q = 1 / std::sqrt(1 - w * w);
  *f = std::asin(w);
  *d1 = kHalf * u * q;
  *d2 = -th * u * q + 0.25 * u * u * w * q * q * q;
}

inline double T0(const GenEquation& e, const double* v, double* g, double* h) {
  const double a = v[0], b = v[1], c = v[2], ea = std::exp(-b), s = 1 + c * c;
  g[0] = e.c0 * ea, g[1] = -e.c0 * a * ea, g[2] = 2 * c / s;
  h[1 * 6 + 0] = -e.c0 * ea, h[1 * 6 + 1] = e.c0 * a * ea, h[2 * 6 + 2] = 2 * (1 - c * c) / (s * s);
  return e.c0 * a * ea + std::log(s) - e.c1;
}

inline double T1(const GenEquation& e, const double* v, double* g, double* h) {
  const double a = v[0], b = v[1], c = v[2], d = v[3];
  const double s = std::sqrt(2 + std::sin(a)), ds = std::cos(a) / (2 * s);
  const double d2s = -std::sin(a) / (2 * s) - std::cos(a) * std::cos(a) / (4 * s * s * s);
  const double t = std::tanh(a - d), u = 1 - t * t, d2t = -2 * t * u;
  g[0] = b * ds + u, g[1] = s, g[2] = -e.c0 * d, g[3] = -e.c0 * c - u;
  h[0] = b * d2s + d2t, h[1 * 6 + 0] = ds, h[3 * 6 + 0] = -d2t, h[3 * 6 + 3] = d2t;
  h[3 * 6 + 2] = -e.c0;
  return s * b - e.c0 * c * d + t;
}

inline double T2(const GenEquation& e, const double* v, double* g, double* h) {
  const double c = v[2], d = v[3], f = v[4], s = 1 + d * d;
  double fa, fa1, fa2, fb, fb1, fb2;
  AsinHalfTanh(v[0], &fa, &fa1, &fa2);
  AsinHalfTanh(v[1], &fb, &fb1, &fb2);
  const double gb = std::acos(kHalf * std::tanh(v[1]));  // acos = pi/2 - asin: negate slopes
  g[0] = fa1, g[1] = -c * fb1, g[2] = gb, g[3] = -2 * d * f * f / (s * s), g[4] = 2 * f / s;
  h[0] = fa2, h[1 * 6 + 1] = -c * fb2, h[2 * 6 + 1] = -fb1;
  h[3 * 6 + 3] = -2 * f * f * (1 - 3 * d * d) / (s * s * s);
  h[4 * 6 + 3] = -4 * d * f / (s * s), h[4 * 6 + 4] = 2 / s;
  return fa + gb * c - e.c0 + f * f / s;
}

inline double T3(const GenEquation& e, const double* v, double* g, double* h) {
  const double a = v[0], b = v[1], c = v[2], d = v[3], f = v[4], z = v[5];
  const double p = 3 + std::cos(a), m = b * c, k = 1 / (1 + m * m);
  const double ed = kTwoOverSqrtPi * std::exp(-d * d), ef = kTwoOverSqrtPi * std::exp(-f * f);
  const double erfc_f = std::erfc(f);
  g[0] = -std::sin(a) / (p * kLn10), g[1] = c * k, g[2] = b * k, g[3] = -ed, g[4] = -ef * z;
  g[5] = erfc_f;
  h[0] = -(std::cos(a) * p + std::sin(a) * std::sin(a)) / (p * p * kLn10);
  h[1 * 6 + 1] = -2 * m * c * c * k * k, h[2 * 6 + 2] = -2 * m * b * b * k * k;
  h[2 * 6 + 1] = k - 2 * m * b * c * k * k, h[3 * 6 + 3] = 2 * d * ed;
  h[4 * 6 + 4] = 2 * f * ef * z, h[5 * 6 + 4] = -ef;
  return std::log10(p) + std::atan(m) - std::erf(d) + erfc_f * z;
}

inline double T4(const GenEquation& e, const double* v, double* g, double* h) {
  const double a = v[0], b = v[1], c = v[2], d = v[3];
  const double sa = std::sinh(0.1 * a), ca = std::cosh(0.1 * a);
  const double sb = std::sinh(0.1 * b), cb = std::cosh(0.1 * b);
  const double t = std::tanh(d), u = 1 - t * t, tn = std::tan(0.5 * t), s = 1 + tn * tn;
  g[0] = 0.1 * ca * cb, g[1] = 0.1 * sa * sb, g[2] = c > 0 ? 1.0 : (c < 0 ? -1.0 : 0.0);
  g[3] = -e.c0 * s * 0.5 * u;
  h[0] = 0.01 * sa * cb, h[1 * 6 + 0] = 0.01 * ca * sb, h[1 * 6 + 1] = 0.01 * sa * cb;
  h[3 * 6 + 3] = -e.c0 * (0.5 * tn * s * u * u - s * t * u);
  return sa * cb + std::fabs(c) - e.c0 * tn;
}

inline double T5(const GenEquation& e, const double* v, double* g, double* h) {
  const double a = v[0], b = v[1], c = v[2], d = v[3], ec = std::exp(0.2 * c);
  g[0] = 1 + d * d, g[1] = -3 * e.c0 * b * b, g[2] = e.c1 * ec * (1 + 0.2 * c), g[3] = 2 * d * a;
  h[1 * 6 + 1] = -6 * e.c0 * b, h[2 * 6 + 2] = e.c1 * ec * (0.4 + 0.04 * c);
  h[3 * 6 + 0] = 2 * d, h[3 * 6 + 3] = 2 * a;
  return (1 + d * d) * a - e.c0 * b * b * b + e.c1 * c * ec;
}

inline double T6(const GenEquation& e, const double* v, double* g, double* h) {
  const double a = v[0], b = v[1], c = v[2], d = v[3];
  g[0] = 2 * (a - b) + e.c1 * b * c, g[1] = -2 * (a - b) + e.c1 * a * c;
  g[2] = 2 * e.c0 * (c - d) + e.c1 * a * b, g[3] = -2 * e.c0 * (c - d);
  h[0] = 2, h[1 * 6 + 0] = -2 + e.c1 * c, h[1 * 6 + 1] = 2, h[2 * 6 + 0] = e.c1 * b;
  h[2 * 6 + 1] = e.c1 * a, h[2 * 6 + 2] = 2 * e.c0, h[3 * 6 + 2] = -2 * e.c0, h[3 * 6 + 3] = 2 * e.c0;
  return (a - b) * (a - b) + e.c0 * (c - d) * (c - d) + e.c1 * a * b * c;
}

inline double T7(const GenEquation& e, const double* v, double* g, double* h) {
  const double a = v[0], b = v[1], c = v[2], d = v[3];
  const double ea = std::exp(0.1 * a), den = 2 + c * c, r = std::sqrt(1 + d * d);
  g[0] = 0.1 * ea * b / den, g[1] = ea / den, g[2] = -ea * b * 2 * c / (den * den);
  g[3] = -e.c0 * d / r;
  h[0] = 0.01 * ea * b / den, h[1 * 6 + 0] = 0.1 * ea / den;
  h[2 * 6 + 0] = -0.1 * ea * b * 2 * c / (den * den), h[2 * 6 + 1] = -2 * c * ea / (den * den);
  h[2 * 6 + 2] = -ea * b * (2 * den - 8 * c * c) / (den * den * den);
  h[3 * 6 + 3] = -e.c0 / (r * r * r);
  return ea * b / den - e.c0 * r;
}

}  // namespace hand

// Residual, gradient g[0..5] and dense lower-triangle Hessian h[36] of equation e; g and h
// must be zeroed by the caller (only structural non-zeros are written).
inline double HandDerivatives(const GenEquation& e, const double* x, double* g, double* h) {
  double v[kMaxTemplateVars];
  for (int k = 0; k < kTemplateVars[e.tmpl]; ++k) v[k] = x[e.var[k]];
  switch (e.tmpl) {
    case 0: return hand::T0(e, v, g, h);
    case 1: return hand::T1(e, v, g, h);
    case 2: return hand::T2(e, v, g, h);
    case 3: return hand::T3(e, v, g, h);
    case 4: return hand::T4(e, v, g, h);
    case 5: return hand::T5(e, v, g, h);
    case 6: return hand::T6(e, v, g, h);
    default: return hand::T7(e, v, g, h);
  }
}

}  // namespace kx::bench
