// objects/thermo_objects: the thermodynamic and process-unit families. Streams carry molar flow
// f (mol/s), temperature t (K), pressure p (bar), mole fractions x[1:nc] and molar enthalpy h
// (kJ/mol); an inlet is fin, zin[1:nc], hin. Enthalpies are referenced to the ideal gas at
// 298.15 K (objects/thermo_mixture). The helpers below are shared by the family files.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "objects/object_table.h"

namespace kx::objects {

inline constexpr const char* kThermoFamily = "Thermodynamics and streams";
inline constexpr const char* kProcessFamily = "Process units";

// The introduction of family `family` in docs/objects.md; empty for the other families.
std::string ThermoFamilyNotes(std::string_view family);

// Checks the Compounds section against the data bank and sets the per-compound and sum texts
// (objects/thermo_texts). Stops through FailObject when a compound is missing or unknown.
void PrepareCompoundTexts(ObjectInstance* o);

// Member lists joined in order.
std::vector<MemberSpec> JoinMembers(std::initializer_list<std::vector<MemberSpec>> parts);

// Outlet stream f, t, p, x[1:nc], h.
std::vector<MemberSpec> OutletMembers();
// Inlet stream fin, zin[1:nc], hin.
std::vector<MemberSpec> InletMembers();
// Intermediates hli[1:nc], hvi[1:nc]: pure-compound liquid and vapour enthalpies (kJ/mol) at the
// object's temperature t.
std::vector<MemberSpec> EnthalpyMembers();
// Intermediates rho[1:nc], mw[1:nc]: liquid densities (mol/m^3) at t and molar masses, for the
// objects that need volumes or masses.
std::vector<MemberSpec> VolumeMembers();

}  // namespace kx::objects
