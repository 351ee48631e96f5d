// Process objects run through kestrix as a user runs them: a benzene-toluene flash against a
// hand calculation with the same correlations (Rachford-Rice solved here), the same flash
// given its duty, the mass and energy balances of flowsheets, and the other units against
// their equations or closed forms.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "base/text.h"
#include "objects/thermo_compounds.h"
#include "objects/thermo_mixture.h"
#include "objects_testing.h"

namespace kx::objects {
namespace {

// The flow, composition and enthalpy members of a stream's end.
using Ports = std::array<const char*, 3>;
constexpr Ports kOut = {"f", "x", "h"}, kIn = {"fin", "zin", "hin"};
constexpr Ports kLiquid = {"fl", "x", "hl"}, kVapour = {"fv", "y", "hv"};
constexpr Ports kLiquidIn = {"lin", "xin", "hlin"}, kVapourIn = {"vin", "yin", "hvin"};

// Connection lines of the stream from `a` (members `out`) into `b` (members `in`) with nc
// compounds; an empty member name on either side leaves that member out.
std::string Pipe(const std::string& a, const std::string& b, int nc, Ports out = kOut,
                 Ports in = kIn) {
  const std::string x = nc == 1 ? "[1]" : "[1:" + std::to_string(nc) + "]";
  std::string s;
  for (int k = 0; k < 3; ++k) {
    if (*out[k] == '\0' || *in[k] == '\0') continue;
    const std::string index = k == 1 ? x : "";
    s += a + "." + out[k] + index + " = " + b + "." + in[k] + index + "\n";
  }
  return s;
}

// "name[1] = v1", "name[2] = v2", ...: the elements of a member.
std::string Set(const std::string& name, const std::vector<double>& values) {
  std::string s;
  for (size_t i = 0; i < values.size(); ++i)
    s += name + "[" + std::to_string(i + 1) + "] = " + FormatReal(values[i]) + "\n";
  return s;
}

// A model of the given sections; empty ones are left out.
std::string Flowsheet(const std::string& compounds, const std::string& objects,
                      const std::string& connections, const std::string& equations = "") {
  std::string m = "Model fs\n";
  if (!compounds.empty()) m += "Compounds\n" + compounds + "\nEnd Compounds\n";
  m += "Objects\n" + objects + "End Objects\n";
  if (!connections.empty()) m += "Connections\n" + connections + "End Connections\n";
  if (!equations.empty()) m += "Equations\n" + equations + "End Equations\n";
  return m + "End Model\n";
}

std::string Index(int i) { return "[" + std::to_string(i + 1) + "]"; }

class ProcessUnits : public ::testing::Test {
 protected:
  // Solves `model` (steady state unless `dbs` says otherwise) and keeps its results.
  void Solve(const std::string& model, const std::string& dbs = "") {
    std::map<std::string, std::string> files = {{"fs.zpm", model}};
    if (!dbs.empty()) files["fs.dbs"] = dbs;
    run_ = testing::RunModel(files, "fs");
    EXPECT_EQ(run_.status, 1) << run_.out;
    EXPECT_TRUE(run_.Has("Successful solution")) << run_.out;
  }
  double V(const std::string& name) { return run_.At(name); }  // first (steady: only) row
  testing::Run run_;
};

std::array<const Compound*, 2> BenzeneToluene() {
  return {FindCompound("benzene"), FindCompound("toluene")};
}

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

struct HandFlash {
  double beta = 0, q = 0;
  std::vector<double> x, y;
};

// The flash of 2 mol/s of 40% benzene in toluene, fed as liquid at 300 K, at 372 K and
// 1.01325 bar, computed here from the bank's correlations.
HandFlash BenzeneTolueneByHand() {
  const std::vector<double> z = {0.4, 0.6};
  const double t = 372, p = 1.01325, f = 2;
  std::vector<double> k;
  const auto cs = BenzeneToluene();
  for (const Compound* c : cs) k.push_back(VapourPressureBar(*c, t) / p);
  HandFlash h;
  h.beta = RachfordRice(z, k);
  double hin = 0, hv = 0, hl = 0;
  for (int i = 0; i < 2; ++i) {
    const Compound& c = *cs[i];
    h.x.push_back(z[i] / (1 + h.beta * (k[i] - 1)));
    h.y.push_back(k[i] * h.x[i]);
    hin += z[i] * LiquidEnthalpy(c, 300);
    hv += h.y[i] * VapourEnthalpy(c, t);
    hl += h.x[i] * LiquidEnthalpy(c, t);
  }
  h.q = f * h.beta * hv + f * (1 - h.beta) * hl - f * hin;
  return h;
}

// That flash at its temperature (spec 0) and given the duty found here (spec 1), and the
// recovery of benzene in its vapour.
std::string FlashModel(int spec, double duty) {
  return Flowsheet("benzene, toluene",
                   "feed1 = feed(flow=2, temp=300)\nfl = flash(spec=" + std::to_string(spec) +
                       ")\nrv = recovery\n",
                   Set("feed1.comp", {0.4, 0.6}) + Pipe("feed1", "fl", 2) +
                       Pipe("fl", "rv", 2, {"fin", "zin", ""}, {"fin", "zin", ""}) +
                       Pipe("fl", "rv", 2, kVapour, {"f", "x", ""}) +
                       (spec == 0 ? "fl.temp = 372\n" : "fl.duty = " + FormatReal(duty) + "\n"));
}

TEST_F(ProcessUnits, FlashMatchesRachfordRiceAtItsTemperatureAndGivenItsDuty) {
  const HandFlash hand = BenzeneTolueneByHand();
  ASSERT_GT(hand.beta, 0.05);
  ASSERT_LT(hand.beta, 0.95);
  Solve(FlashModel(0, 0));
  EXPECT_NEAR(V("fl.fv"), 2 * hand.beta, 1e-6);
  EXPECT_NEAR(V("fl.fl"), 2 * (1 - hand.beta), 1e-6);
  for (int i = 0; i < 2; ++i) {
    EXPECT_NEAR(V("fl.x" + Index(i)), hand.x[i], 1e-6) << i;
    EXPECT_NEAR(V("fl.y" + Index(i)), hand.y[i], 1e-6) << i;
  }
  EXPECT_NEAR(V("fl.q"), hand.q, 1e-6 * std::fabs(hand.q));
  EXPECT_NEAR(V("rv.rec[1]"), hand.beta * hand.y[0] / 0.4, 1e-6);  // benzene in the vapour
  Solve(FlashModel(1, hand.q));
  EXPECT_NEAR(V("fl.t"), 372, 1e-5);
  EXPECT_NEAR(V("fl.fv"), 2 * hand.beta, 1e-6);
}

// Two feeds, a mixer, a heater and a flash: every compound and the energy close around the
// whole flowsheet. The stream measures on the first feed: component molar and mass flows,
// total mass flow, and the mass of a holdup of the same composition.
TEST_F(ProcessUnits, FlowsheetBalancesCloseAndStreamMeasures) {
  const Ports stream = {"f", "x", ""};
  Solve(Flowsheet("methanol, water, ethanol",
                  "fa = feed(flow=1.5, temp=310)\nfb = feedm(mflow=0.04, temp=290)\nmix = mixer\n"
                  "heat = stage_2(spec=0, temp=345)\nfl = flash(spec=1, duty=15)\nmf = molarflows\n"
                  "ms = massflows\nm = massflow\nhold = mass\n",
                  Set("fa.comp", {0.6, 0.4, 0}) + Set("fb.wcomp", {0.1, 0.5, 0.4}) +
                      Pipe("fa", "mix", 3, kOut, {"f1", "z1", "h1"}) +
                      Pipe("fb", "mix", 3, kOut, {"f2", "z2", "h2"}) + Pipe("mix", "heat", 3) +
                      Pipe("heat", "fl", 3) + Pipe("fa", "mf", 3, stream, stream) +
                      Pipe("fa", "ms", 3, stream, stream) + Pipe("fa", "m", 3, stream, stream) +
                      "fa.x[1:3] = hold.x[1:3]\nhold.n = 50\nhold.n = fixed\n"));
  const double fa = V("fa.f"), fb = V("fb.f"), fv = V("fl.fv"), fl = V("fl.fl");
  EXPECT_NEAR(fa + fb, fv + fl, 1e-9);
  EXPECT_GT(fv, 0.01);
  EXPECT_GT(fl, 0.01);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(fa * V("fa.x" + Index(i)) + fb * V("fb.x" + Index(i)),
                fv * V("fl.y" + Index(i)) + fl * V("fl.x" + Index(i)), 1e-9)
        << i;
  }
  // The mass feed: 0.04 kg/s of the given mass fractions, in mol/s.
  const double mw[3] = {FindCompound("methanol")->mw, FindCompound("water")->mw,
                        FindCompound("ethanol")->mw};
  EXPECT_NEAR(fb, 0.04 * (0.1 / mw[0] + 0.5 / mw[1] + 0.4 / mw[2]) * 1000, 1e-9);
  double total = 0;  // kg/s in the first feed
  for (int i = 0; i < 3; ++i) {
    const double x = V("fa.x" + Index(i));
    EXPECT_NEAR(V("mf.fc" + Index(i)), fa * x, 1e-9) << i;
    EXPECT_NEAR(V("ms.mc" + Index(i)), fa * x * mw[i] / 1000, 1e-9) << i;
    total += fa * x * mw[i] / 1000;
  }
  EXPECT_NEAR(V("m.m"), total, 1e-9);
  EXPECT_NEAR(V("hold.m"), 50 * total / fa, 1e-9);
  const double energy_out = fv * V("fl.hv") + fl * V("fl.hl");
  EXPECT_NEAR(fa * V("fa.h") + fb * V("fb.h") + V("heat.q") + V("fl.q"), energy_out,
              1e-6 * std::fabs(energy_out));
  EXPECT_NEAR(V("heat.t"), 345, 1e-9);
  EXPECT_NEAR(V("fl.q"), 15, 1e-9);
}

// A vessel filled at a constant flow and drained in proportion to its holdup:
// n(t) = fin/k + (n0 - fin/k) exp(-k t); beside it a stream lag of the same feed.
TEST_F(ProcessUnits, VesselAndLagFollowTheirClosedForms) {
  Solve(Flowsheet("water", "src = feed(flow=2, temp=300)\nv = vessel\nlag = stream_lag(tau=4)\n",
                  Pipe("src", "v", 1) + Pipe("src", "lag", 1), "v.f = 0.1*v.n\n"),
        "ZPM.IMODE = 4\nZPM.NODES = 5\nZPM.CTRL_HOR = 40\nZPM.PRED_HOR = 40\nZPM.CTRL_TIME = 0.5\n"
        "ZPM.PRED_TIME = 0.5\n");
  const std::vector<double>&time = run_.results["time"], &n = run_.results["v.n"];
  const std::vector<double>& lagged = run_.results["lag.f"];
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
// column tray fed with liquid and vapour, the property calculator, and a heat exchanger as two
// heaters: the hot side (toluene, 400 K) is cooled to 330 K, the cold side (benzene, 300 K,
// spec 2) takes its heat; the cold outlet temperature is found here by bisection on the
// liquid enthalpy.
TEST_F(ProcessUnits, UnitsHoldTheirEquations) {
  Solve(Flowsheet(
      "benzene, toluene",
      "src = feed(flow=4, temp=330)\nsp = splitter(frac=0.25)\npu = pump(dp=5, eff=0.6)\n"
      "cstr = reactor(dhr=-20)\nliq = feed(flow=2, temp=340)\n"
      "vap = feed(flow=1.5, temp=390, vfrac=1)\ntray = stage_1\nth = thermo\n"
      "hf = feed(flow=1, temp=400, pres=5)\ncf = feed(flow=2, temp=300)\n"
      "hot = stage_2(spec=0, temp=330, pres=5)\ncold = stage_2(spec=2)\n",
      Set("src.comp", {0.7, 0.3}) + Set("liq.comp", {0.4, 0.6}) + Set("vap.comp", {0.5, 0.5}) +
          Pipe("src", "sp", 2) + Pipe("sp", "pu", 2, {"f1", "x", "h"}) + "sp.p = pu.pin\n" +
          Pipe("sp", "cstr", 2, {"f2", "x", "h"}) + Set("cstr.nu", {-1, 1}) +
          Pipe("liq", "tray", 2, kOut, kLiquidIn) + Pipe("vap", "tray", 2, kOut, kVapourIn) +
          "th.t = 350\nth.t = fixed\n" + Set("hf.comp", {0, 1}) + Set("cf.comp", {1, 0}) +
          Pipe("hf", "hot", 2) + Pipe("cf", "cold", 2),
      "cstr.f = 0.05*cstr.n\ncstr.r = 0.002*cstr.c[1]\ncold.q = -hot.q\n"));
  const auto c = BenzeneToluene();
  // Splitter: a quarter of the flow, the same state.
  EXPECT_NEAR(V("sp.f1"), 1, 1e-9);
  EXPECT_NEAR(V("sp.f2"), 3, 1e-9);
  EXPECT_NEAR(V("sp.x[1]"), 0.7, 1e-9);
  // Pump: 5 bar on 1 mol/s of liquid of molar volume sum(x/rho) at its outlet temperature.
  const double tp = V("pu.t");
  const double v =
      V("pu.x[1]") / LiquidDensity(*c[0], tp) + V("pu.x[2]") / LiquidDensity(*c[1], tp);
  EXPECT_NEAR(V("pu.w"), 1 * 5e5 * v / 0.6 / 1000, 1e-9);
  EXPECT_NEAR(V("pu.p"), 1.01325 + 5, 1e-9);
  EXPECT_NEAR(V("pu.f") * V("pu.h"), V("pu.fin") * V("pu.hin") + V("pu.w"), 1e-9);
  // Reactor at steady state: the outflow equals the inflow (A -> B keeps the moles), so the
  // holdup is n = fin/0.05, and A reacts at 0.002 cA vol = 0.002 xA n:
  // fin zA = xA (fin + 0.002 n).
  const double fin = 3, zA = 0.7, n = fin / 0.05, vol = V("cstr.vol");
  EXPECT_NEAR(V("cstr.n"), n, 1e-7);
  EXPECT_NEAR(V("cstr.x[1]"), zA * fin / (fin + 0.002 * n), 1e-7);
  EXPECT_NEAR(vol * V("cstr.c[1]"), V("cstr.x[1]") * n, 1e-6);
  EXPECT_NEAR(V("cstr.f") * V("cstr.h"), fin * V("cstr.hin") + 20 * V("cstr.r") * vol, 1e-7);
  // Tray: Raoult's law at its temperature and closed balances; a vapour feed carries the
  // vapour enthalpy; the property calculator.
  const double tt = V("tray.t"), pt = V("tray.p");
  for (int i = 0; i < 2; ++i) {
    const std::string k = Index(i);
    EXPECT_NEAR(V("tray.y" + k) * pt, V("tray.x" + k) * VapourPressureBar(*c[i], tt), 1e-7);
    EXPECT_NEAR(2 * V("liq.x" + k) + 1.5 * V("vap.x" + k),
                V("tray.fv") * V("tray.y" + k) + V("tray.fl") * V("tray.x" + k), 1e-7);
    EXPECT_NEAR(V("th.psat" + k), VapourPressureBar(*c[i], 350), 1e-9);
    EXPECT_NEAR(V("th.hl" + k), LiquidEnthalpy(*c[i], 350), 1e-9);
    EXPECT_NEAR(V("th.rho" + k), LiquidDensity(*c[i], 350), 1e-6);
  }
  EXPECT_NEAR(V("tray.x[1]") + V("tray.x[2]"), 1, 1e-7);
  EXPECT_NEAR(2 * V("liq.h") + 1.5 * V("vap.h"),
              V("tray.fv") * V("tray.hv") + V("tray.fl") * V("tray.hl"), 1e-7);
  EXPECT_NEAR(V("vap.h"), 0.5 * VapourEnthalpy(*c[0], 390) + 0.5 * VapourEnthalpy(*c[1], 390),
              1e-9);
  const double q = LiquidEnthalpy(*c[1], 400) - LiquidEnthalpy(*c[1], 330);  // kW, 1 mol/s
  EXPECT_NEAR(V("hot.q"), -q, 1e-7);
  const double target = LiquidEnthalpy(*c[0], 300) + q / 2;
  double lo = 300, hi = 400;
  for (int it = 0; it < 100; ++it)
    ((LiquidEnthalpy(*c[0], (lo + hi) / 2) < target) ? lo : hi) = (lo + hi) / 2;
  EXPECT_NEAR(V("cold.t"), (lo + hi) / 2, 1e-6);
}

// A column section around a feed tray (flash_column): every compound and the energy close from
// the three feeds to the top vapour and the bottom liquid, and the feed tray is in equilibrium.
TEST_F(ProcessUnits, FeedTrayColumnBalancesClose) {
  Solve(Flowsheet(
            "benzene, toluene",
            "reflux = feed(flow=2, temp=360)\nboilup = feed(flow=2.5, temp=390, vfrac=1)\n"
            "fd = feed(flow=1, temp=365)\nt1 = stage_1\nft = flash_column\nt3 = stage_1\n",
            Set("reflux.comp", {0.6, 0.4}) + Set("boilup.comp", {0.2, 0.8}) +
                Set("fd.comp", {0.45, 0.55}) + Pipe("reflux", "t1", 2, kOut, kLiquidIn) +
                Pipe("t1", "ft", 2, kLiquid, kLiquidIn) + Pipe("fd", "ft", 2) +
                Pipe("ft", "t3", 2, kLiquid, kLiquidIn) + Pipe("boilup", "t3", 2, kOut, kVapourIn) +
                Pipe("t3", "ft", 2, kVapour, kVapourIn) + Pipe("ft", "t1", 2, kVapour, kVapourIn)),
        "ZPM.IMODE = 1\n");
  const double top = V("t1.fv"), bottom = V("t3.fl");
  EXPECT_NEAR(2 + 2.5 + 1, top + bottom, 1e-7);
  EXPECT_GT(top, 0.1);
  EXPECT_GT(bottom, 0.1);
  EXPECT_NEAR(2 * 0.6 + 2.5 * 0.2 + 1 * 0.45, top * V("t1.y[1]") + bottom * V("t3.x[1]"), 1e-7);
  EXPECT_NEAR(2 * V("reflux.h") + 2.5 * V("boilup.h") + V("fd.h"),
              top * V("t1.hv") + bottom * V("t3.hl"), 1e-6);
  EXPECT_NEAR(V("ft.y[1]") * V("ft.p"),
              V("ft.x[1]") * VapourPressureBar(*BenzeneToluene()[0], V("ft.t")), 1e-7);
  EXPECT_GT(V("t1.y[1]"), V("t3.x[1]"));  // benzene goes up
}

// The polymerisation reactor at steady state against its closed form: with tau = vol/q,
// i = i_in/(1 + kd tau), pr = sqrt(feff kd i/kt), m = m_in/(1 + kp pr tau),
// lam0 = kt pr^2 tau, lam1 = kp m pr tau, so Mn = mw kp m/(kt pr). Solved with Ipopt: its
// variables span ten decades, and the built-in SQP solver stops at MAXACCY on it. Beside it a
// vessel with a level drained through a valve (f = 0.4 level).
TEST_F(ProcessUnits, PolymerReactorAndVesselLevelAtSteadyState) {
  Solve(
      Flowsheet("benzene, toluene",
                "pr = poly_reactor(vol=2, kd=2e-4, kp=0.5, kt=2e4)\nsrc = feed(flow=2, temp=300)\n"
                "tank = vesselm(area=0.5)\nfl = flash(temp=372)\n",
                "pr.q = 0.0002\npr.q = fixed\npr.m_in = 6000\npr.m_in = fixed\npr.i_in = 12\n"
                "pr.i_in = fixed\n" +
                    Set("src.comp", {0.4, 0.6}) + Pipe("src", "tank", 2) + Pipe("tank", "fl", 2),
                "tank.f = 0.4*tank.level\n"),
      "ZPM.IMODE = 1\nZPM.SOLVER = 3\n");
  const double tau = 2 / 0.0002, kd = 2e-4, kp = 0.5, kt = 2e4, feff = 0.5;
  const double i = 12 / (1 + kd * tau);
  const double radicals = std::sqrt(feff * kd * i / kt);
  const double m = 6000 / (1 + kp * radicals * tau);
  EXPECT_NEAR(V("pr.i"), i, 1e-9 * i);
  EXPECT_NEAR(V("pr.pr"), radicals, 1e-9 * radicals);
  EXPECT_NEAR(V("pr.m"), m, 1e-7 * m);
  EXPECT_NEAR(V("pr.lam0"), kt * radicals * radicals * tau, 1e-7);
  EXPECT_NEAR(V("pr.mn"), 100 * kp * m / (kt * radicals), 1e-6 * V("pr.mn"));
  EXPECT_NEAR(V("pr.conv"), 1 - m / 6000, 1e-9);
  EXPECT_GT(V("pr.conv"), 0.3);
  const auto c = BenzeneToluene();
  const double level = 2 / 0.4, t = V("tank.t");  // the outflow equals the inflow
  EXPECT_NEAR(V("tank.level"), level, 1e-7);
  EXPECT_NEAR(t, 300, 1e-6);
  const double n = level * 0.5 / (0.4 / LiquidDensity(*c[0], t) + 0.6 / LiquidDensity(*c[1], t));
  EXPECT_NEAR(V("tank.n"), n, 1e-6 * n);
  EXPECT_NEAR(V("tank.mass"), n * (0.4 * c[0]->mw + 0.6 * c[1]->mw) / 1000, 1e-6);
}

// A recycle loop closed by feedback: feed and recycle mixed, flashed, a third of the liquid
// purged and the rest returned. At steady state the feed leaves as vapour and purge, compound
// by compound, and the recycle is twice the purge.
TEST_F(ProcessUnits, RecycleLoopClosesThroughFeedback) {
  Solve(Flowsheet("benzene, toluene",
                  "src = feed(flow=1, temp=300)\nmix = mixer\nheat = stage_2(temp=360)\n"
                  "fl = flash(temp=372)\nsp = splitter(frac=0.3333333333333333)\n"
                  "rec = feedback(flow0=1, temp0=372)\n",
                  Set("src.comp", {0.4, 0.6}) + Pipe("src", "mix", 2, kOut, {"f1", "z1", "h1"}) +
                      Pipe("rec", "mix", 2, kOut, {"f2", "z2", "h2"}) + Pipe("mix", "heat", 2) +
                      Pipe("heat", "fl", 2) + Pipe("fl", "sp", 2, kLiquid) +
                      Pipe("sp", "rec", 2, {"f2", "x", "h"})),
        "ZPM.IMODE = 1\n");
  const double purge = V("sp.f1"), vapour = V("fl.fv");
  EXPECT_NEAR(vapour + purge, 1, 1e-7);
  EXPECT_NEAR(V("rec.f"), 2 * purge, 1e-7);
  EXPECT_GT(purge, 0.05);
  EXPECT_GT(vapour, 0.05);
  EXPECT_NEAR(0.4, vapour * V("fl.y[1]") + purge * V("sp.x[1]"), 1e-7);
  EXPECT_NEAR(V("src.h") + V("heat.q") + V("fl.q"), vapour * V("fl.hv") + purge * V("sp.h"), 1e-6);
}

}  // namespace
}  // namespace kx::objects
