// files/horizon_files: the files of a solve over a time horizon besides the restart file.
//   "ic.t0"      the state at the start of the horizon: one line per model variable by its
//                root name, "NAME = VALUE" with " *" for calculated, so a restart read of
//                another problem type (by root name) takes it up;
//   "WORD.dxdt"  the time derivatives of the differential copies, "p(k).n(j).NAME = DXDT".
#pragma once

#include <map>
#include <string>
#include <vector>

#include "horizon/replicate.h"
#include "model/records.h"

namespace kx::files {

bool WriteInitialConditions(const std::string& path, const horizon::Horizon& horizon,
                            const model::ModelStore& base);

bool WriteDerivatives(const std::string& path, const horizon::Horizon& horizon);

// "est.meas": the measurements an estimation cycle used, one line per measured variable and
// step boundary ("NAME, POINT, VALUE", POINT 0 the horizon start, no VALUE for none).
using MeasurementHistory = std::map<std::string, std::vector<double>>;  // kNoValue: none
bool WriteMeasurementHistory(const std::string& path, const MeasurementHistory& history);
// Nothing when the file is missing; lines that do not parse are skipped.
MeasurementHistory ReadMeasurementHistory(const std::string& path);

// "est.xfer": after a good estimation cycle, the values of `numbers` (base variables) at point
// `point` of the horizon, "NAME = VALUE" by root name, for a control cycle to start from.
bool WriteTransfer(const std::string& path, const horizon::Horizon& horizon,
                   const model::ModelStore& base, int point, const std::vector<int>& numbers);

// "icd_calc.txt": the calculated initial conditions of the differential variables.
bool WriteInitialConditionReport(const std::string& path, const horizon::Horizon& horizon,
                                 const model::ModelStore& base);

}  // namespace kx::files
