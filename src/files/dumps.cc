#include "files/dumps.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "base/file_writer.h"

namespace kx::files {
namespace {

std::string EquationLine(int index, const model::Equation& e) {
  return fmt::format("{:>8} {:<20} {:>24.16g} {:>24.16g} {:>24.16g}  {}\n", index, e.name,
                     e.residual, e.lower, e.upper, e.Text());
}

std::string EquationTable(const model::ModelStore& store, bool active_only) {
  std::string t = fmt::format("{:>8} {:<20} {:>24} {:>24} {:>24}  {}\n", "index", "name",
                              "residual", "lower", "upper", "equation");
  for (size_t i = 0; i < store.eqns.size(); ++i) {
    const model::Equation& e = store.eqns[i];
    if (!active_only || e.active) t += EquationLine(static_cast<int>(i) + 1, e);
  }
  return t;
}

std::string VariableTable(const model::ModelStore& store, bool calculated_only) {
  std::string t = fmt::format("{:>8} {:<30} {:>24} {:>6}\n", "number", "name", "value", "spec");
  for (int n = 1; n <= store.nvar; ++n) {
    const model::Variable& v = store.Var(n);
    if (calculated_only && v.fixed) continue;
    t += fmt::format("{:>8} {:<30} {:>24.16g} {:>6}\n", n, v.name, v.val, v.fixed ? "fixed" : "calc");
  }
  return t;
}

std::string Aliases(const model::ModelStore& store) {
  std::string t = fmt::format("{:>8} {:<30} {:>24}  {}\n", "number", "name", "value", "aliases");
  for (int n = 1; n <= store.nvar; ++n) {
    const model::Variable& v = store.Var(n);
    std::string list;
    for (const std::string& a : v.aliases()) list += (list.empty() ? "" : ", ") + a;
    t += fmt::format("{:>8} {:<30} {:>24.16g}  {}\n", n, v.name, v.val, list);
  }
  return t;
}

std::string Details(const model::ModelStore& store) {
  std::string t = fmt::format("{:>8} {:<30} {:>5} {:>5} {:>5} {:>5} {:>5} {:>5}\n", "number",
                              "name", "type", "diff", "idiff", "fixed", "int", "obj");
  for (int n = 1; n <= store.nvar; ++n) {
    const model::Variable& v = store.Var(n);
    t += fmt::format("{:>8} {:<30} {:>5} {:>5} {:>5} {:>5} {:>5} {:>5}\n", n, v.name, v.vtype,
                     v.diff ? "D" : "-", v.idiff, v.fixed ? "F" : "-", v.integer ? "I" : "-",
                     v.obj_def ? "X" : "-");
  }
  t += fmt::format("\n{:>8} {:<20} {:>5} {:>6} {:>6} {:>4} {:>8}  {}\n", "index", "name", "type",
                   "active", "diff", "obj", "program", "columns");
  for (size_t i = 0; i < store.eqns.size(); ++i) {
    const model::Equation& e = store.eqns[i];
    std::string cols;
    for (int c : e.columns) cols += fmt::format("{} ", c);
    t += fmt::format("{:>8} {:<20} {:>5} {:>6} {:>6} {:>4} {:>8}  {}\n", i + 1, e.name, e.type,
                     e.active ? "yes" : "no", e.differential ? "D" : "-", e.obj_eqn ? "X" : "-",
                     e.program, cols);
  }
  return t;
}

std::string Objective(const model::ModelStore& store) {
  std::string t = "! objective variables\n";
  for (int n = 1; n <= store.nvar; ++n) {
    const model::Variable& v = store.Var(n);
    if (v.obj_def) t += fmt::format("{:>8} {:<30} {:>24.16g}\n", n, v.name, v.val);
  }
  t += "! objective rows\n";
  for (size_t i = 0; i < store.eqns.size(); ++i) {
    const model::Equation& e = store.eqns[i];
    if (e.obj_eqn) t += EquationLine(static_cast<int>(i) + 1, e);
  }
  return t;
}

std::string Bounds(const model::ModelStore& store) {
  std::string t = fmt::format("{:>8} {:<30} {:>24} {:>24} {:>24}\n", "number", "name", "lower",
                              "value", "upper");
  for (int n = 1; n <= store.nvar; ++n) {
    const model::Variable& v = store.Var(n);
    t += fmt::format("{:>8} {:<30} {:>24.16g} {:>24.16g} {:>24.16g}\n", n, v.name, v.lower, v.val,
                     v.upper);
  }
  return t;
}

std::string Pointers(const model::ModelStore& store) {
  std::string t = fmt::format("{:>8} {:<30} {:>8} {:>8} {:>8} {:>8}\n", "number", "name",
                              "value", "deriv", "node", "step");
  for (int n = 1; n <= store.nvar; ++n) {
    const model::Variable& v = store.Var(n);
    t += fmt::format("{:>8} {:<30} {:>8} {:>8} {:>8} {:>8}\n", n, v.name, v.number_v,
                     v.number_d, v.number_n, v.number_h);
  }
  return t;
}

}  // namespace

std::string_view DumpFileName(int imsg) {
  switch (imsg) {
    case 21: return "zpm_eqn.txt";
    case 22: return "zpm_eqn_calc.txt";
    case 23: return "zpm_eqn_var.txt";
    case 24: return "zpm_var.txt";
    case 25: return "zpm_var_details.txt";
    case 26: return "zpm_obj.txt";
    case 27: return "zpm_var_bounds.txt";
    case 28: return "zpm_horizon.txt";
    default: return "";
  }
}

bool WriteDump(int imsg, const std::string& path, const model::ModelStore& store) {
  std::string text;
  switch (imsg) {
    case 21: text = "! equations: residuals and bounds\n" + EquationTable(store, false); break;
    case 22:
      text = "! active equations and calculated variables\n" + EquationTable(store, true) +
             "\n" + VariableTable(store, true);
      break;
    case 23:
      text = "! equations and all variables\n" + EquationTable(store, false) + "\n" +
             VariableTable(store, false);
      break;
    case 24: text = "! variables and aliases\n" + Aliases(store); break;
    case 25: text = "! variables and equations: types and list numbers\n" + Details(store); break;
    case 26: text = Objective(store); break;
    case 27: text = "! variable constraints\n" + Bounds(store); break;
    case 28: text = "! node and horizon pointers\n" + Pointers(store); break;
    default: return false;
  }
  return WriteFileAtomically(path, text);
}

bool WriteInfeasibilities(const std::string& path, const model::ModelStore& store,
                          double tolerance, std::string_view preamble) {
  std::vector<int> order;
  for (size_t i = 0; i < store.eqns.size(); ++i)
    if (store.eqns[i].active && !store.eqns[i].obj_eqn) order.push_back(static_cast<int>(i));
  // Worst violation first; the listing of the satisfied rows follows in equation order.
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
    double va = store.eqns[a].Violation(), vb = store.eqns[b].Violation();
    bool ia = va > tolerance, ib = vb > tolerance;
    if (ia != ib) return ia;
    return ia && va > vb;
  });
  int violated = 0;
  for (int i : order) violated += store.eqns[i].Violation() > tolerance;
  std::string text(preamble);
  text += fmt::format(
      "! infeasibilities: {} of {} equations outside their bounds by more than {:g}\n", violated,
      order.size(), tolerance);
  text += fmt::format("{:>8} {:<20} {:>24} {:>24} {:>24} {:>10}  {}\n", "index", "name",
                      "residual", "lower", "upper", "status", "equation");
  for (int i : order) {
    const model::Equation& e = store.eqns[i];
    text += fmt::format("{:>8} {:<20} {:>24.16g} {:>24.16g} {:>24.16g} {:>10}  {}\n", i + 1,
                        e.name, e.residual, e.lower, e.upper,
                        e.Violation() > tolerance ? "VIOLATED" : "ok", e.Text());
  }
  return WriteFileAtomically(path, text);
}

}  // namespace kx::files
