// Process objects run through kestrix as a user runs them: a benzene-toluene flash against a
// hand calculation with the same correlations (Rachford-Rice solved here), the same flash
// given its duty, the mass and energy balances of a small flowsheet, the other units against
// their equations, a vessel's holdup against its closed form, a heat exchanger, and the
// messages for bad declarations.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
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
  const Compound* c[3] = {FindCompound("methanol"), FindCompound("water"), FindCompound("ethanol")};
  const double w[3] = {0.1, 0.5, 0.4};
  double moles = 0;
  for (int i = 0; i < 3; ++i) moles += 0.04 * w[i] / c[i]->mw * 1000;
  EXPECT_NEAR(fb, moles, 1e-9);
  const double energy_in =
      fa * Value(csv, "fa.h") + fb * Value(csv, "fb.h") + Value(csv, "heat.q") + Value(csv, "fl.q");
  const double energy_out = fv * Value(csv, "fl.hv") + fl * Value(csv, "fl.hl");
  EXPECT_NEAR(energy_in, energy_out, 1e-6 * std::fabs(energy_out));
  EXPECT_NEAR(Value(csv, "heat.t"), 345, 1e-9);
  EXPECT_NEAR(Value(csv, "fl.q"), 15, 1e-9);
}

// A vessel filled at a constant flow and drained in proportion to its holdup:
// n(t) = fin/k + (n0 - fin/k) exp(-k t); beside it a stream lag of the same feed.
TEST_F(ProcessUnits, VesselAndLagFollowTheirClosedForms) {
  const std::string csv = Solve(
      R"(Model fs
Compounds
  water
End Compounds
Objects
  src = feed(flow=2, temp=300)
  v = vessel
  lag = stream_lag(tau=4)
End Objects
Connections
  src.f = v.fin
  src.x[1] = v.zin[1]
  src.h = v.hin
  src.f = lag.fin
  src.x[1] = lag.zin[1]
  src.h = lag.hin
End Connections
Parameters
  k = 0.1
End Parameters
Equations
  v.f = k*v.n
End Equations
End Model
)",
      "ZPM.IMODE = 4\nZPM.NODES = 5\nZPM.CTRL_HOR = 40\nZPM.PRED_HOR = 40\nZPM.CTRL_TIME = 0.5\n"
      "ZPM.PRED_TIME = 0.5\n");
  const std::vector<double> time = Column(csv, "time"), n = Column(csv, "v.n");
  const std::vector<double> lagged = Column(csv, "lag.f");
  ASSERT_EQ(time.size(), n.size());
  ASSERT_EQ(time.size(), lagged.size());
  ASSERT_GT(time.size(), 10u);
  for (size_t j = 0; j < time.size(); ++j) {
    EXPECT_NEAR(n[j], 20 + (10 - 20) * std::exp(-0.1 * time[j]), 1e-6) << time[j];
    // The lag starts from its declared flow 1 and follows the feed's 2 mol/s.
    EXPECT_NEAR(lagged[j], 2 + (1 - 2) * std::exp(-time[j] / 4), 1e-6) << time[j];
  }
}

