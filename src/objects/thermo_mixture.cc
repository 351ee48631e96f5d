#include "objects/thermo_mixture.h"

#include <fmt/format.h>

#include "base/check.h"

namespace kx::objects {
namespace {

// Correlations give J/kmol, J/(kmol K) and kmol/m^3; objects use kJ/mol, J/(mol K), mol/m^3.
constexpr double kPerKmol = 1e-3;
constexpr double kKiloPerKmol = 1e-6;

template <typename F>
double MolarAverage(std::span<const Compound* const> cs, std::span<const double> z, F f) {
  KX_CHECK(cs.size() == z.size());
  double s = 0;
  for (size_t i = 0; i < cs.size(); ++i) s += z[i] * f(*cs[i]);
  return s;
}

}  // namespace

double VapourPressureBar(const Compound& c, double t) { return Evaluate(c.pvap, t) / kPaPerBar; }
double VapourEnthalpy(const Compound& c, double t) {
  return Integral(c.cp_ig, kTref, t) * kKiloPerKmol;
}
double HeatOfVaporisation(const Compound& c, double t) {
  return Evaluate(c.hvap, t) * kKiloPerKmol;
}
double LiquidEnthalpy(const Compound& c, double t) {
  return VapourEnthalpy(c, t) - HeatOfVaporisation(c, t);
}
double LiquidDensity(const Compound& c, double t) { return Evaluate(c.rho_l, t) / kPerKmol; }
double IdealGasCp(const Compound& c, double t) { return Evaluate(c.cp_ig, t) * kPerKmol; }

std::string VapourPressureBarText(const Compound& c, std::string_view t) {
  return fmt::format("({}/{})", ExpressionText(c.pvap, t), kPaPerBar);
}
std::string VapourEnthalpyText(const Compound& c, std::string_view t) {
  return fmt::format("({}*{})", IntegralText(c.cp_ig, kTref, t), kKiloPerKmol);
}
std::string LiquidEnthalpyText(const Compound& c, std::string_view t) {
  return fmt::format("(({}-{})*{})", IntegralText(c.cp_ig, kTref, t), ExpressionText(c.hvap, t),
                     kKiloPerKmol);
}
std::string LiquidDensityText(const Compound& c, std::string_view t) {
  return fmt::format("({}/{})", ExpressionText(c.rho_l, t), kPerKmol);
}

std::string HeatOfVaporisationText(const Compound& c, std::string_view t) {
  return fmt::format("({}*{})", ExpressionText(c.hvap, t), kKiloPerKmol);
}
std::string IdealGasCpText(const Compound& c, std::string_view t) {
  return fmt::format("({}*{})", ExpressionText(c.cp_ig, t), kPerKmol);
}

double MixtureVapourEnthalpy(std::span<const Compound* const> cs, std::span<const double> z,
                             double t) {
  return MolarAverage(cs, z, [t](const Compound& c) { return VapourEnthalpy(c, t); });
}
double MixtureLiquidEnthalpy(std::span<const Compound* const> cs, std::span<const double> z,
                             double t) {
  return MolarAverage(cs, z, [t](const Compound& c) { return LiquidEnthalpy(c, t); });
}
double MixtureLiquidDensity(std::span<const Compound* const> cs, std::span<const double> z,
                            double t) {
  return 1 / MolarAverage(cs, z, [t](const Compound& c) { return 1 / LiquidDensity(c, t); });
}
double MixtureMolarMass(std::span<const Compound* const> cs, std::span<const double> z) {
  return MolarAverage(cs, z, [](const Compound& c) { return c.mw; });
}

}  // namespace kx::objects
