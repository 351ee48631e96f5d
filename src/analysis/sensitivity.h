// analysis/sensitivity: how the solution of a square model moves with its inputs. At the
// solution F(x, p) = 0 of a simulation (steady state or over a horizon), the derivatives of
// every calculated variable x with respect to each FV and MV p are dx/dp = -F_x^-1 F_p: one
// sparse LU factorisation of F_x (the Jacobian over the calculated variables, and over the
// time derivatives of the differential ones on a horizon) and one solve per input, whose
// column F_p sums the input's copies (an MV over a horizon moves as a whole).
//
// Files: "sensitivity.txt", a table with one row per variable and one column per input, and
// "sensitivity_dof.t0", the inputs and the values the derivatives were taken at, in the
// restart format.
#pragma once

#include <string>
#include <vector>

#include "model/access.h"

namespace kx::analysis {

// One input: its name and the variable numbers of its copies in the solved store.
struct SensitivityInput {
  std::string name;
  std::vector<int> numbers;
};

// Derivative of variable `numbers[i]` with respect to input j: values[j][i].
struct Sensitivities {
  std::vector<int> numbers;                // the calculated variables, in variable order
  std::vector<std::vector<double>> values;  // per input
};

// Nothing (with a line saying why) when the model is not square at the solution or F_x is
// singular.
std::optional<Sensitivities> ComputeSensitivities(model::ModelAccess& access, bool dynamic,
                                                  const std::vector<SensitivityInput>& inputs);

// Computes and writes both files into `dir`; false when nothing could be computed.
bool WriteSensitivityFiles(model::ModelAccess& access, bool dynamic,
                           const std::vector<SensitivityInput>& inputs, const std::string& dir);

}  // namespace kx::analysis
