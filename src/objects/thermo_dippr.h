// objects/thermo_dippr: the temperature correlations of pure-compound properties (equation
// forms 100, 101, 102, 104, 105, 106, 107), evaluated in C++ and written out as expression text
// of the model language so that the compiler differentiates them like any user equation.
// Also the temperature integrals of the heat-capacity forms (100, 107), from which enthalpies
// are built. Knows nothing of compounds (thermo_compounds) or of mixtures (thermo_mixture).
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace kx::objects {

// One correlation: Y(T) with T in K. Coefficients A..E in the order of the form's formula.
//   100  Y = A + B T + C T^2 + D T^3 + E T^4
//   101  Y = exp(A + B/T + C ln T + D T^E)
//   102  Y = A T^B / (1 + C/T + D/T^2)
//   104  Y = A + B/T + C/T^3 + D/T^8 + E/T^9
//   105  Y = A / B^(1 + tau^D),  tau = 1 - T/C
//   106  Y = A tau^(B + C Tr + D Tr^2 + E Tr^3),  Tr = T/Tc, tau = 1 - Tr
//   107  Y = A + B ((C/T)/sinh(C/T))^2 + D ((E/T)/cosh(E/T))^2
// Forms 105 and 106 take tau through SoftPositive (below), so that they stay finite and
// smooth above the critical temperature, where a solver may wander.
struct Correlation {
  int form = 0;               // 100..107; 0 marks "no data"
  std::array<double, 5> c{};  // A, B, C, D, E
  double tc = 0;              // critical temperature of form 106, K
  bool present() const { return form != 0; }
};

// Width of the smooth corner of SoftPositive: below Tr = 1 - 0.01 the softened tau differs from
// 1 - Tr by less than 2.5e-5 of itself.
inline constexpr double kSoftTau = 1e-8;

// (d + sqrt(d^2 + kSoftTau)) / 2: equals d for d >> 1e-4, a small positive number for d < 0.
double SoftPositive(double d);

// True for the forms this file knows.
bool IsKnownForm(int form);

// Y(T). An unknown form is an internal error.
double Evaluate(const Correlation& k, double t);

// Expression text of Y with the temperature written as `t` (a name or a parenthesised
// expression); numbers are written so that they read back exactly.
std::string ExpressionText(const Correlation& k, std::string_view t);

// Integral of Y dT from `t0` to `t` for the heat-capacity forms 100 and 107 (other forms are an
// internal error), in C++ and as expression text.
double Integral(const Correlation& k, double t0, double t);
std::string IntegralText(const Correlation& k, double t0, std::string_view t);

}  // namespace kx::objects
