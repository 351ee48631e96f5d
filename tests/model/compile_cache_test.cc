// The byte form of the compile cache: a stored model comes back field for field with programs
// that compute the same values; damaged bytes or another key give nothing.
#include "model/compile_cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "model/builder_testing.h"

namespace kx::model {
namespace {

using testing::Build;
using testing::ScratchDir;

// Intermediates, derivatives, a connection, shared programs, second derivatives and two
// vector equations.
constexpr const char* kModel = R"(Model m
  Constants
    k = 3
  Parameters
    p = 2, >= 0, <= 5
  Variables
    x[1:3] = 1, >= -10
    y = 0.5
    int_z = 1
    obj_v
  Intermediates
    s = x[1]*x[2] + exp(y)
    t = s^2 / p
  Connections
    y = int_z
  Equations
    $x[1:3] = -k*x[1:3] + t
    y = sin(x[2]) * log(p + x[3]^2)
    maximize -(x[1]-1)^2
    obj_v = p*y
    x[2:3] >= x[1:2] - 20
End Model
)";

CachedModel BuildOnce(const ScratchDir& dir) {
  CachedModel m;
  testing::BuildResult r = Build(kModel, dir);
  EXPECT_FALSE(r.stopped) << r.output;
  m.store = std::move(r.store);
  m.lines = r.lines;
  for (const std::string& f : m.store.files_written)
    m.files.push_back(dir.Read(std::filesystem::path(f).filename().string()));
  return m;
}

// Residual, gradient and Hessian of every program at a point where all are defined.
std::vector<double> Evaluations(const ModelStore& store) {
  std::vector<double> all, in, work, grad, hess;
  lang::DomainErrors errs;
  for (const lang::Program& p : store.programs) {
    in.assign(p.num_inputs(), 0.7);
    work.resize(p.work_size());
    grad.resize(p.num_inputs());
    hess.resize(p.hess_pairs().size());
    all.push_back(p.Hessian(in.data(), work.data(), grad.data(), hess.data(), &errs));
    all.insert(all.end(), grad.begin(), grad.end());
    all.insert(all.end(), hess.begin(), hess.end());
  }
  return all;
}

TEST(CompileCacheBytes, RoundTripKeepsRecordsAndPrograms) {
  ScratchDir dir("kx_cache_bytes");
  const CachedModel built = BuildOnce(dir);
  std::string why;
  const std::optional<CachedModel> back = DecodeCache(EncodeCache("key", built), "key", &why);
  ASSERT_TRUE(back) << why;
  const ModelStore& a = built.store;
  const ModelStore& b = back->store;
  EXPECT_EQ(back->lines, built.lines);
  EXPECT_EQ(back->files, built.files);
  ASSERT_EQ(a.vars.size(), b.vars.size());
  for (size_t i = 0; i < a.vars.size(); ++i) {
    const Variable &u = a.vars[i], &v = b.vars[i];
    EXPECT_EQ(std::tie(u.name, u.vtype, u.number, u.idiff, u.diff, u.fixed, u.integer, u.obj_def,
                       u.forward, u.aliases(), u.val, u.lower, u.upper, u.line),
              std::tie(v.name, v.vtype, v.number, v.idiff, v.diff, v.fixed, v.integer, v.obj_def,
                       v.forward, v.aliases(), v.val, v.lower, v.upper, v.line));
  }
  ASSERT_EQ(a.eqns.size(), b.eqns.size());
  for (size_t e = 0; e < a.eqns.size(); ++e) {
    const Equation &p = a.eqns[e], &q = b.eqns[e];
    EXPECT_EQ(std::tuple(p.Text(), p.copy, p.type, p.obj_eqn, p.differential, p.program,
                         p.columns, p.lower, p.upper, p.residual),
              std::tuple(q.Text(), q.copy, q.type, q.obj_eqn, q.differential, q.program,
                         q.columns, q.lower, q.upper, q.residual));
  }
  ASSERT_EQ(a.intermediates.size(), b.intermediates.size());
  for (size_t j = 0; j < a.intermediates.size(); ++j) {
    EXPECT_EQ(a.intermediates[j].columns, b.intermediates[j].columns);
    EXPECT_EQ(a.intermediates[j].value, b.intermediates[j].value);
  }
  EXPECT_EQ(std::tie(a.name, a.order, a.nvar, a.ndiff, a.num_integer, a.num_diff_eqns,
                     a.num_alg_eqns, a.num_obj_eqns, a.compounds, a.files_written),
            std::tie(b.name, b.order, b.nvar, b.ndiff, b.num_integer, b.num_diff_eqns,
                     b.num_alg_eqns, b.num_obj_eqns, b.compounds, b.files_written));
  ASSERT_EQ(a.programs.size(), b.programs.size());
  for (size_t k = 0; k < a.programs.size(); ++k)
    EXPECT_EQ(a.programs[k].Listing(), b.programs[k].Listing()) << "program " << k;
  EXPECT_EQ(Evaluations(a), Evaluations(b));
}

TEST(CompileCacheBytes, DamagedOrForeignBytesGiveNothing) {
  ScratchDir dir("kx_cache_bytes");
  const std::string bytes = EncodeCache("key", BuildOnce(dir));
  std::string why;
  EXPECT_FALSE(DecodeCache(bytes, "other key", &why));
  EXPECT_FALSE(why.empty());
  // Every cut and every single changed byte is refused.
  for (size_t n = 0; n < bytes.size(); ++n) {
    EXPECT_FALSE(DecodeCache(std::string_view(bytes).substr(0, n), "key", &why)) << n;
    std::string changed = bytes;
    changed[n] = static_cast<char>(changed[n] ^ 0x10);
    EXPECT_FALSE(DecodeCache(changed, "key", &why)) << n;
  }
  EXPECT_FALSE(DecodeCache(bytes + "x", "key", &why));
  EXPECT_TRUE(DecodeCache(bytes, "key", &why)) << why;
}

// Bytes that check out but hold a vector copy without its statement, or a statement whose
// index places lie outside its text, are refused too: the copy's text could not be written.
TEST(CompileCacheBytes, CopiesThatCannotBeWrittenAreRefused) {
  ScratchDir dir("kx_cache_bytes");
  const CachedModel built = BuildOnce(dir);
  auto copy = std::find_if(built.store.eqns.begin(), built.store.eqns.end(),
                           [](const Equation& e) { return e.copy > 0; });
  ASSERT_NE(copy, built.store.eqns.end());
  const size_t row = copy - built.store.eqns.begin();
  const std::function<void(Equation*)> damages[] = {
      [](Equation* e) { e->copied = nullptr; },
      [](Equation* e) {
        auto s = std::make_shared<lang::CopiedStatement>(*e->copied);
        s->ranges.back().close = s->text.size();
        e->copied = s;
      },
      [](Equation* e) {
        auto s = std::make_shared<lang::CopiedStatement>(*e->copied);
        s->placed.front().close = s->placed.front().open;
        e->copied = s;
      }};
  for (const auto& damage : damages) {
    CachedModel model = built;
    damage(&model.store.eqns[row]);
    std::string why;
    EXPECT_FALSE(DecodeCache(EncodeCache("key", model), "key", &why));
    EXPECT_EQ(why, "unreadable");
  }
}

}  // namespace
}  // namespace kx::model