// One flowsheet with the other units, each checked against its own equations evaluated here:
// a splitter feeding a pump and a stirred-tank reactor (steady state, first-order A -> B), a
// column tray fed with liquid and vapour, and the property calculator.
TEST_F(ProcessUnits, UnitsHoldTheirEquations) {
  const std::string csv = Solve(R"(Model fs
Compounds
  benzene, toluene
End Compounds
Objects
  src = feed(flow=4, temp=330)
  sp = splitter(frac=0.25)
  pu = pump(dp=5, eff=0.6)
  cstr = reactor(dhr=-20)
  liq = feed(flow=2, temp=340)
  vap = feed(flow=1.5, temp=390, vfrac=1)
  tray = stage_1
  th = thermo
End Objects
Connections
  src.comp[1] = 0.7
  src.comp[2] = 0.3
  liq.comp[1] = 0.4
  liq.comp[2] = 0.6
  vap.comp[1] = 0.5
  vap.comp[2] = 0.5
  src.f = sp.fin
  src.x[1:2] = sp.zin[1:2]
  src.h = sp.hin
  sp.f1 = pu.fin
  sp.x[1:2] = pu.zin[1:2]
  sp.h = pu.hin
  sp.p = pu.pin
  sp.f2 = cstr.fin
  sp.x[1:2] = cstr.zin[1:2]
  sp.h = cstr.hin
  cstr.nu[1] = -1
  cstr.nu[2] = 1
  liq.f = tray.lin
  liq.x[1:2] = tray.xin[1:2]
  liq.h = tray.hlin
  vap.f = tray.vin
  vap.x[1:2] = tray.yin[1:2]
  vap.h = tray.hvin
  th.t = 350
  th.t = fixed
End Connections
Equations
  cstr.f = 0.05*cstr.n
  cstr.r = 0.002*cstr.c[1]
End Equations
End Model
)");
  const Compound* c[2] = {FindCompound("benzene"), FindCompound("toluene")};
  // Splitter: a quarter of the flow, the same state.
  EXPECT_NEAR(Value(csv, "sp.f1"), 1, 1e-9);
  EXPECT_NEAR(Value(csv, "sp.f2"), 3, 1e-9);
  EXPECT_NEAR(Value(csv, "sp.x[1]"), 0.7, 1e-9);
  // Pump: 5 bar on 1 mol/s of liquid of molar volume sum(x/rho) at its outlet temperature.
  const double tp = Value(csv, "pu.t");
  double v = 0;
  for (int i = 0; i < 2; ++i)
    v += Value(csv, "pu.x[" + std::to_string(i + 1) + "]") / LiquidDensity(*c[i], tp);
  EXPECT_NEAR(Value(csv, "pu.w"), 1 * 5e5 * v / 0.6 / 1000, 1e-9);
  EXPECT_NEAR(Value(csv, "pu.p"), 1.01325 + 5, 1e-9);
  EXPECT_NEAR(Value(csv, "pu.f") * Value(csv, "pu.h"),
              Value(csv, "pu.fin") * Value(csv, "pu.hin") + Value(csv, "pu.w"), 1e-9);
  // Reactor at steady state: the outflow equals the inflow (A -> B keeps the moles), so the
  // holdup is n = fin/0.05, and A reacts at 0.002 cA vol = 0.002 xA n:
  // fin zA = xA (fin + 0.002 n).
  const double fin = 3, zA = 0.7, n = fin / 0.05, vol = Value(csv, "cstr.vol");
  EXPECT_NEAR(Value(csv, "cstr.n"), n, 1e-7);
  EXPECT_NEAR(Value(csv, "cstr.x[1]"), zA * fin / (fin + 0.002 * n), 1e-7);
  EXPECT_NEAR(vol * Value(csv, "cstr.c[1]"), Value(csv, "cstr.x[1]") * n, 1e-6);
  EXPECT_NEAR(Value(csv, "cstr.f") * Value(csv, "cstr.h"),
              fin * Value(csv, "cstr.hin") + 20 * Value(csv, "cstr.r") * vol, 1e-7);
  // Tray: Raoult's law at its temperature and closed balances.
  const double tt = Value(csv, "tray.t"), pt = Value(csv, "tray.p");
  for (int i = 0; i < 2; ++i) {
    const std::string n = "[" + std::to_string(i + 1) + "]";
    EXPECT_NEAR(Value(csv, "tray.y" + n) * pt,
                Value(csv, "tray.x" + n) * VapourPressureBar(*c[i], tt), 1e-7);
    EXPECT_NEAR(2 * Value(csv, "liq.x" + n) + 1.5 * Value(csv, "vap.x" + n),
                Value(csv, "tray.fv") * Value(csv, "tray.y" + n) +
                    Value(csv, "tray.fl") * Value(csv, "tray.x" + n),
                1e-7);
  }
  EXPECT_NEAR(Value(csv, "tray.x[1]") + Value(csv, "tray.x[2]"), 1, 1e-7);
  EXPECT_NEAR(
      2 * Value(csv, "liq.h") + 1.5 * Value(csv, "vap.h"),
      Value(csv, "tray.fv") * Value(csv, "tray.hv") + Value(csv, "tray.fl") * Value(csv, "tray.hl"),
      1e-7);
  // A vapour feed carries the vapour enthalpy.
  EXPECT_NEAR(Value(csv, "vap.h"),
              0.5 * VapourEnthalpy(*c[0], 390) + 0.5 * VapourEnthalpy(*c[1], 390), 1e-9);
  // Property calculator.
  for (int i = 0; i < 2; ++i) {
    const std::string n = "[" + std::to_string(i + 1) + "]";
    EXPECT_NEAR(Value(csv, "th.psat" + n), VapourPressureBar(*c[i], 350), 1e-9);
    EXPECT_NEAR(Value(csv, "th.hl" + n), LiquidEnthalpy(*c[i], 350), 1e-9);
    EXPECT_NEAR(Value(csv, "th.rho" + n), LiquidDensity(*c[i], 350), 1e-6);
  }
}

