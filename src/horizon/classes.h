// horizon/classes: the rules of the variable classes of APP.info (FV, MV, SV, CV), written
// once for every mode. Each classified variable is resolved to its model record and given a
// role from its class, its DBS settings and the mode:
//
//   class  simulation (1, 4, 7)   estimation (2, 5, 8)              optimisation/control (3, 6, 9)
//   FV     fixed                  shared and free when STATUS = 1    the same
//   MV     fixed                  free per step (set) when STATUS=1  free per step when STATUS = 1
//                                                                    (control: and CTRLMODE = 3)
//   SV     reported               reported                           reported
//   CV     reported               measured when FSTATUS > 0          set-point rows when STATUS=1
//
// PSTATUS = 0 (bad instrument) makes a variable act as STATUS = 0 and ignores its MEAS. A set
// LOWER/UPPER is a hard bound of any class. An FV or MV with a MEAS starts the cycle at
// FSTATUS*MEAS + (1-FSTATUS)*value.
#pragma once

#include <string>
#include <vector>

#include "dbs/option_store.h"
#include "model/records.h"

namespace kx::horizon {

enum class Role {
  kFixed,    // held at its value
  kShared,   // FV: one free value for the whole horizon (every data set)
  kPerStep,  // MV: a free value per step (per data set)
  kReported, // SV or CV whose value is only reported
  kMeasured, // CV whose measurements enter the estimation rows
  kControlled,  // CV with set-point rows
};

struct ClassedVariable {
  std::string name;          // as in APP.info (lower case)
  dbs::VarClass cls = dbs::VarClass::kSV;
  int number = 0;            // base-model variable number, merges followed
  Role role = Role::kFixed;
  bool good = true;          // PSTATUS != 0
  int status = 0;            // STATUS
  double lower = kUnsetLower;  // LOWER (sentinel when not set)
  double upper = kUnsetUpper;  // UPPER (sentinel when not set)
  double meas = kNoValue;    // MEAS of a good instrument, else kNoValue
  double fstatus = 1.0;      // FSTATUS
  double last = kNoValue;    // NEWVAL of an FV or MV: the value implemented last cycle

  bool IsInput() const { return cls == dbs::VarClass::kFV || cls == dbs::VarClass::kMV; }
  bool IsFree() const { return role == Role::kShared || role == Role::kPerStep; }
  // The starting value after a MEAS of an FV or MV: FSTATUS*MEAS + (1-FSTATUS)*value.
  double Filtered(double value) const {
    return IsInput() && meas != kNoValue ? fstatus * meas + (1.0 - fstatus) * value : value;
  }
  // The value an input holds now: its MEAS (filtered) over its last NEWVAL, else `declared`.
  double Current(double declared) const { return Filtered(last != kNoValue ? last : declared); }
};

// The classified variables that name a model variable, in APP.info order. `ctrlmode` only
// matters in the control modes (an MV is free only when it is 3).
std::vector<ClassedVariable> ClassifyVariables(const dbs::OptionStore& options,
                                               const model::ModelStore& base, int imode,
                                               int ctrlmode);

// The mode families.
inline bool IsEstimationMode(int imode) { return imode == 2 || imode == 5 || imode == 8; }
inline bool IsControlMode(int imode) { return imode == 3 || imode == 6 || imode == 9; }

// Applies the bounds, the MEAS rule and the fixed/free role to one record.
void ApplyRole(const ClassedVariable& c, model::Variable& v);

}  // namespace kx::horizon
