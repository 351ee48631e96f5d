// The notes of the thermodynamic and process families in docs/objects.md: conventions, the
// property models, the data source and the compound table, generated from the data bank.
#include <fmt/format.h>

#include "objects/thermo_compounds.h"
#include "objects/thermo_mixture.h"
#include "objects/thermo_objects.h"

namespace kx::objects {
namespace {

constexpr const char* kThermoNotes =
    R"(These objects need the compounds of the model, listed in the Compounds section (names
separated by commas, any case; the table below lists them), and use them in that order: `x[1]`
is the first compound. `{nc}` is their number.

```
Compounds
  benzene, toluene
End Compounds
Objects
  f1 = feed(flow=2, temp=300)
  fl = flash(temp=372)
End Objects
Connections
  f1.comp[1] = 0.4
  f1.comp[2] = 0.6
  f1.f = fl.fin
  f1.x[1:2] = fl.zin[1:2]
  f1.h = fl.hin
End Connections
```

Streams. An outlet is the members `f` (mol/s), `t` (K), `p` (bar), `x[1:nc]` (mole fractions)
and `h` (kJ/mol); an inlet is `fin`, `zin[1:nc]` and `hin`. Objects are joined in the
Connections section, three lines a stream (`a.f = b.fin`, `a.x[1:nc] = b.zin[1:nc]`,
`a.h = b.hin`); a flash has two outlets, vapour (`fv`, `y`, `hv`) and liquid (`fl`, `x`,
`hl`), at its `t` and `p`. Flows times enthalpies are heat flows in kW, the unit of duties.

`thermo` evaluates the properties at its temperature `t`, a free variable: fix it
(`th.t = 350` and `th.t = fixed` in the Connections section), or tie it to a variable of the
model (`th.t = reactor_t`, or an equation).

Texts in braces in the tables below: `{psat[i]}` (bar), `{hl[i]}`, `{hv[i]}`, `{hvap[i]}`
(kJ/mol), `{rho[i]}` (mol/m^3) and `{cp[i]}` (J/(mol K)) are the correlations of compound i in
the object's own temperature `t`; `{mw[i]}` is its molar mass; the sums run over the compounds:
`{sum_x}` is `x[1] + ... + x[nc]`, `{sum_x_hl}` is `x[1]*hli[1] + ...`, `{sum_x_vl}` is
`x[1]/rho[1] + ...` (the liquid molar volume), `{sum_w_mw}` is `wcomp[1]/mw[1] + ...`, and so
on. Starting values: `{t0}` is the object's `temp` (or 350 K), `{x0[i]}` and `{y0[i]}` are
proportional to 1/K and K at `{t0}` and `pres`, so that the two phases start apart.

Property models.
- Pure compounds: the temperature correlations of the DIPPR project, equation forms 100
  (polynomial: liquid heat capacity), 101 (vapour pressure), 105 (liquid density), 106 (heat of
  vaporisation) and 107 (ideal-gas heat capacity), T in K; forms 102 and 104 (for gas
  viscosities and second virial coefficients) are available to the code but the bank has no
  data in them yet. The correlations are written into the model as expression text
  (`{psat[i]}`, `{hl[i]}`, ...), so the compiler differentiates them like any equation.
  Forms 105 and 106 contain d = 1 - T/Tc to a fractional power; d is replaced by the smooth
  positive (d + sqrt(d^2 + 1e-8))/2, equal to d within 2.5e-5 of itself below 0.99 Tc, so
  that the correlations stay finite where a solver may step above Tc.
- Enthalpy reference: each compound as ideal gas at 298.15 K has enthalpy 0. Vapour enthalpy
  is the integral of the ideal-gas heat capacity (form 107, integrated in closed form: A T +
  B C coth(C/T) - D E tanh(E/T)); liquid enthalpy is the vapour enthalpy minus the heat of
  vaporisation at the same temperature. So the latent heat in a flash is exactly the
  correlation's; the slope of the liquid enthalpy (Cp of the ideal gas minus dHvap/dT) is an
  approximation of the liquid heat capacity: at 25 C it is within 8% of the tabulated value
  for water and the hydrocarbons that have one, 17% off for ethanol and 35% for methanol, whose
  vapours are far from ideal. The tabulated liquid heat capacity (form 100, where the table has
  one) is not used in balances.
- Mixtures are ideal: enthalpies and molar masses are mole-fraction averages, liquid volumes
  add, vapours are ideal gases. Vapour-liquid equilibrium is Raoult's law, `y[i]*p =
  x[i]*psat[i]`.

Source of the coefficients: the DIPPR correlation coefficients published in Perry's Chemical
Engineers' Handbook, 7th edition (McGraw-Hill, 1997), section 2 (vapour pressure, liquid
density, heat of vaporisation, ideal-gas and liquid heat capacities, critical constants). The
test `ThermoDippr` checks every compound: vapour pressure within 1% of 101325 Pa at the normal
boiling point (carbon dioxide: its triple point) and within 1.5% of Pc at Tc, critical
compressibility between 0.22 and 0.31, heat of vaporisation at the boiling point against the
Clausius-Clapeyron equation (4%) and tabulated values (3%), and tabulated densities and heat
capacities at 25 C. The coefficients were entered by hand, not
imported from an electronic copy of the tables: the checks above catch a wrong digit in the
boiling and critical region, but compare a compound against the printed table before using it
for design work.

)";

constexpr const char* kProcessNotes =
    R"(Units use the streams and property models of the previous section. Degrees of freedom:
every unit determines its outlets from its inlets and its parameters, except that the outlet
flow `f` of `vessel`, `vesselm` and `reactor` and the rate `r` of `reactor` need an equation of
the user (`v.f = k*v.n`, `r.r = k0*exp(-e/r.t)*r.c[1]`). A holdup starts from its declared
states: `hold0` mol of equal mole fractions (`m[i]`) and their enthalpy as liquid at `temp0`
(`u`, `{u0}`), both set in the declaration (`vessel(hold0=500, temp0=320)`); another starting
composition needs `m[i]` and `u` = n*h/1000 in MJ set together (Connections section or restart
file). `spec` chooses what fixes a flash or a heater: the temperature `temp` (spec 0, the duty
`q` follows), the duty `duty` (spec 1, the temperature follows) or neither (spec 2: the user
ties `q`, as for one side of a heat exchanger).

A flash holds Raoult's law and `sum(y) = sum(x)`; with the component balances both sums are 1.
A feed outside the two-phase region gives a negative vapour or liquid flow (the negative flash),
which tells that the drum is single-phase. A heat exchanger is two `stage_2` heaters, one with
the outlet temperature or duty given and the other with `spec=2`, tied by an equation
(`cold.q = -hot.q`). A recycle loop can be closed by plain connections; closing it through a
`feedback` object gives the loop's stream a name and its own starting values
(`feedback(flow0=1, temp0=372)`). Long chains of units solve most reliably with the block
presolve (`ZPM.REDUCE = 2`), which solves the units in flow order before the full solve.
`poly_reactor` has variables from 1e-6 (radicals) to 1e4 mol/m^3 (monomer): solve it with Ipopt
(`ZPM.SOLVER = 3`); the built-in SQP solver may stop at MAXACCY. Its stream is a volumetric flow
`q` with concentrations, not a stream of the compounds above; it needs no Compounds section.

)";

std::string CompoundTable() {
  std::string out =
      "| compound | formula | M kg/kmol | Tc K | Pc bar | Tb K | Cp liquid |\n"
      "|---|---|---|---|---|---|---|\n";
  for (const Compound& c : Compounds()) {
    const std::string tb =
        c.tb > 0 ? fmt::format("{:.2f}", c.tb)
                 : fmt::format("(triple point {:.2f} K, {:.3f} bar)", c.tt, c.pt / kPaPerBar);
    out += fmt::format("| {} | {} | {:.3f} | {:.2f} | {:.3f} | {} | {} |\n", c.name, c.formula,
                       c.mw, c.tc, c.pc / kPaPerBar, tb, c.cp_l.present() ? "yes" : "");
  }
  return out + "\n";
}

}  // namespace

std::string ThermoFamilyNotes(std::string_view family) {
  if (family == kThermoFamily) return std::string(kThermoNotes) + CompoundTable();
  if (family == kProcessFamily) return kProcessNotes;
  return "";
}

}  // namespace kx::objects
