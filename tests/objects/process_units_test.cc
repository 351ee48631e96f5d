// Process objects run through kestrix as a user runs them: a benzene-toluene flash against a
// hand calculation with the same correlations (Rachford-Rice solved here), the same flash
// given its duty, the mass and energy balances of a small flowsheet, a vessel's holdup against
// its closed form, and the messages for bad compound lists.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "base/text.h"
#include "driver/cycle_fixture.h"
#include "objects/thermo_compounds.h"
#include "objects/thermo_mixture.h"

namespace kx::objects {
namespace {

using driver::Column;
using driver::CycleTest;

class ProcessUnits : public CycleTest {
 protected:
  // Solves `model` (steady state unless `dbs` says otherwise) and returns its results table.
  std::string Solve(const std::string& model, const std::string& dbs = "") {
    Write("fs.zpm", model);
    if (!dbs.empty()) Write("fs.dbs", dbs);
    const driver::RunResult r = Run("fs");
    EXPECT_EQ(r.status, 1) << r.out;
    EXPECT_TRUE(r.Has("Successful solution")) << r.out;
    return Read("results.csv");
  }
  // The value of `name` in the first (steady state: only) row.
  double Value(const std::string& csv, const std::string& name) {
    if (csv.find("," + name + ",") == std::string::npos &&
        csv.find("," + name + "\n") == std::string::npos) {
      ADD_FAILURE() << name << " is not in results.csv";
      return std::nan("");
    }
    return Column(csv, name).at(0);
  }
};

// Vapour fraction of a feed z with equilibrium ratios k (Rachford-Rice, by bisection).
double RachfordRice(const std::vector<double>& z, const std::vector<double>& k) {
  auto g = [&](double b) {
    double s = 0;
    for (size_t i = 0; i < z.size(); ++i) s += z[i] * (k[i] - 1) / (1 + b * (k[i] - 1));
    return s;
  };
  double lo = 0, hi = 1;
  for (int it = 0; it < 200; ++it) ((g((lo + hi) / 2) > 0) ? lo : hi) = (lo + hi) / 2;
  return (lo + hi) / 2;
}

const std::string kFlashModel = R"(Model fs
Compounds
  benzene, toluene
End Compounds
Objects
  feed1 = feed(flow=2, temp=300)
  fl = flash(spec=SPEC)
End Objects
Connections
  feed1.comp[1] = 0.4
  feed1.comp[2] = 0.6
  feed1.f = fl.fin
  feed1.x[1:2] = fl.zin[1:2]
  feed1.h = fl.hin
  fl.temp = 372
  fl.duty = DUTY
End Connections
End Model
)";

std::string FlashModel(int spec, double duty) {
  std::string m = kFlashModel;
  m.replace(m.find("SPEC"), 4, std::to_string(spec));
  if (spec == 0) {
    m.erase(m.find("  fl.duty"), std::string("  fl.duty = DUTY\n").size());
  } else {
    m.erase(m.find("  fl.temp"), std::string("  fl.temp = 372\n").size());
    m.replace(m.find("DUTY"), 4, FormatReal(duty));
  }
  return m;
}

struct HandFlash {
  double beta, q;
  std::vector<double> x, y;
};

// The flash of 2 mol/s of 40% benzene in toluene, fed as liquid at 300 K, at 372 K and
// 1.01325 bar, computed here from the bank's correlations.
HandFlash BenzeneTolueneByHand() {
  const Compound* c[2] = {FindCompound("benzene"), FindCompound("toluene")};
  const std::vector<double> z = {0.4, 0.6};
  const double t = 372, p = 1.01325, f = 2;
  std::vector<double> k;
  for (const Compound* ci : c) k.push_back(VapourPressureBar(*ci, t) / p);
  HandFlash h;
  h.beta = RachfordRice(z, k);
  double hin = 0, hv = 0, hl = 0;
  for (int i = 0; i < 2; ++i) {
    h.x.push_back(z[i] / (1 + h.beta * (k[i] - 1)));
    h.y.push_back(k[i] * h.x[i]);
    hin += z[i] * LiquidEnthalpy(*c[i], 300);
    hv += h.y[i] * VapourEnthalpy(*c[i], t);
    hl += h.x[i] * LiquidEnthalpy(*c[i], t);
  }
  h.q = f * h.beta * hv + f * (1 - h.beta) * hl - f * hin;
  return h;
}

TEST_F(ProcessUnits, FlashAtTemperatureMatchesRachfordRice) {
  const HandFlash hand = BenzeneTolueneByHand();
  ASSERT_GT(hand.beta, 0.05);
  ASSERT_LT(hand.beta, 0.95);
  const std::string csv = Solve(FlashModel(0, 0));
  EXPECT_NEAR(Value(csv, "fl.fv"), 2 * hand.beta, 1e-6);
  EXPECT_NEAR(Value(csv, "fl.fl"), 2 * (1 - hand.beta), 1e-6);
  for (int i = 0; i < 2; ++i) {
    const std::string n = std::to_string(i + 1);
    EXPECT_NEAR(Value(csv, "fl.x[" + n + "]"), hand.x[i], 1e-6) << i;
    EXPECT_NEAR(Value(csv, "fl.y[" + n + "]"), hand.y[i], 1e-6) << i;
  }
  EXPECT_NEAR(Value(csv, "fl.q"), hand.q, 1e-6 * std::fabs(hand.q));
}

TEST_F(ProcessUnits, FlashGivenItsDutyFindsTheTemperature) {
  const HandFlash hand = BenzeneTolueneByHand();
  const std::string csv = Solve(FlashModel(1, hand.q));
  EXPECT_NEAR(Value(csv, "fl.t"), 372, 1e-5);
  EXPECT_NEAR(Value(csv, "fl.fv"), 2 * hand.beta, 1e-6);
}

// Two feeds, a mixer, a heater and a flash: every compound and the energy close around the
// whole flowsheet.
TEST_F(ProcessUnits, FlowsheetBalancesClose) {
  const std::string csv = Solve(R"(Model fs
Compounds
  methanol, water, ethanol
End Compounds
Objects
  fa = feed(flow=1.5, temp=310)
  fb = feedm(mflow=0.04, temp=290)
  mix = mixer
  heat = stage_2(spec=0, temp=345)
  fl = flash(spec=1, duty=15)
End Objects
Connections
  fa.comp[1] = 0.6
  fa.comp[2] = 0.4
  fa.comp[3] = 0
  fb.wcomp[1] = 0.1
  fb.wcomp[2] = 0.5
  fb.wcomp[3] = 0.4
  fa.f = mix.f1
  fa.x[1:3] = mix.z1[1:3]
  fa.h = mix.h1
  fb.f = mix.f2
  fb.x[1:3] = mix.z2[1:3]
  fb.h = mix.h2
  mix.f = heat.fin
  mix.x[1:3] = heat.zin[1:3]
  mix.h = heat.hin
  heat.f = fl.fin
  heat.x[1:3] = fl.zin[1:3]
  heat.h = fl.hin
End Connections
End Model
)");
  const double fa = Value(csv, "fa.f"), fb = Value(csv, "fb.f");
  const double fv = Value(csv, "fl.fv"), fl = Value(csv, "fl.fl");
  EXPECT_NEAR(fa + fb, fv + fl, 1e-9);
  EXPECT_GT(fv, 0.01);
  EXPECT_GT(fl, 0.01);
  for (int i = 1; i <= 3; ++i) {
    const std::string n = "[" + std::to_string(i) + "]";
    const double in = fa * Value(csv, "fa.x" + n) + fb * Value(csv, "fb.x" + n);
    const double out = fv * Value(csv, "fl.y" + n) + fl * Value(csv, "fl.x" + n);
    EXPECT_NEAR(in, out, 1e-9) << i;
  }
  // The mass feed: 0.04 kg/s of the given mass fractions, in mol/s.
  const Compound* c[3] = {FindCompound("methanol"), FindCompound("water"),
                          FindCompound("ethanol")};
  const double w[3] = {0.1, 0.5, 0.4};
  double moles = 0;
  for (int i = 0; i < 3; ++i) moles += 0.04 * w[i] / c[i]->mw * 1000;
  EXPECT_NEAR(fb, moles, 1e-9);
  const double energy_in = fa * Value(csv, "fa.h") + fb * Value(csv, "fb.h") +
                           Value(csv, "heat.q") + Value(csv, "fl.q");
  const double energy_out = fv * Value(csv, "fl.hv") + fl * Value(csv, "fl.hl");
  EXPECT_NEAR(energy_in, energy_out, 1e-6 * std::fabs(energy_out));
  EXPECT_NEAR(Value(csv, "heat.t"), 345, 1e-9);
  EXPECT_NEAR(Value(csv, "fl.q"), 15, 1e-9);
}

// A vessel filled at a constant flow and drained in proportion to its holdup:
// n(t) = fin/k + (n0 - fin/k) exp(-k t).
TEST_F(ProcessUnits, VesselHoldupFollowsItsClosedForm) {
  const std::string csv = Solve(R"(Model fs
Compounds
  water
End Compounds
Objects
  src = feed(flow=2, temp=300)
  v = vessel
End Objects
Connections
  src.f = v.fin
  src.x[1] = v.zin[1]
  src.h = v.hin
End Connections
Parameters
  k = 0.1
End Parameters
Equations
  v.f = k*v.n
End Equations
End Model
)", "ZPM.IMODE = 4\nZPM.NODES = 5\nZPM.CTRL_HOR = 40\nZPM.PRED_HOR = 40\nZPM.CTRL_TIME = 0.5\n"
    "ZPM.PRED_TIME = 0.5\n");
  const std::vector<double> time = Column(csv, "time"), n = Column(csv, "v.n");
  ASSERT_EQ(time.size(), n.size());
  ASSERT_GT(time.size(), 10u);
  for (size_t j = 0; j < time.size(); ++j) {
    const double exact = 20 + (10 - 20) * std::exp(-0.1 * time[j]);
    EXPECT_NEAR(n[j], exact, 1e-6) << time[j];
  }
}

TEST_F(ProcessUnits, BadCompoundListsAreRefusedWithTheLine) {
  struct Case {
    const char* compounds;
    const char* message;
  };
  const Case cases[] = {
      {"Compounds\n  benzene, unobtainium\nEnd Compounds\n", "'unobtainium' is not in the data bank"},
      {"", "list them in a Compounds section"},
  };
  for (const Case& c : cases) {
    Write("bad.zpm", std::string("Model bad\n") + c.compounds +
                         "Objects\n  fl = flash\nEnd Objects\nEnd Model\n");
    const driver::RunResult r = Run("bad");
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(r.Has(c.message)) << r.out;
    EXPECT_TRUE(r.Has("fl")) << r.out;
  }
}

}  // namespace
}  // namespace kx::objects
