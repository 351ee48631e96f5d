#include "objects/objects_doc.h"

#include <fmt/format.h>

#include "objects/object_table.h"
#include "objects/thermo_objects.h"

namespace kx::objects {
namespace {

constexpr const char* kIntro = R"(# Objects

Generated from the object tables of `src/objects/*_objects.cc`; do not edit by hand (the test
`ObjectsDoc.CommittedPageMatchesTheTables` fails when this page drifts; rerun it with
`KX_UPDATE_DOCS=1` to regenerate).

An object is declared in the Objects section of the model file:

```
Objects
  f = lag(tau=2, k=3)          ! keyword arguments set parameters or name arguments
  s = cspline(knots.csv)       ! positional arguments fill the arguments in order
  p[1:3] = pid(kc=2)           ! a vector of objects: p[1], p[2], p[3]
End Objects
```

Each object adds members to the model, named `name.member` (`f.y`, `s.x`, `p[2].op`, vector
members `t.y[2]`). Members are ordinary parameters, variables, intermediates and equations:
use them in equations (`f.u = valve`), in the Connections section (`f.u = u`, `f.tau = 4`,
`f.y = calculated`), in `APP.info` (`MV, p[1].sp`), the DBS files and the results. Parameters
are fixed unless classified FV or MV; variables are free. When the Connections section joins
a member with one of your own variables (`lc.pv = level`), your variable survives: its value,
bounds and name are kept and the member becomes another name of it.

Data files named by arguments are read from the working directory (an embedded `File` block
of the model works): one row a line, numbers separated by commas, semicolons or blanks, lines
starting with `!`, `#` or `%` skipped, a first line that is not all numbers taken as a header.

In the equations below member names are written bare (`y` is `name.y`); `$y` is the time
derivative; `{...}` are filled in from the arguments and data: `{n}` a size, `{i}` the row of
an equation written once per row ("for i = 1..n"), `{a*x}` row i of matrix `a` times vector `x`,
`{b[i]}` element i of `b`, other names texts built from the data as the summary says.
Equations marked "integer" / "not integer" are written only in that form (`integer=1` gives
the big-M form with an integer switch for the branch-and-bound solver; the default is the
smooth complementarity form, for every solver). A member named `int...` is an integer
variable.

Objects are expanded into ordinary statements before the model is counted: the size report
counts the objects ("Objects") and, under the other labels, their members and equations with
the rest. At `DIAGLEVEL` 4 and above every generated statement is echoed
(`  object statement: ...`). A declaration the library cannot use stops the run with
"Problem with object input:" and a line naming the object, its type and its line: an unknown
argument, too many positional arguments, a missing or non-numeric file, knots that do not
increase, matrices whose sizes do not fit.

Runnable examples: `examples/objects_pid` (a PI level loop on a tank, control objects) and
`examples/objects_math` (a pump operating point with a spline, a lookup table and `abs`).
)";

const char* KindName(MemberKind k) {
  switch (k) {
    case MemberKind::kParameter:
      return "parameter";
    case MemberKind::kVariable:
      return "variable";
    case MemberKind::kIntermediate:
      return "intermediate";
  }
  return "";
}

const char* ArgKindName(ArgKind k) {
  switch (k) {
    case ArgKind::kNumber:
      return "number";
    case ArgKind::kInteger:
      return "integer";
    case ArgKind::kFile:
      return "file";
  }
  return "";
}

// A table cell: a '|' of the text would end the cell.
std::string Cell(const char* s) {
  std::string out;
  for (const char* p = s; *p != '\0'; ++p)
    out += *p == '|' ? std::string("\\|") : std::string(1, *p);
  return out;
}

std::string Condition(const char* when) {
  if (when[0] == '\0') return "";
  if (when[0] == '!') return std::string("not ") + (when + 1);
  return when;
}

std::string Code(const std::string& s) { return s.empty() ? "" : "`" + s + "`"; }

std::string ArgumentTable(const ObjectType& t) {
  if (t.arguments.empty()) return "Arguments: none besides the parameters.\n\n";
  std::string out = "| argument | kind | default | description |\n|---|---|---|---|\n";
  for (const ArgSpec& a : t.arguments) {
    const std::string def = a.fallback == nullptr   ? "required"
                            : a.fallback[0] == '\0' ? "none"
                                                    : Code(a.fallback);
    out += fmt::format("| `{}` | {} | {} | {} |\n", a.name, ArgKindName(a.kind), def,
                       Cell(a.description));
  }
  return out + "\n";
}

std::string MemberTable(const ObjectType& t) {
  std::string out =
      "| member | kind | size | default | lower | upper | units | description | only when |\n"
      "|---|---|---|---|---|---|---|---|---|\n";
  for (const MemberSpec& m : t.members) {
    out +=
        fmt::format("| `{}` | {} | {} | {} | {} | {} | {} | {} | {} |\n", m.name, KindName(m.kind),
                    Code(Cell(m.size)), Code(Cell(m.value)), Code(Cell(m.lower)),
                    Code(Cell(m.upper)), Cell(m.units), Cell(m.description), Condition(m.when));
  }
  return out + "\n";
}

std::string EquationList(const std::vector<EquationSpec>& eqs, const char* title) {
  if (eqs.empty()) return "";
  std::string out = std::string(title) + ":\n\n";
  for (const EquationSpec& e : eqs) {
    std::string note;
    if (e.over[0] != '\0') note += fmt::format(" (for i = 1..{})", e.over);
    if (e.when[0] != '\0') note += " (" + Condition(e.when) + ")";
    out += fmt::format("- `{}`{}\n", e.text, note);
  }
  return out + "\n";
}

std::string Section(const ObjectType& t) {
  std::string title;
  for (const char* k : t.keywords)
    title += (title.empty() ? "" : ", ") + std::string("`") + k + "`";
  return fmt::format("### {}\n\n{}.\n\n", title, t.summary) + ArgumentTable(t) + MemberTable(t) +
         EquationList(t.equations, "Equations") + EquationList(t.connections, "Connections");
}

}  // namespace

std::string RenderObjectsMarkdown() {
  std::string out = kIntro;
  std::string family;
  for (const ObjectType* t : ObjectTypes()) {
    if (family != t->family) {
      family = t->family;
      out += fmt::format("\n## {} objects\n\n", family);
      out += ThermoFamilyNotes(family);
    }
    out += Section(*t);
  }
  return out;
}

}  // namespace kx::objects
