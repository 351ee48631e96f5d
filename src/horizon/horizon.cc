#include "horizon/horizon.h"

#include "base/report.h"

namespace kx::horizon {

namespace {

// Calculated initial conditions belong to moving-horizon estimation; every other dynamic mode
// keeps the initial conditions fixed.
void NoteInitialConditions(const HorizonSettings& s) {
  if (s.icd_calc <= 0 || s.imode == 5) return;
  if (s.imode == 8) {
    Say("Calculated Initial Conditions Not Available for Sequential Estimation");
  } else {
    Sayf("Note: ICD_CALC = {} ignored: calculated initial conditions come with estimation; the "
         "initial conditions stay fixed",
         s.icd_calc);
  }
}

}  // namespace

Horizon SetUpDynamicModel(const model::ModelStore& base, const HorizonSettings& settings,
                          const DataFile* data, const std::string& dir) {
  if (settings.imode < 4 || settings.imode > 9) {
    Fatal({"zpm_dyn_model ERROR: imode must be 4-9", fmt::format("imode = {}", settings.imode)});
  }
  NoteInitialConditions(settings);
  TimeGrid grid = BuildTimeGrid(settings, data);
  Horizon horizon = Replicate(base, grid, data, settings.csv_read);
  CheckHorizonLinks(horizon, dir);
  ReportCounts(base, horizon);
  return horizon;
}

}  // namespace kx::horizon