// A heat exchanger as two heaters: the hot side (toluene, 400 K) is cooled to 330 K, the cold
// side (benzene, 300 K, spec 2) takes its heat; the cold outlet temperature is found here by
// bisection on the liquid enthalpy.
TEST_F(ProcessUnits, ExchangerSidesShareTheDuty) {
  const std::string csv = Solve(R"(Model fs
Compounds
  benzene, toluene
End Compounds
Objects
  hf = feed(flow=1, temp=400, pres=5)
  cf = feed(flow=2, temp=300)
  hot = stage_2(spec=0, temp=330, pres=5)
  cold = stage_2(spec=2)
End Objects
Connections
  hf.comp[1] = 0
  hf.comp[2] = 1
  cf.comp[1] = 1
  cf.comp[2] = 0
  hf.f = hot.fin
  hf.x[1:2] = hot.zin[1:2]
  hf.h = hot.hin
  cf.f = cold.fin
  cf.x[1:2] = cold.zin[1:2]
  cf.h = cold.hin
End Connections
Equations
  cold.q = -hot.q
End Equations
End Model
)");
  const Compound& benzene = *FindCompound("benzene");
  const Compound& toluene = *FindCompound("toluene");
  const double q = LiquidEnthalpy(toluene, 400) - LiquidEnthalpy(toluene, 330);  // kW, 1 mol/s
  EXPECT_NEAR(Value(csv, "hot.q"), -q, 1e-7);
  const double target = LiquidEnthalpy(benzene, 300) + q / 2;
  double lo = 300, hi = 400;
  for (int it = 0; it < 100; ++it) {
    ((LiquidEnthalpy(benzene, (lo + hi) / 2) < target) ? lo : hi) = (lo + hi) / 2;
  }
  EXPECT_NEAR(Value(csv, "cold.t"), (lo + hi) / 2, 1e-6);
}

// A vessel with a level drained through a valve (f = 0.4 level) at steady state, and the
// recovery of each compound in the vapour of a flash.
TEST_F(ProcessUnits, LevelAndRecovery) {
  const std::string csv = Solve(R"(Model fs
Compounds
  benzene, toluene
End Compounds
Objects
  src = feed(flow=2, temp=300)
  tank = vesselm(area=0.5)
  fl = flash(temp=372)
  rv = recovery
End Objects
Connections
  src.comp[1] = 0.4
  src.comp[2] = 0.6
  src.f = tank.fin
  src.x[1:2] = tank.zin[1:2]
  src.h = tank.hin
  tank.f = fl.fin
  tank.x[1:2] = fl.zin[1:2]
  tank.h = fl.hin
  fl.fin = rv.fin
  fl.zin[1:2] = rv.zin[1:2]
  fl.fv = rv.f
  fl.y[1:2] = rv.x[1:2]
End Connections
Equations
  tank.f = 0.4*tank.level
End Equations
End Model
)",
                                "ZPM.IMODE = 1\nZPM.SOLVER = 3\n");
  const Compound* c[2] = {FindCompound("benzene"), FindCompound("toluene")};
  const double level = 2 / 0.4;  // the outflow equals the inflow
  EXPECT_NEAR(Value(csv, "tank.level"), level, 1e-7);
  const double t = Value(csv, "tank.t");
  EXPECT_NEAR(t, 300, 1e-6);
  const double v = 0.4 / LiquidDensity(*c[0], t) + 0.6 / LiquidDensity(*c[1], t);  // m^3/mol
  const double n = level * 0.5 / v;
  EXPECT_NEAR(Value(csv, "tank.n"), n, 1e-6 * n);
  EXPECT_NEAR(Value(csv, "tank.mass"), n * (0.4 * c[0]->mw + 0.6 * c[1]->mw) / 1000, 1e-6);
  const HandFlash hand = BenzeneTolueneByHand();  // the same flash at 2 mol/s, 40% benzene
  for (int i = 0; i < 2; ++i) {
    const double z = i == 0 ? 0.4 : 0.6;
    EXPECT_NEAR(Value(csv, "rv.rec[" + std::to_string(i + 1) + "]"), hand.beta * hand.y[i] / z,
                1e-6)
        << i;
  }
}

