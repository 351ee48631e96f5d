// model/diagnostics: text files a newcomer can read, written at diagnostic levels that ask for
// files: the byte code of every equation with its column map ("model_bytecode.txt") and the
// problem a solver would see, sizes and Jacobian/Hessian patterns with names
// ("model_sparsity.txt").
#pragma once

#include <string>

#include "model/access.h"

namespace kx::model {

// One block per equation: name, text, columns (number and name) and the program listing.
void WriteByteCodeListing(const ModelStore& store, const std::string& path);

// NLP sizes, then the steady-state Jacobian and Hessian patterns, one non-zero a line.
void WriteSparsityListing(ModelAccess& access, const std::string& path);

}  // namespace kx::model
