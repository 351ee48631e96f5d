// The info file APP.info: one variable class declaration per line, "CLASS, name" with CLASS
// one of FV, MV, SV, CV in any case (a blank may stand for the comma). Blank lines and lines
// starting with !, # or % are skipped. FV and MV name parameters of the model, SV and CV
// variables.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "dbs/option_store.h"

namespace kx::files {

// One declaration of the info file.
struct InfoEntry {
  dbs::VarClass cls;
  std::string name;  // lower case
  int line;          // 1-based line in the file
};

// What the model knows about a name: 0 not in the model, 1 parameter, 2 variable. Given by
// the model stage; without a model the info file is not checked against it.
using ModelKindFn = std::function<int(std::string_view name)>;

// Parses info text; a line that is not a declaration stops the run naming the line.
std::vector<InfoEntry> ParseInfoText(std::string_view text, std::string_view file_label);

// Registers every entry in the store, in file order. With `model_kind`, a name that is not in
// the model or of the wrong kind for its class stops the run naming the line; a name declared
// again with another class stops it as well.
void RegisterInfoEntries(const std::vector<InfoEntry>& entries, std::string_view file_label,
                         dbs::OptionStore& store, const ModelKindFn& model_kind);

// Reads `path` (a missing file declares nothing) and registers its entries; returns the number
// of entries of each class, indexed by VarClass.
std::vector<int> ReadInfoFile(const std::string& path, dbs::OptionStore& store,
                              const ModelKindFn& model_kind);

}  // namespace kx::files
