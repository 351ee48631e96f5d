// Equations of one shape share a program: every equation of the built store must evaluate
// (residual and gradient, column by column) exactly as its own text compiled alone (names
// resolved by name, connections followed), the cases that must not share (repeated columns,
// intermediates, differing constants) must not, and the variables whose derivatives the
// shared programs read are the differential ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "builder_testing.h"
#include "lang/compiler.h"
#include "lang/model_file.h"
#include "model/sparsity.h"

namespace kx::model::testing {
namespace {

// The equation's residual text compiled alone by a fresh compiler, names resolved by name
// against the store (constants, variables, intermediates in declaration order).
struct Reference {
  lang::Compiler compiler;
  std::unordered_map<std::string, int> handles;  // intermediate name -> handle
  lang::Resolver resolve;

  explicit Reference(const ModelStore& store) {
    resolve = [&store, this](std::string_view name, bool derivative) {
      lang::Symbol s;
      const std::string key(name);
      for (const Constant& c : store.constants) {
        if (c.name == key && !derivative) {
          s.kind = lang::Symbol::Kind::kConstant;
          s.value = c.value;
          return s;
        }
      }
      if (auto it = handles.find(key); it != handles.end()) {
        s.kind = lang::Symbol::Kind::kIntermediate;
        s.intermediate = it->second;
        return s;
      }
      for (int n = 1; n <= store.nvar; ++n) {
        const Variable& v = store.Var(n);
        if (v.name == key || std::count(v.aliases().begin(), v.aliases().end(), key) > 0) {
          s.kind = lang::Symbol::Kind::kColumn;
          s.column = derivative ? store.nvar + n : n;
        }
      }
      return s;
    };
    for (const Intermediate& m : store.intermediates)
      handles[m.name] = compiler.DefineIntermediate(m.text, resolve);
  }
};

// Residual and d residual / d column of equation e, through the store's program and map.
std::map<int, double> Evaluate(const ModelStore& store, const lang::Program& p,
                               const std::vector<int>& columns, double* residual) {
  std::vector<double> values(2 * static_cast<size_t>(store.nvar) + 1), in, work(p.work_size()),
      grad(columns.size() + 1);
  ColumnValues(store, values);
  for (int c : columns) in.push_back(c < 0 ? store.intermediates[-c - 1].value : values[c]);
  lang::DomainErrors errors;
  *residual = p.Gradient(in.data(), work.data(), grad.data(), &errors);
  std::map<int, double> by_column;
  for (size_t k = 0; k < columns.size(); ++k) by_column[columns[k]] += grad[k];
  return by_column;
}

// Sets every variable and derivative to a distinct value so that a wrong column shows.
void SpreadValues(ModelStore* store) {
  for (int n = 1; n <= store->nvar; ++n) {
    store->Var(n).val = 0.3 + 0.17 * n;
    store->Var(n).d_val = -0.2 + 0.11 * n;
  }
}

struct ReuseCase {
  const char* name;
  const char* model;
  int programs;  // equation programs in the store
};

const ReuseCase kCases[] = {
    {"vector statements share one program each",
     "Constants\n n = 6\nEnd Constants\nVariables\n x[0:6] = 1\n t[0:6] = 0.5\n u[0:6]\n"
     "End Variables\nEquations\n x[1:n] - x[0:n-1] - 0.5*(sin(t[1:n]) + sin(t[0:n-1])) = 0\n"
     " t[1:n] - t[0:n-1] = 0.5*(u[1:n] + u[0:n-1])\n"
     " minimize u[1:n]^2 + cos(t[0:n-1])\nEnd Equations\n",
     3},
    {"rows written out element by element share too",
     "Variables\n a[1:4] = 2\nEnd Variables\nEquations\n a[2] = a[1]^2 + 1\n a[3] = a[2]^2 + 1\n"
     " a[4] = a[3]^2 + 1\n a[1]*exp(a[2]) = 3\nEnd Equations\n",
     2},
    {"a copy that reads one column twice has its own program",
     "Variables\n x[1:3] = 1\n y = 2\nEnd Variables\nEquations\n x[1:3]*x[2] = y\n"
     " y*y = 4\nEnd Equations\n",
     3},  // copies 1 and 3 share; copy 2 reads x[2] twice
    {"time derivatives map to derivative columns",
     "Parameters\n k = 0.5\nEnd Parameters\nVariables\n z[1:3] = 1\n w = 0\nEnd Variables\n"
     "Equations\n $z[1:3] = -k*z[1:3]\n w = z[1]\nEnd Equations\n",
     2},
    {"rows through intermediates are compiled one by one",
     "Variables\n x[1:3] = 1.5\nEnd Variables\nIntermediates\n q[1:3] = x[1:3]^2\n"
     "End Intermediates\nEquations\n q[1:3] + x[1:3] = 4\nEnd Equations\n",
     3},
    {"an element that is an intermediate breaks the shape",
     "Variables\n p[1] = 2\n p[3] = 3\n w = 1\nEnd Variables\nIntermediates\n p[2] = 5*w\n"
     "End Intermediates\nEquations\n w*p[1] = 1\n w*p[2] = 1\n w*p[3] + pi = 1\n"
     " w*p[3] = 1\nEnd Equations\n",
     3},  // rows 1 and 4 share; row 2 reads an intermediate, row 3 has its own shape
    {"copies read elements merged by connections and names in upper case",
     "Variables\n X[1:6] = 1\n y = 2\n w = 3\nEnd Variables\nEquations\n"
     " X[2:6] - x[1:5] = Y\nEnd Equations\nConnections\n x[3] = y\n x[6] = w\n"
     "End Connections\n",
     3},  // copies 2 and 3 read y twice (x[3] is y); 1, 4 and 5 (x[6] is w) share
    {"elements declared out of order or with gaps are found by name",
     "Variables\n y[2] = 2\n y[1] = 1\n y[3] = 3\n z[1:2] = 1.5\n w[1:2] = 1\n"
     " w[4] = 7\nEnd Variables\nEquations\n y[1:3]*z[1] = w[1]\n z[1]*w[4] = z[2] + w[2]\n"
     " w[1:2] = 2*z[1:2]\nEnd Equations\n",
     3},
};

// Each equation's residual text as the reader gives it, in the store's row order.
std::vector<std::string> ResidualTexts(const std::string& model) {
  lang::Compiler compiler;
  lang::ModelFileReader reader(&compiler, {});
  reader.ReadText(model);
  reader.InitializeConstants();
  reader.DetermineSize();
  std::vector<std::string> texts;
  for (const lang::EquationDecl& e : reader.Parse().equations)
    for (long k = 0; k < e.copies; ++k) texts.push_back(e.Row(k).Residual());
  return texts;
}

class ProgramReuse : public ::testing::TestWithParam<ReuseCase> {};

TEST_P(ProgramReuse, EveryEquationEvaluatesAsItsOwnText) {
  const ReuseCase& c = GetParam();
  ScratchDir dir("kx_program_reuse");
  BuildResult r = Build(c.model, dir);
  ASSERT_FALSE(r.stopped) << r.output;
  SpreadValues(&r.store);
  EvaluateInitialState(&r.store);
  Reference ref(r.store);
  const std::vector<std::string> residuals = ResidualTexts(c.model);
  ASSERT_EQ(residuals.size(), r.store.eqns.size());
  std::vector<int> programs;
  std::vector<bool> derivative_read(r.store.nvar + 1, false);  // by variable number
  int differential_rows = 0;
  for (size_t e = 0; e < r.store.eqns.size(); ++e) {
    const Equation& q = r.store.eqns[e];
    programs.push_back(q.program);
    bool differential = false;
    for (int col : q.columns) {
      if (col <= r.store.nvar) continue;
      derivative_read[col - r.store.nvar] = differential = true;
    }
    differential_rows += differential;
    std::vector<int> ref_columns;
    const lang::Program own =
        ref.compiler.CompileEquation(static_cast<int>(e) + 1, residuals[e], ref.resolve,
                                     &ref_columns);
    double got = 0, want = 0;
    const auto got_grad = Evaluate(r.store, r.store.programs[q.program], q.columns, &got);
    const auto want_grad = Evaluate(r.store, own, ref_columns, &want);
    EXPECT_DOUBLE_EQ(got, want) << residuals[e];
    EXPECT_DOUBLE_EQ(q.residual, want) << residuals[e];
    EXPECT_EQ(got_grad, want_grad) << residuals[e];
  }
  // A variable is differential when a row, shared program or not, reads its derivative.
  for (int n = 1; n <= r.store.nvar; ++n)
    EXPECT_EQ(r.store.Var(n).diff, derivative_read[n]) << r.store.Var(n).name;
  EXPECT_EQ(r.store.num_diff_eqns, differential_rows);
  std::sort(programs.begin(), programs.end());
  programs.erase(std::unique(programs.begin(), programs.end()), programs.end());
  EXPECT_EQ(static_cast<int>(programs.size()), c.programs);
}

INSTANTIATE_TEST_SUITE_P(Shapes, ProgramReuse, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<ReuseCase>& info) {
                           std::string name = info.param.name;
                           for (char& ch : name)
                             if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
                           return name;
                         });

}  // namespace
}  // namespace kx::model::testing
