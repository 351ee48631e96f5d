// tests/models/twotanks.zpm, a model file written as a new user would write it (constants,
// vector ranges, parameters, intermediates, time derivatives, a continued two-sided inequality,
// an objective and connections), built through the file entry point at DIAGLEVEL 2. The
// initial residuals written to "model_init_res.txt" are checked against values worked out by
// hand.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <sstream>

#include "builder_testing.h"

namespace kx::model {
namespace {

// "Eqn(k) value   0 = expression" lines of model_init_res.txt, by equation number.
struct ResidualLine {
  double value = 0;
  std::string expression;
};

std::map<int, ResidualLine> ReadResiduals(const std::string& text) {
  std::map<int, ResidualLine> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("Eqn(", 0) != 0) continue;
    const size_t close = line.find(')');
    const size_t zero = line.find("   0 = ");
    ResidualLine r;
    r.value = std::stod(line.substr(close + 1, zero - close - 1));
    r.expression = line.substr(zero + 7);
    out[std::stoi(line.substr(4, close - 4))] = r;
  }
  return out;
}

TEST(BuilderUser, TwoTankModelWritesCorrectInitialResiduals) {
  testing::ScratchDir dir;
  const std::string path = std::string(KX_SOURCE_DIR) + "/tests/models/twotanks.zpm";
  BuildOptions o;
  o.diaglevel = 2;
  o.work_dir = dir.str();
  OutputCapture out;
  ModelStore s = BuildModel(path, o);

  EXPECT_TRUE(out.Contains("Parsing model file " + path + "\n"));
  EXPECT_TRUE(out.Contains("   Variables     :          9\n   Intermediates :          4\n"))
      << out.text();
  // hsp absorbed level_sp; the fixed mark reached hsp through the forward link.
  EXPECT_EQ(s.nvar, 8);
  const Variable& hsp = s.vars[testing::Find(s, "hsp")];
  EXPECT_TRUE(hsp.fixed);
  EXPECT_EQ(hsp.aliases, std::vector<std::string>{"level_sp"});
  EXPECT_EQ(s.ndiff, 2);
  EXPECT_EQ(s.num_diff_eqns, 2);
  EXPECT_EQ(s.num_obj_eqns, 1);
  const Variable& h1 = s.vars[testing::Find(s, "h[1]")];
  EXPECT_TRUE(h1.diff);
  EXPECT_EQ(h1.idiff, 1);
  EXPECT_EQ(h1.d_val, 0.05);
  const Variable& qin = s.vars[testing::Find(s, "qin")];
  EXPECT_TRUE(qin.fixed);
  EXPECT_EQ(qin.vtype, kVarParameter);
  // The first row reads dh[1]/dt as its own column.
  const Equation& e1 = s.eqns[0];
  EXPECT_TRUE(e1.differential);
  EXPECT_NE(std::find(e1.columns.begin(), e1.columns.end(), s.nvar + h1.number),
            e1.columns.end());
  // 0 <= h[1] + h[2] <= 30 is two rows.
  EXPECT_EQ(s.eqns[4].type, kGreater);
  EXPECT_EQ(s.eqns[5].type, kLess);
  EXPECT_TRUE(s.eqns[6].obj_eqn);

  // By hand: k = 0.1*sqrt(2*9.81), out = k*sqrt(1) = k.
  const double k = 0.1 * std::sqrt(2 * 9.81);
  const std::map<int, ResidualLine> res = ReadResiduals(dir.Read("model_init_res.txt"));
  ASSERT_EQ(res.size(), 7u) << dir.Read("model_init_res.txt");
  const double expected[] = {2 * 0.05 - (0.5 - 0.3), 2 * 0.0 - (0.3 - 0.3), 0.3 - k, 0.3 - k,
                             2.0 - 0, 2.0 - 30, (1.0 - 1.5) * (1.0 - 1.5)};
  for (int e = 1; e <= 7; ++e) {
    EXPECT_NEAR(res.at(e).value, expected[e - 1], 1e-14) << "Eqn(" << e << ")";
    EXPECT_NEAR(s.eqns[e - 1].residual, expected[e - 1], 1e-14) << "Eqn(" << e << ")";
  }
  EXPECT_EQ(res.at(1).expression, "(area[1]*$h[1])-(qin - q[1])");
  EXPECT_EQ(res.at(4).expression, "(q[2])-(out[2])");
  EXPECT_EQ(res.at(6).expression, "(h[1] + h[2])-(30)");
  EXPECT_EQ(res.at(7).expression, "(h[2] - hsp)^2");

  // Initial values: h[1] starts at 1 with dh/dt 0.05; the intermediates carry their values.
  const std::string values = dir.Read("model_init_values.txt");
  EXPECT_TRUE(testing::Has(values, fmt::format("{:>8} {:<40} {:>24.16e} {:>24.16e} {:>24.16e} {:>24.16e}",
                                      4, "h[1]", 1.0, 0.0, 10.0, 0.05)))
      << values;
  EXPECT_TRUE(testing::Has(values, fmt::format("{:>8} {:<40} {:>24.16e}", "", "out[2]", k))) << values;
  EXPECT_DOUBLE_EQ(s.intermediates[3].value, k);
  EXPECT_EQ(dir.Read("model_connections.txt"),
            "Connection # 1\nA: hsp\nB: level_sp\n\nConnection # 2\nA: level_sp\nB: fixed\n\n");
}

}  // namespace
}  // namespace kx::model
