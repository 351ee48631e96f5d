#include "dbs/options_doc.h"

#include <fmt/format.h>

#include "base/text.h"
#include "dbs/option_table.h"

namespace kx::dbs {
namespace {

std::string DefaultText(const OptionDef& d) {
  if (d.type == 'I') return fmt::format("{}", static_cast<long long>(d.default_value));
  return FormatReal(d.default_value);
}

std::string EscapeCell(std::string_view s) {
  std::string out;
  for (char c : s) {
    if (c == '|') out += '\\';
    out += c;
  }
  return out;
}

void AppendTable(std::string& out, std::span<const OptionDef> rows, std::string_view first) {
  out += fmt::format("| {} | Type | Default | Direction | Description |\n", first);
  out += "|---|---|---|---|---|\n";
  for (const OptionDef& d : rows)
    out += fmt::format("| `{}` | {} | {} | {} | {} |\n", d.name, d.type, DefaultText(d),
                       d.direction, EscapeCell(d.description));
}

}  // namespace

std::string RenderOptionsMarkdown() {
  std::string out;
  out += "# Options and variable properties\n\n";
  out +=
      "<!-- Generated from src/dbs/option_table.cc; tests/dbs/options_doc_test.cc fails when "
      "this page drifts. Regenerate with KX_UPDATE_DOCS=1 build-dir/tests/kx_dbs_tests. -->\n\n";
  out +=
      "Type: `I` integer (truncated toward zero when read), `D` real; every value is held as "
      "a double. Direction: 1 input (set by the user), 2 output (set by the engine), 3 both.\n"
      "Sentinels: -1.23456789e+20 unset lower bound, 1.23456789e+20 unset upper bound, "
      "1.23456789e-40 no value yet, 1e+20 unlimited.\n\n";
  out += "## Global options (`ZPM.KEY`, also `NLC.KEY`)\n\n";
  out += "In registration order, which is also the order of a written DBS file.\n\n";
  AppendTable(out, GlobalOptionTable(), "Key");
  out += "\n## Variable classes\n\n";
  out +=
      "Properties registered for each class, in order (`PRED[k]` and `DPRED[k]` hold one "
      "element per horizon step):\n\n";
  for (VarClass c : {VarClass::kFV, VarClass::kMV, VarClass::kSV, VarClass::kCV}) {
    std::string list;
    for (std::string_view p : ClassProperties(c))
      list += fmt::format("{}`{}{}`", list.empty() ? "" : ", ", p, p.back() == '[' ? "k]" : "");
    out += fmt::format("- `{}`: {}\n", ClassName(c), list);
  }
  out += "\n## Variable properties (`VARIABLE.PROPERTY`)\n\n";
  AppendTable(out, PropertyTable(), "Property");
  return out;
}

}  // namespace kx::dbs
