// objects/thermo_mixture: pure-compound and ideal-mixture properties in the units the process
// objects use, in C++ and as model-language expression text. Reference state: ideal gas at
// kTref with zero enthalpy; a vapour's enthalpy is the integral of its ideal-gas heat capacity,
// a liquid's that minus the heat of vaporisation at the same temperature. Mixtures mix ideally:
// molar averages of enthalpies and molar masses, additive liquid volumes, ideal-gas vapour.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "objects/thermo_compounds.h"

namespace kx::objects {

inline constexpr double kTref = 298.15;              // enthalpy reference temperature, K
inline constexpr double kGasConstant = 8.314462618;  // J/(mol K)
inline constexpr double kPaPerBar = 1e5;

// Pure-compound properties in object units: temperature K, pressure bar, enthalpy kJ/mol (so
// that a molar flow in mol/s times an enthalpy is a heat flow in kW), heat capacity J/(mol K),
// density mol/m^3 (liquid) and molar mass kg/kmol.
double VapourPressureBar(const Compound& c, double t);
double VapourEnthalpy(const Compound& c, double t);
double LiquidEnthalpy(const Compound& c, double t);
double HeatOfVaporisation(const Compound& c, double t);
double LiquidDensity(const Compound& c, double t);
double IdealGasCp(const Compound& c, double t);

// The same as expression text in the temperature `t` (a member name or parenthesised text).
std::string VapourPressureBarText(const Compound& c, std::string_view t);
std::string VapourEnthalpyText(const Compound& c, std::string_view t);
std::string LiquidEnthalpyText(const Compound& c, std::string_view t);
std::string LiquidDensityText(const Compound& c, std::string_view t);
std::string HeatOfVaporisationText(const Compound& c, std::string_view t);
std::string IdealGasCpText(const Compound& c, std::string_view t);

// Ideal mixtures with mole fractions z (same order as `cs`).
double MixtureVapourEnthalpy(std::span<const Compound* const> cs, std::span<const double> z,
                             double t);
double MixtureLiquidEnthalpy(std::span<const Compound* const> cs, std::span<const double> z,
                             double t);
double MixtureLiquidDensity(std::span<const Compound* const> cs, std::span<const double> z,
                            double t);
double MixtureMolarMass(std::span<const Compound* const> cs, std::span<const double> z);

}  // namespace kx::objects
