#include "driver/classes.h"

#include "horizon/classes.h"

namespace kx::driver {

void ApplyClassesToModel(const dbs::OptionStore& options, int imode, model::ModelStore& store) {
  for (const horizon::ClassedVariable& c :
       horizon::ClassifyVariables(options, store, imode, /*ctrlmode=*/3))
    horizon::ApplyRole(c, store.Var(c.number));
}

void WriteModelToClasses(const model::ModelStore& store, dbs::OptionStore& options) {
  for (const horizon::ClassedVariable& c :
       horizon::ClassifyVariables(options, store, /*imode=*/1, /*ctrlmode=*/1)) {
    const model::Variable& v = store.Var(c.number);
    if (!v.units().empty()) options.SetUnits(c.name, v.units());
    if (c.IsInput()) {
      options.Set(c.name, "LSTVAL", options.GetReal(c.name, "NEWVAL"));
      options.Set(c.name, "NEWVAL", v.val);
    } else {
      options.Set(c.name, "MODEL", v.val);
      options.Set(c.name, "PRED[1]", v.val);
    }
  }
}

}  // namespace kx::driver
