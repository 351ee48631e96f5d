// files/horizon_files: the files of a solve over a time horizon besides the restart file.
//   "ic.t0"      the state at the start of the horizon: one line per model variable by its
//                root name, "NAME = VALUE" with " *" for calculated, so a restart read of
//                another problem type (by root name) takes it up;
//   "WORD.dxdt"  the time derivatives of the differential copies, "p(k).n(j).NAME = DXDT".
#pragma once

#include <string>

#include "horizon/replicate.h"
#include "model/records.h"

namespace kx::files {

bool WriteInitialConditions(const std::string& path, const horizon::Horizon& horizon,
                            const model::ModelStore& base);

bool WriteDerivatives(const std::string& path, const horizon::Horizon& horizon);

}  // namespace kx::files
