// objects/thermo_texts: the per-compound and mixture texts that the thermodynamic and process
// objects place into their equations. For the compounds of a model (its Compounds section) it
// writes, per compound i, the property correlations in the object's temperature member `t`
// ("psat[i]", "hl[i]", "hv[i]", "rho[i]", "mw[i]") and the molar sums over the compounds
// ("sum_x_hl" is x[1]*hl[1] + ... + x[nc]*hl[nc]).
#pragma once

#include <map>
#include <string>
#include <vector>

#include "objects/thermo_compounds.h"

namespace kx::objects {

// The bank entries of `names`; the first unknown name is returned in `unknown` (and nullptr
// in its place).
std::vector<const Compound*> ResolveCompounds(const std::vector<std::string>& names,
                                              std::string* unknown);

// Texts keyed as above, for the member names the process objects use.
std::map<std::string, std::string> CompoundTexts(const std::vector<const Compound*>& cs);

// a[1]*b[1] + ... + a[n]*b[n]; `b` empty: a[1] + ... + a[n]; `divide`: a[i]/b[i].
std::string SumText(const std::string& a, const std::string& b, int n, bool divide = false);

}  // namespace kx::objects
