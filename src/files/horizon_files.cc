#include "files/horizon_files.h"

#include <fmt/format.h>

#include "base/file_writer.h"
#include "base/sentinels.h"

namespace kx::files {

bool WriteInitialConditions(const std::string& path, const horizon::Horizon& horizon,
                            const model::ModelStore& base) {
  std::string text = fmt::format("! initial conditions: model {} at time {:.17g}\n", base.name,
                                 horizon.grid.times.empty() ? 0.0 : horizon.grid.times[0]);
  for (int b = 1; b <= base.nvar; ++b) {
    const model::Variable& v = horizon.store.Var(horizon.Number(0, b));
    text += fmt::format("{} = {:.17g}{}\n", base.Var(b).name, WritableValue(v.val),
                        v.fixed ? "" : " *");
  }
  return WriteFileAtomically(path, text);
}

bool WriteDerivatives(const std::string& path, const horizon::Horizon& horizon) {
  const model::ModelStore& store = horizon.store;
  std::string text = fmt::format("! time derivatives: {} differential copies\n", store.ndiff);
  for (int n = 1; n <= store.nvar; ++n) {
    const model::Variable& v = store.Var(n);
    if (v.idiff > 0) text += fmt::format("{} = {:.17g}\n", v.name, WritableValue(v.d_val));
  }
  return WriteFileAtomically(path, text);
}

}  // namespace kx::files