// A column section around a feed tray (flash_column): every compound and the energy close from
// the three feeds to the top vapour and the bottom liquid, and the feed tray is in equilibrium.
TEST_F(ProcessUnits, FeedTrayColumnBalancesClose) {
  const std::string csv = Solve(R"(Model fs
Compounds
  benzene, toluene
End Compounds
Objects
  reflux = feed(flow=2, temp=360)
  boilup = feed(flow=2.5, temp=390, vfrac=1)
  fd = feed(flow=1, temp=365)
  t1 = stage_1
  ft = flash_column
  t3 = stage_1
End Objects
Connections
  reflux.comp[1] = 0.6
  reflux.comp[2] = 0.4
  boilup.comp[1] = 0.2
  boilup.comp[2] = 0.8
  fd.comp[1] = 0.45
  fd.comp[2] = 0.55
  reflux.f = t1.lin
  reflux.x[1:2] = t1.xin[1:2]
  reflux.h = t1.hlin
  t1.fl = ft.lin
  t1.x[1:2] = ft.xin[1:2]
  t1.hl = ft.hlin
  fd.f = ft.fin
  fd.x[1:2] = ft.zin[1:2]
  fd.h = ft.hin
  ft.fl = t3.lin
  ft.x[1:2] = t3.xin[1:2]
  ft.hl = t3.hlin
  boilup.f = t3.vin
  boilup.x[1:2] = t3.yin[1:2]
  boilup.h = t3.hvin
  t3.fv = ft.vin
  t3.y[1:2] = ft.yin[1:2]
  t3.hv = ft.hvin
  ft.fv = t1.vin
  ft.y[1:2] = t1.yin[1:2]
  ft.hv = t1.hvin
End Connections
End Model
)",
                                "ZPM.IMODE = 1\n");
  const double top = Value(csv, "t1.fv"), bottom = Value(csv, "t3.fl");
  EXPECT_NEAR(2 + 2.5 + 1, top + bottom, 1e-7);
  EXPECT_GT(top, 0.1);
  EXPECT_GT(bottom, 0.1);
  const double z1[3] = {0.6, 0.2, 0.45};  // benzene in reflux, boil-up, feed
  EXPECT_NEAR(2 * z1[0] + 2.5 * z1[1] + 1 * z1[2],
              top * Value(csv, "t1.y[1]") + bottom * Value(csv, "t3.x[1]"), 1e-7);
  EXPECT_NEAR(2 * Value(csv, "reflux.h") + 2.5 * Value(csv, "boilup.h") + Value(csv, "fd.h"),
              top * Value(csv, "t1.hv") + bottom * Value(csv, "t3.hl"), 1e-6);
  const double t = Value(csv, "ft.t");
  const Compound& benzene = *FindCompound("benzene");
  EXPECT_NEAR(Value(csv, "ft.y[1]") * Value(csv, "ft.p"),
              Value(csv, "ft.x[1]") * VapourPressureBar(benzene, t), 1e-7);
  EXPECT_GT(Value(csv, "t1.y[1]"), Value(csv, "t3.x[1]"));  // benzene goes up
}

