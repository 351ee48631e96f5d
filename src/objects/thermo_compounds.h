// objects/thermo_compounds: the pure-compound data bank. One row per compound: molar mass,
// critical constants, normal boiling point and the temperature correlations of vapour pressure,
// liquid density, heat of vaporisation and heat capacities (objects/thermo_dippr). The values
// are published DIPPR correlation coefficients; docs/objects.md names the source.
#pragma once

#include <span>
#include <string_view>

#include "objects/thermo_dippr.h"

namespace kx::objects {

// Units: molar mass kg/kmol, temperatures K, pressures Pa, vapour pressure Pa, liquid density
// kmol/m^3, heat of vaporisation J/kmol, heat capacities J/(kmol K).
struct Compound {
  std::string_view name;     // lower-case name used in the Compounds section
  std::string_view formula;  // chemical formula, for the docs
  double mw = 0;             // molar mass, kg/kmol
  double tc = 0;             // critical temperature, K
  double pc = 0;             // critical pressure, Pa
  double tb = 0;             // normal boiling point, K (0: no liquid at 101325 Pa)
  double tt = 0;             // triple-point temperature, K, where tb is 0
  double pt = 0;             // triple-point pressure, Pa, where tb is 0
  Correlation pvap;          // vapour pressure, Pa (form 101)
  Correlation rho_l;         // liquid molar density, kmol/m^3 (form 105)
  Correlation hvap;          // heat of vaporisation, J/kmol (form 106)
  Correlation cp_ig;         // ideal-gas heat capacity, J/(kmol K) (form 107)
  Correlation cp_l;          // liquid heat capacity, J/(kmol K) (form 100; may be absent)
};

// Every compound of the bank, in table order.
std::span<const Compound> Compounds();

// The compound named `name` (lower case; a few common synonyms are accepted), or nullptr.
const Compound* FindCompound(std::string_view name);

}  // namespace kx::objects
