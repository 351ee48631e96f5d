// objects/expander: turns the declarations of the Objects section into ordinary model
// statements (parameters, variables, intermediates, equations, connections), so that objects
// are compiled, replicated over the horizon, read and written like the user's own model.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "lang/model_file.h"
#include "objects/object_table.h"

namespace kx::objects {

struct ExpandOptions {
  std::string work_dir = ".";  // folder of the data files the declarations name
  int diaglevel = 0;           // >= 4 echoes every generated statement
  std::vector<std::string>* files_read = nullptr;  // out, when set: path of each data file read
};

// The statements one object expands to, by section.
struct ObjectStatements {
  std::vector<lang::Statement> parameters, variables, intermediates, equations, connections;
};

// Expands every declaration of the reader's Objects section (call between
// InitializeConstants and DetermineSize). Vector declarations `p[1:3] = lag` give one object
// per element. The Objects section is replaced by one statement per object; members are
// declared after the user's parameters and variables, object intermediates before the user's
// intermediates (they read only object members), equations and connections after the user's.
// Stops the run with a message naming the line on any bad declaration.
void ExpandObjects(lang::ModelFileReader* reader, const ExpandOptions& options);

// Builds the instance of one declaration: arguments parsed and checked, files read, sizes and
// texts prepared. `evaluate` turns a constant expression into a number.
ObjectInstance MakeInstance(const lang::ObjectDeclText& decl, const ObjectType& type,
                            const std::vector<std::string>& compounds,
                            const std::function<double(std::string_view)>& evaluate,
                            const std::string& work_dir);

// Writes the statements of one prepared instance.
ObjectStatements WriteStatements(const ObjectInstance& o, const ObjectType& type);

// Replaces the placeholders of one template text (row `row`, 0 when none) and qualifies the
// member names. Exposed for the tests and the docs.
std::string InstantiateText(const std::string& text, const ObjectInstance& o,
                            const ObjectType& type, int row);

}  // namespace kx::objects
