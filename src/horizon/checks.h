// horizon/checks: the checks run on a replicated model before the first solve: the successor
// links of the differential copies (with the listing "horizon.txt" when one is missing) and
// the counting report with its consistency tests.
#pragma once

#include <string>

#include "horizon/replicate.h"
#include "model/records.h"

namespace kx::horizon {

// Every element before the last step must link to the next step; an element of the last step
// that a later node of its step follows must link to that node. A missing link writes the
// horizon listing to `dir`/horizon.txt and stops ("Stopping....").
void CheckHorizonLinks(const Horizon& horizon, const std::string& dir);

// Writes the horizon listing: one line per differential element with its links.
void WriteHorizonListing(const Horizon& horizon, const std::string& path);

// Counts of the replicated model, as printed.
struct HorizonCounts {
  int num_variables = 0;       // variables of the replicated store, step lengths included
  int num_nodes = 0;           // time points of the horizon
  int variable_imbalance = 0;  // variables not accounted for by points x model variables
  int num_equations = 0;       // constraint rows (objective rows apart)
  int equation_imbalance = 0;  // unknowns (calculated values and derivatives) minus rows
};

// Checks the differential equation copies against the node count ("zpm_dyn_model_init_b ERROR:
// number of nodes not consistent"), prints the totals and stops with "zpm_dyn_model ERROR: node
// number check" when the variables do not add up to points x model variables + step lengths.
HorizonCounts ReportCounts(const model::ModelStore& base, Horizon& horizon);

}  // namespace kx::horizon
