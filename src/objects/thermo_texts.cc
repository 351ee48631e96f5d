#include "objects/thermo_texts.h"

#include <fmt/format.h>

#include "base/text.h"
#include "objects/thermo_mixture.h"

namespace kx::objects {
namespace {

// The molar sums the process objects use: key, vector, per-compound vector, divide.
struct SumSpec {
  const char* key;
  const char* a;
  const char* b;
  bool divide;
};
constexpr SumSpec kSums[] = {
    {"sum_x", "x", "", false},          {"sum_y", "y", "", false},
    {"sum_x_hl", "x", "hli", false},    {"sum_x_hv", "x", "hvi", false},
    {"sum_y_hv", "y", "hvi", false},    {"sum_x_mw", "x", "mw", false},
    {"sum_z_mw", "z", "mw", false},     {"sum_x_vl", "x", "rho", true},
    {"sum_zin_vl", "zin", "rho", true}, {"sum_w_mw", "wcomp", "mw", true},
    {"sum_m", "m", "", false},
};

}  // namespace

std::vector<const Compound*> ResolveCompounds(const std::vector<std::string>& names,
                                              std::string* unknown) {
  std::vector<const Compound*> out;
  for (const std::string& n : names) {
    out.push_back(FindCompound(n));
    if (!out.back() && unknown->empty()) *unknown = n;
  }
  return out;
}

std::string SumText(const std::string& a, const std::string& b, int n, bool divide) {
  std::string s;
  for (int i = 1; i <= n; ++i) {
    if (i > 1) s += "+";
    s += b.empty() ? fmt::format("{}[{}]", a, i)
                   : fmt::format("{}[{}]{}{}[{}]", a, i, divide ? "/" : "*", b, i);
  }
  return "(" + s + ")";
}

std::map<std::string, std::string> CompoundTexts(const std::vector<const Compound*>& cs) {
  std::map<std::string, std::string> t;
  const int n = static_cast<int>(cs.size());
  for (int i = 1; i <= n; ++i) {
    const Compound& c = *cs[i - 1];
    t[fmt::format("psat[{}]", i)] = VapourPressureBarText(c, "t");
    t[fmt::format("hl[{}]", i)] = LiquidEnthalpyText(c, "t");
    t[fmt::format("hv[{}]", i)] = VapourEnthalpyText(c, "t");
    t[fmt::format("rho[{}]", i)] = LiquidDensityText(c, "t");
    t[fmt::format("hvap[{}]", i)] = HeatOfVaporisationText(c, "t");
    t[fmt::format("cp[{}]", i)] = IdealGasCpText(c, "t");
    t[fmt::format("mw[{}]", i)] = FormatReal(c.mw);
  }
  for (const SumSpec& s : kSums) t[s.key] = SumText(s.a, s.b, n, s.divide);
  return t;
}

}  // namespace kx::objects
