// The stirred tank of the estimation and control benchmarks: an exothermic first-order
// reaction, states concentration ca (mol/L) and temperature t (K), cooled through a jacket at
// coolant temperature tc with the heat-transfer coefficient hx = UA/(V rho Cp) (1/min):
//
//   ca' = qv (ca_in - ca) - r,   t' = qv (t_in - t) + dhr r + hx (tc - t),   r = k0 exp(-ear/t) ca
//
// One tank is fed at caf, tf; a chain of tanks feeds each with the one before.
#pragma once

#include <fmt/format.h>

#include <cmath>
#include <string>
#include <string_view>

namespace kx::bench::cstr {

inline constexpr double kQv = 1.0;      // feed flow over volume, 1/min
inline constexpr double kCaf = 1.0;     // feed concentration, mol/L
inline constexpr double kTf = 350.0;    // feed temperature, K
inline constexpr double kK0 = 7.2e10;   // rate constant, 1/min
inline constexpr double kEar = 8750.0;  // activation temperature, K
inline constexpr double kDhr = 209.2;   // reaction heat over rho Cp, K L/mol
inline constexpr double kHx = 2.092;    // nominal heat-transfer coefficient, 1/min

// The one-tank model file; `tc` and `hx` are the two parameters' declarations (value and
// bounds), which differ between the estimator and the controller.
inline std::string ModelText(std::string_view tc, std::string_view hx) {
  return fmt::format(R"(! Stirred tank with an exothermic first-order reaction
Model cstr
  Parameters
    ! coolant temperature, K
    tc = {}
    ! heat-transfer coefficient UA/(V rho Cp), 1/min
    hx = {}
    ! feed flow over volume, 1/min
    qv = {}
    ! feed concentration, mol/L, and temperature, K
    caf = {}
    tf = {}
    ! rate constant, 1/min, and activation temperature, K
    k0 = {}
    ear = {}
    ! reaction heat over rho Cp, K L/mol
    dhr = {}
  End Parameters
  Variables
    ca = 0.877, >= 0
    t = 324.5
  End Variables
  Intermediates
    rate = k0 * exp(-ear / t) * ca
  End Intermediates
  Equations
    $ca = qv * (caf - ca) - rate
    $t = qv * (tf - t) + dhr * rate + hx * (tc - t)
  End Equations
End Model
)",
                     tc, hx, kQv, kCaf, kTf, kK0, kEar, kDhr);
}

inline double Rate(double ca, double t) { return kK0 * std::exp(-kEar / t) * ca; }

// The rate's derivatives: by ca, by t, by ca and t, twice by t.
struct RateDerivatives {
  double ca, t, ca_t, t_t;
};

inline RateDerivatives RateSlopes(double ca, double t) {
  const double e = kK0 * std::exp(-kEar / t);
  const double a = kEar / (t * t);
  return {e, e * ca * a, e * a, e * ca * (a * a - 2 * kEar / (t * t * t))};
}

// Time derivatives of (ca, t) of a tank fed at (ca_in, t_in).
inline void Derivatives(double ca_in, double t_in, double ca, double t, double tc, double hx,
                        double* dca, double* dt) {
  const double r = Rate(ca, t);
  *dca = kQv * (ca_in - ca) - r;
  *dt = kQv * (t_in - t) + kDhr * r + hx * (tc - t);
}

// Moves one tank fed at (caf, tf) on by `span` minutes in `substeps` RK4 steps, coolant held.
inline void PlantStep(double span, int substeps, double tc, double hx, double* ca, double* t) {
  const double h = span / substeps;
  auto f = [&](double c, double x, double* dc, double* dx) {
    Derivatives(kCaf, kTf, c, x, tc, hx, dc, dx);
  };
  for (int s = 0; s < substeps; ++s) {
    double a1, b1, a2, b2, a3, b3, a4, b4;
    f(*ca, *t, &a1, &b1);
    f(*ca + h / 2 * a1, *t + h / 2 * b1, &a2, &b2);
    f(*ca + h / 2 * a2, *t + h / 2 * b2, &a3, &b3);
    f(*ca + h * a3, *t + h * b3, &a4, &b4);
    *ca += h / 6 * (a1 + 2 * a2 + 2 * a3 + a4);
    *t += h / 6 * (b1 + 2 * b2 + 2 * b3 + b4);
  }
}

}  // namespace kx::bench::cstr
