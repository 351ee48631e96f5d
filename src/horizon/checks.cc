#include "horizon/checks.h"

#include <filesystem>
#include <sstream>

#include "base/file_writer.h"
#include "base/report.h"
#include "model/access.h"

namespace kx::horizon {

namespace {

// Stops for a missing link after writing the listing.
[[noreturn]] void FailLink(const Horizon& horizon, const std::string& dir,
                           const std::string& message) {
  WriteHorizonListing(horizon, (std::filesystem::path(dir) / "horizon.txt").string());
  Fatal({message, "See file horizon.txt"}, "Stopping....");
}

}  // namespace

void CheckHorizonLinks(const Horizon& horizon, const std::string& dir) {
  for (const HorizonElement& el : horizon.elements) {
    if (el.position < el.num_positions) {
      if (el.next_horizon == 0) FailLink(horizon, dir, "Ooops...next horizon not associated");
    } else if (el.linked_onward && el.next_node == 0) {
      FailLink(horizon, dir, "Ooops...next node not associated");
    }
  }
}

void WriteHorizonListing(const Horizon& horizon, const std::string& path) {
  std::ostringstream out;
  out << " Horizon of the differential variables\n";
  out << fmt::format(" steps: {}  nodes per step: {}  time points: {}\n",
                     horizon.grid.num_steps(), horizon.grid.nodes, horizon.grid.num_points());
  out << fmt::format("{:>10} {:>6} {:>6} {:>5} {:>10} {:>12}  {}\n", "number", "step", "of",
                     "node", "next node", "next horizon", "name");
  for (const HorizonElement& el : horizon.elements) {
    const std::string& name = horizon.store.Var(el.number).name;
    out << fmt::format("{:>10} {:>6} {:>6} {:>5} {:>10} {:>12}  {}\n", el.number, el.position,
                       el.num_positions, el.node, el.next_node, el.next_horizon, name);
  }
  WriteFileAtomically(path, out.str());
}

HorizonCounts ReportCounts(const model::ModelStore& base, Horizon& horizon) {
  model::ModelStore& s = horizon.store;
  HorizonCounts c;
  c.num_nodes = horizon.grid.num_points();
  int diff_copies = 0;
  for (int origin : horizon.eqn_origin) {
    if (origin >= 0 && base.eqns[origin].differential) ++diff_copies;
  }
  int expected = base.num_diff_eqns * (c.num_nodes - 1);
  if (diff_copies != expected) {
    Fatal({"zpm_dyn_model_init_b ERROR: number of nodes not consistent",
           fmt::format("total number of differential equations: {}", diff_copies),
           fmt::format("number of nodes: {}", c.num_nodes)});
  }
  c.num_variables = s.nvar;
  c.variable_imbalance = s.nvar - c.num_nodes * base.nvar - horizon.grid.num_steps();
  model::ModelAccess access(s);  // only its DOF rule is used: counts, no structure
  model::DofCounts dof = access.CountDof(true);
  c.num_equations = dof.num_equations;
  c.equation_imbalance = dof.ndof;
  Sayf(" total number of variables: {}", c.num_variables);
  Sayf(" total number of nodes    : {}", c.num_nodes);
  Sayf(" variable imbalance       : {}", c.variable_imbalance);
  Sayf(" total number of equations: {}", c.num_equations);
  Sayf(" equation imbalance       : {}", c.equation_imbalance);
  if (c.variable_imbalance != 0) {
    Fatal({"zpm_dyn_model ERROR: node number check",
           fmt::format("variables: {}, nodes: {}, variables per node: {}", c.num_variables,
                       c.num_nodes, base.nvar)});
  }
  return c;
}

}  // namespace kx::horizon
