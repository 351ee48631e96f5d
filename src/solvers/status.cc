#include "solvers/status.h"

#include <array>

namespace kx::solvers {
namespace {

struct StatusRow {
  Status code;
  std::string_view word;     // in the solvers' own listings
  std::string_view outcome;  // printed after a solve
};

// One row per code, 0 down to -13.
constexpr std::array<StatusRow, 14> kTexts = {{
    {kSuccess, "SUCCESS", "Successful solution"},
    {kNoFeasibleSolution, "NOFEASLN", "No feasible solution"},
    {kUnbounded, "UNBNDSOL", "Unbounded solution"},
    {kInvalidBounds, "INVBOUND", "Inv Bound"},
    {kBadInputs, "BADINPUT", "Bad inputs"},
    {kUserAbort, "USERABORT", "User aborted"},
    {kWorkspace1, "INSWRKSPCN", "Insufficient workspace (1)"},
    {kWorkspace2, "INSWRKSPCS", "Insufficient workspace (2)"},
    {kWorkspace3, "INSWRKSPCF", "Insufficient workspace (3)"},
    {kMaxIterations, "MAXITER", "Maximum iterations"},
    {kBadDerivatives, "BADDERIV1", "Bad derivatives"},
    {kAccuracyUnachievable, "MAXACCY", "Requested accuracy unachievable"},
    {kExternalAbort, "EXTRNABORT", "Externally aborted"},
    {kSystemError, "SYSTEMERR", "System error"},
}};

constexpr bool RowsFollowTheCodes() {
  for (size_t i = 0; i < kTexts.size(); ++i) {
    if (kTexts[i].code != -static_cast<int>(i)) return false;
  }
  return true;
}
static_assert(RowsFollowTheCodes(), "row i of the status table holds code -i");

bool Known(int code) { return code <= 0 && code > -static_cast<int>(kTexts.size()); }

}  // namespace

std::string_view StatusWord(int code) { return Known(code) ? kTexts[-code].word : ""; }

std::string_view OutcomeText(int code) {
  return Known(code) ? kTexts[-code].outcome : "Unsuccessful";
}

}  // namespace kx::solvers