// The polymerisation reactor at steady state against its closed form: with tau = vol/q,
// i = i_in/(1 + kd tau), pr = sqrt(feff kd i/kt), m = m_in/(1 + kp pr tau),
// lam0 = kt pr^2 tau, lam1 = kp m pr tau, so Mn = mw kp m/(kt pr). Solved with Ipopt: its
// variables span ten decades, and the built-in SQP solver stops at MAXACCY on it.
TEST_F(ProcessUnits, PolymerReactorSteadyStateMatchesItsClosedForm) {
  const std::string csv = Solve(R"(Model fs
Objects
  pr = poly_reactor(vol=2, kd=2e-4, kp=0.5, kt=2e4)
End Objects
Connections
  pr.q = 0.0002
  pr.q = fixed
  pr.m_in = 6000
  pr.m_in = fixed
  pr.i_in = 12
  pr.i_in = fixed
End Connections
End Model
)",
                                "ZPM.IMODE = 1\nZPM.SOLVER = 3\n");
  const double tau = 2 / 0.0002, kd = 2e-4, kp = 0.5, kt = 2e4, feff = 0.5;
  const double i = 12 / (1 + kd * tau);
  const double radicals = std::sqrt(feff * kd * i / kt);
  const double m = 6000 / (1 + kp * radicals * tau);
  EXPECT_NEAR(Value(csv, "pr.i"), i, 1e-9 * i);
  EXPECT_NEAR(Value(csv, "pr.pr"), radicals, 1e-9 * radicals);
  EXPECT_NEAR(Value(csv, "pr.m"), m, 1e-7 * m);
  EXPECT_NEAR(Value(csv, "pr.lam0"), kt * radicals * radicals * tau, 1e-7);
  EXPECT_NEAR(Value(csv, "pr.mn"), 100 * kp * m / (kt * radicals), 1e-6 * Value(csv, "pr.mn"));
  EXPECT_NEAR(Value(csv, "pr.conv"), 1 - m / 6000, 1e-9);
  EXPECT_GT(Value(csv, "pr.conv"), 0.3);
}

// The stream measures on one feed: component molar and mass flows, total mass flow, and the
// mass of a holdup of the same composition.
TEST_F(ProcessUnits, StreamMeasures) {
  const std::string csv = Solve(R"(Model fs
Compounds
  water, ethanol
End Compounds
Objects
  src = feed(flow=3)
  mf = molarflows
  ms = massflows
  m = massflow
  hold = mass
End Objects
Connections
  src.comp[1] = 0.8
  src.comp[2] = 0.2
  src.f = mf.f
  src.x[1:2] = mf.x[1:2]
  src.f = ms.f
  src.x[1:2] = ms.x[1:2]
  src.f = m.f
  src.x[1:2] = m.x[1:2]
  src.x[1:2] = hold.x[1:2]
  hold.n = 50
  hold.n = fixed
End Connections
End Model
)",
                                "ZPM.IMODE = 1\n");
  const double mw[2] = {FindCompound("water")->mw, FindCompound("ethanol")->mw};
  const double x[2] = {0.8, 0.2};
  double total = 0;
  for (int i = 0; i < 2; ++i) {
    const std::string n = "[" + std::to_string(i + 1) + "]";
    EXPECT_NEAR(Value(csv, "mf.fc" + n), 3 * x[i], 1e-9) << i;
    EXPECT_NEAR(Value(csv, "ms.mc" + n), 3 * x[i] * mw[i] / 1000, 1e-9) << i;
    total += 3 * x[i] * mw[i] / 1000;
  }
  EXPECT_NEAR(Value(csv, "m.m"), total, 1e-9);
  EXPECT_NEAR(Value(csv, "hold.m"), 50 * total / 3, 1e-9);
}

