// model/eval_plan: the solvers' fast evaluation path for the unscaled problem. Built from the
// records (through the layout) on first use and kept until the structure changes:
//   - the point lives in one plain array indexed by model column (1..nvar values, nvar+n the
//     time derivative of variable n), written from the solver's x and read by every row;
//   - rows that share a program form a group; a group's copies read their inputs through one
//     compact table of 32-bit indices, and a value call runs each instruction over a block of
//     copies at once (lang::Program::RunBlock);
//   - a function that rows apply directly to a variable (sin(t[i]) in rows over shifted
//     slices of t) is computed once per column and point in a table that the rows read;
//   - a gradient, Jacobian or Hessian call runs only the instructions its outputs need
//     (lang::Program::Needed);
//   - results go straight into the solver's arrays: residuals by row, Jacobian and Hessian
//     values through 32-bit positions in the cached patterns, gradient entries by column.
// The records stay the store of record: nothing here writes them. model::Nlp writes the point
// and the multipliers back when a solve ends.
//
// A plan is valid while every row keeps the program it was planned with (Matches); an edited
// store needs ModelAccess::Invalidate(), as the patterns do.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "lang/program.h"
#include "model/hessian.h"
#include "model/jacobian.h"
#include "model/records.h"
#include "model/sparsity.h"

namespace kx::model {

class EvalPlan {
 public:
  // Plans the active rows of `layout` for `shape` (kSteady or kReduced).
  EvalPlan(const ModelStore& store, const EquationLayout& layout, Shape shape);

  // True while the store's rows still have the programs the plan was built with.
  bool Matches(const ModelStore& store) const;

  // Copies every value and time derivative from the records (the point before a solve), and
  // which objective variables are free.
  void LoadValues(const ModelStore& store);
  // The solver's point: x[0..nvar) values, then (kReduced) the derivatives in idiff order.
  void SetPoint(std::span<const double> x);
  // True when x is the point the plan holds (the tables and values stay valid).
  bool HoldsPoint(std::span<const double> x) const;

  // Objective: free obj_def variables plus the objective rows.
  double Objective(lang::DomainErrors* errs);
  // Dense gradient of the objective over the x columns (the rest of g is left alone).
  void Gradient(std::span<double> g, lang::DomainErrors* errs);
  // Constraint residuals in row order.
  void Residuals(std::span<double> c, lang::DomainErrors* errs);
  // Jacobian values in the order of `pattern` (the pattern of this plan's shape).
  void Jacobian(const EquationLayout& layout, const JacobianPattern& pattern,
                std::span<double> values, lang::DomainErrors* errs);
  // Lower-triangle Hessian of the Lagrangian in the order of `pattern`; rows whose weight is
  // zero are not evaluated.
  void Hessian(const HessianPattern& pattern, double obj_factor, std::span<const double> lambda,
               std::span<double> values, lang::DomainErrors* errs);

 private:
  // Rows of one program, members [first, first + count) of the member arrays.
  struct Group {
    const lang::Program* program;
    int32_t index;        // its index in ModelStore::programs
    int32_t first;        // first member
    int32_t count;        // members
    int32_t inputs;       // inputs of the program
    int32_t pairs;        // Hessian pairs of the program
    int32_t stride;       // lanes of one block (work area rows)
    int64_t cols;         // offset of the first member's inputs in cols_
    int64_t pair_at;      // offset of the first member's pair positions in hess_at_
    int32_t tabled;       // first of its tabled instructions in tabled_
    int32_t num_tabled;   // tabled instructions
    int32_t need[2];      // first of the instructions its gradient (0) and Hessian (1) need
    int32_t num_need[2];  // in needed_
  };
  using Part = lang::Program::Part;

  void AddGroups(const ModelStore& store, const EquationLayout& layout,
                 const std::vector<int>& eqns, bool objective);
  void PlanTables();
  // Brings the tables that g's code up to the end of `part` reads to the current point.
  void FreshTables(const Group& g, Part part);
  void PlanJacobian(const EquationLayout& layout, const JacobianPattern& pattern);
  // Ready for Hessian calls with `pattern` (builds the pair positions once).
  void PlanHessian(const HessianPattern& pattern);
  // Runs `part` of g's program for the members listed in `members` (at most g.stride).
  void Run(const Group& g, Part part, const int32_t* members, int lanes,
           lang::DomainErrors* errs);
  template <typename Body>
  void ForEachBlock(const std::vector<Group>& groups, Part part, lang::DomainErrors* errs,
                    Body body);
  void AddPairs(const Group& g, int lanes, std::span<double> values);
  const double* Slot(const Group& g, int32_t slot) const { return work_.data() + slot * g.stride; }

  Shape shape_;
  int nvar_ = 0;
  std::vector<int> diff_var_;              // variable number of each idiff (index 0 unused)
  std::vector<int> objective_all_;         // obj_def variables
  std::vector<int> objective_vars_;        // those free at the last LoadValues
  const lang::Program* programs_ = nullptr;  // store.programs.data() at build
  std::vector<double> values_;             // the point by model column, as far as the rows
                                           // read (2*nvar+1 in the reduced shape)
  std::vector<Group> rows_;                // groups of constraint rows
  std::vector<Group> objective_;           // groups of objective rows
  std::vector<int32_t> eqn_;               // equation of each member
  std::vector<int32_t> row_;               // constraint row (0-based) of each member; -1 obj
  std::vector<int32_t> cols_;              // model column of each member input
  std::vector<int32_t> jac_at_;            // Jacobian position of each member input, -1 none
  bool jac_duplicates_ = false;            // some row reads one column twice
  std::vector<int32_t> hess_at_;           // Hessian position per member pair (see hessian.h)
  bool jac_planned_ = false, hess_planned_ = false;
  std::vector<lang::Program::Tabled> tabled_;  // tabled instructions, group by group
  std::vector<int32_t> needed_;            // the instructions each group's derivatives need
  std::vector<lang::Op> tabled_op_;        // the function of each tabled instruction
  std::vector<std::vector<double>> tables_;      // by opcode: function value by column
  std::vector<std::vector<int32_t>> table_cols_; // by opcode: the columns its table needs
  std::vector<char> fresh_;                // by opcode: table computed at the current point
  std::vector<int32_t> members_;           // lane list of one block
  std::vector<const int32_t*> lane_cols_;  // input table of each lane
  std::vector<double> weight_;             // Hessian weight of each lane
  std::vector<double> work_;               // block work area
  const Group* filled_ = nullptr;          // the group whose constants work_ holds (this call)
};

}  // namespace kx::model
