#include "files/info_file.h"

#include <fmt/format.h>

#include "base/report.h"
#include "base/text.h"
#include "base/file_writer.h"

namespace kx::files {
namespace {

[[noreturn]] void StopAtLine(std::string_view file, int line, std::string_view problem,
                             std::string_view text) {
  Fatal({fmt::format("Error in {} at line {}: {}", file, line, problem),
         fmt::format("  line: {}", text)});
}

// declaration -> class (',' | blanks) name
InfoEntry ParseDeclaration(std::string_view line, std::string_view file, int line_number) {
  size_t sep = line.find_first_of(", \t");
  if (sep == std::string_view::npos) StopAtLine(file, line_number, "expected CLASS, name", line);
  auto cls = dbs::ParseClass(line.substr(0, sep));
  if (!cls) StopAtLine(file, line_number, "class must be FV, MV, SV or CV", line);
  std::string_view rest = Trim(line.substr(sep));
  if (!rest.empty() && rest[0] == ',') rest = Trim(rest.substr(1));
  if (rest.empty() || rest.find_first_of(", \t") != std::string_view::npos)
    StopAtLine(file, line_number, "expected one variable name after the class", line);
  return InfoEntry{*cls, ToLower(rest), line_number};
}

const char* ExpectedKind(dbs::VarClass cls) {
  return cls == dbs::VarClass::kFV || cls == dbs::VarClass::kMV ? "a parameter" : "a variable";
}

}  // namespace

std::vector<InfoEntry> ParseInfoText(std::string_view text, std::string_view file_label) {
  std::vector<InfoEntry> entries;
  int line_number = 0;
  for (const std::string& raw : Split(text, '\n')) {
    ++line_number;
    std::string_view line = Trim(raw);
    if (line.empty() || line[0] == '!' || line[0] == '#' || line[0] == '%') continue;
    entries.push_back(ParseDeclaration(line, file_label, line_number));
  }
  return entries;
}

void RegisterInfoEntries(const std::vector<InfoEntry>& entries, std::string_view file_label,
                         dbs::OptionStore& store, const ModelKindFn& model_kind) {
  for (const InfoEntry& e : entries) {
    std::string decl = fmt::format("{}, {}", dbs::ClassName(e.cls), e.name);
    if (model_kind) {
      int kind = model_kind(e.name);
      bool wants_parameter = e.cls == dbs::VarClass::kFV || e.cls == dbs::VarClass::kMV;
      if (kind == 0) StopAtLine(file_label, e.line, e.name + " is not in the model", decl);
      if ((kind == 1) != wants_parameter)
        StopAtLine(file_label, e.line,
                   fmt::format("{} must be {} for class {}", e.name, ExpectedKind(e.cls),
                               dbs::ClassName(e.cls)),
                   decl);
    }
    if (!store.AddVariable(e.name, e.cls))
      StopAtLine(file_label, e.line, e.name + " is already declared with another class", decl);
  }
}

std::vector<int> ReadInfoFile(const std::string& path, dbs::OptionStore& store,
                              const ModelKindFn& model_kind) {
  std::vector<int> counts(4, 0);
  std::string text;
  if (!ReadWholeFile(path, &text)) return counts;
  std::vector<InfoEntry> entries = ParseInfoText(text, path);
  RegisterInfoEntries(entries, path, store, model_kind);
  for (const InfoEntry& e : entries) ++counts[static_cast<int>(e.cls)];
  return counts;
}

}  // namespace kx::files
