// Value calls of the assembly run on the cached structure only: once the structure is built and
// the scratch sized, they allocate nothing. Counted with a replaced global operator new.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>

#include "model/nlp.h"
#include "model/routines.h"
#include "test_models.h"

namespace {

std::atomic<long> g_allocations{0};

}  // namespace

void* operator new(std::size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
// GCC cannot see that the replaced operator new above is the one behind these pointers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace kx::model {
namespace {

// Runs `body` twice (the first run may build and size things) and returns the number of
// allocations of the second run.
template <typename F>
long AllocationsOfRepeat(F body) {
  body();
  long before = g_allocations.load();
  body();
  return g_allocations.load() - before;
}

TEST(AssemblyAllocations, ValueCallsAllocateNothingOnceTheStructureIsBuilt) {
  ModelStore store = testing::MakeRandomModel(3, 40, 35);
  for (Equation& e : store.eqns) e.lambda = 0.5;
  store.Var(3).scale = 2.0;
  ModelAccess m(store);
  std::vector<int> ir(4000), ic(4000), ia(8000);
  std::vector<double> values(4000), dense(m.nvar()), rows(m.num_eqns());
  double f = 0;
  struct Call {
    const char* what;
    std::function<void()> run;
  };
  std::vector<Call> calls;
  for (int imsg = 1; imsg <= 6; ++imsg) {
    calls.push_back({"zpm_jacobian", [&, imsg] { zpm_jacobian(m, imsg, 4000, ir, ic, values); }});
  }
  for (int imsg : {1, 2, 3, 4, 5, 6, 11, 12, 13, 14, 15, 16}) {
    calls.push_back({"zpm_condensed_jacobian",
                     [&, imsg] { zpm_condensed_jacobian(m, imsg, ia, values); }});
  }
  for (int imsg = 1; imsg <= 8; ++imsg) {
    calls.push_back({"zpm_hessian", [&, imsg] { zpm_hessian(m, imsg, 4000, ir, ic, values); }});
  }
  calls.push_back({"zpm_eqn_res", [&] { zpm_eqn_res(m, 1, rows); }});
  calls.push_back({"zpm_obj", [&] { zpm_obj(m, 1, &f); }});
  calls.push_back({"zpm_obj_grad 1", [&] { zpm_obj_grad(m, 1, dense, true); }});
  calls.push_back({"zpm_obj_grad 2", [&] { zpm_obj_grad(m, 2, values, true); }});
  Nlp nlp(m, true, true);
  std::vector<double> x(nlp.num_vars()), lambda(nlp.num_cons(), 0.25), g(nlp.num_vars());
  nlp.GetStart(x);
  calls.push_back({"Nlp", [&] {
                     f += nlp.Objective(x);
                     nlp.Gradient(x, g);
                     nlp.Constraints(x, rows);
                     nlp.JacobianValues(x, values);
                     nlp.HessianValues(x, 1.0, lambda, values);
                   }});
  for (const Call& c : calls) EXPECT_EQ(AllocationsOfRepeat(c.run), 0) << c.what;
  // The counter does count: a structure build allocates.
  EXPECT_GT(AllocationsOfRepeat([&] {
              m.Invalidate();
              zpm_nnz(m, 1);
            }),
            0);
}

}  // namespace
}  // namespace kx::model
