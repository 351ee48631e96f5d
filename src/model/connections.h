// model/connections: the Connections section applied to the variable records. A connection
// `a = b` merges two variables into one (the absorbed record forwards to the survivor, whose
// alias list gains the absorbed names); `a = fixed`, `a = calculated` and `a = 2.5` set a
// fixed or calculated mark, or a value, instead. Every connection is listed in "model_connections.txt".
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "lang/model_file.h"
#include "model/records.h"

namespace kx::model {

// The record index of a parameter or variable name, -1 for none.
using RecordOfName = std::function<int(const std::string& name)>;

// Longest alias-list walk allowed during a merge.
inline constexpr int kMaxAliasSteps = 99999;

struct ConnectionOptions {
  int diaglevel = 0;
  std::string work_dir = ".";  // where "model_connections.txt" and "connect_error.t0" go
};

// Merges the variable records a and b (record indices; forwarding is followed first) and
// returns the surviving record. A record merged with itself is left as it is.
int MergeVariables(ModelStore* store, int a, int b);

// Applies the connections in file order, stores them in the model store and writes
// "model_connections.txt". A name that is not a variable writes "connect_error.t0" and stops.
void ApplyConnections(const std::vector<lang::ConnectionDecl>& connections,
                      const RecordOfName& record_of, const ConnectionOptions& options,
                      ModelStore* store);

}  // namespace kx::model