// A recycle loop closed by feedback: feed and recycle mixed, flashed, a third of the liquid
// purged and the rest returned. At steady state the feed leaves as vapour and purge, compound
// by compound, and the recycle is twice the purge.
TEST_F(ProcessUnits, RecycleLoopClosesThroughFeedback) {
  const std::string csv = Solve(R"(Model fs
Compounds
  benzene, toluene
End Compounds
Objects
  src = feed(flow=1, temp=300)
  mix = mixer
  heat = stage_2(temp=360)
  fl = flash(temp=372)
  sp = splitter(frac=0.3333333333333333)
  rec = feedback(flow0=1, temp0=372)
End Objects
Connections
  src.comp[1] = 0.4
  src.comp[2] = 0.6
  src.f = mix.f1
  src.x[1:2] = mix.z1[1:2]
  src.h = mix.h1
  rec.f = mix.f2
  rec.x[1:2] = mix.z2[1:2]
  rec.h = mix.h2
  mix.f = heat.fin
  mix.x[1:2] = heat.zin[1:2]
  mix.h = heat.hin
  heat.f = fl.fin
  heat.x[1:2] = fl.zin[1:2]
  heat.h = fl.hin
  fl.fl = sp.fin
  fl.x[1:2] = sp.zin[1:2]
  fl.hl = sp.hin
  sp.f2 = rec.fin
  sp.x[1:2] = rec.zin[1:2]
  sp.h = rec.hin
End Connections
End Model
)",
                                "ZPM.IMODE = 1\n");
  const double purge = Value(csv, "sp.f1"), vapour = Value(csv, "fl.fv");
  EXPECT_NEAR(vapour + purge, 1, 1e-7);
  EXPECT_NEAR(Value(csv, "rec.f"), 2 * purge, 1e-7);
  EXPECT_GT(purge, 0.05);
  EXPECT_GT(vapour, 0.05);
  EXPECT_NEAR(0.4, vapour * Value(csv, "fl.y[1]") + purge * Value(csv, "sp.x[1]"), 1e-7);
  EXPECT_NEAR(Value(csv, "src.h") + Value(csv, "heat.q") + Value(csv, "fl.q"),
              vapour * Value(csv, "fl.hv") + purge * Value(csv, "sp.h"), 1e-6);
}

// The bundled examples run as their READMEs say.
TEST_F(ProcessUnits, ExamplesRunAsDocumented) {
  struct Case {
    const char* folder;
    const char* app;
    const char* member;
    double value;  // as the README rounds it, at the last time point
    double tol;
  };
  const Case cases[] = {
      {"flowsheet_flash", "flowsheet", "drum.t", 372.41, 0.01},
      {"flowsheet_flash", "flowsheet", "heat.q", 68.38, 0.01},
      {"flowsheet_column", "column", "t2.t", 372.71, 0.01},
      {"flowsheet_column", "column", "t3.x[1]", 0.196, 0.001},
      {"flowsheet_tank", "tank", "tk.level", 4.756, 0.001},
      {"flowsheet_tank", "tank", "tk.t", 322.50, 0.01},
  };
  for (const Case& c : cases) {
    const std::string dir = std::string(KX_SOURCE_DIR) + "/examples/" + c.folder + "/";
    const std::string app = c.app;
    for (const std::string ext : {".zpm", ".dbs", ".csv"}) {
      const std::string text = kx::testing::ReadFile(dir + app + ext);
      if (text.empty()) {
        ASSERT_EQ(ext, ".csv") << dir + app + ext;  // only the data file is optional
        continue;
      }
      Write(app + ext, text);
    }
    for (const char* restart : {"ss.t0", "sim.t0"}) std::filesystem::remove(dir_.File(restart));
    const driver::RunResult r = Run(app);
    ASSERT_EQ(r.status, 1) << r.out;
    EXPECT_NEAR(Column(Read("results.csv"), c.member).back(), c.value, c.tol) << c.folder;
  }
}

TEST_F(ProcessUnits, BadDeclarationsAreRefusedWithTheObject) {
  struct Case {
    const char* compounds;
    const char* object;
    const char* message;
  };
  const Case cases[] = {
      {"Compounds\n  benzene, unobtainium\nEnd Compounds\n", "fl = flash",
       "'unobtainium' is not in the data bank"},
      {"", "fl = flash", "list them in a Compounds section"},
      {"Compounds\n  water\nEnd Compounds\n", "fl = flash(spec=3)", "spec must be 0, 1 or 2"},
  };
  for (const Case& c : cases) {
    Write("bad.zpm", std::string("Model bad\n") + c.compounds + "Objects\n  " + c.object +
                         "\nEnd Objects\nEnd Model\n");
    const driver::RunResult r = Run("bad");
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(r.Has(c.message)) << r.out;
    EXPECT_TRUE(r.Has("Object fl (flash, line")) << r.out;
  }
}

}  // namespace
}  // namespace kx::objects
