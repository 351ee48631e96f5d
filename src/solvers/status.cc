#include "solvers/status.h"

#include <array>

namespace kx::solvers {
namespace {

struct StatusText {
  std::string_view word;
  std::string_view outcome;
};

// Indexed by -code.
constexpr std::array<StatusText, 14> kTexts = {{
    {"SUCCESS", "Successful solution"},
    {"NOFEASLN", "No feasible solution"},
    {"UNBNDSOL", "Unbounded solution"},
    {"INVBOUND", "Inv Bound"},
    {"BADINPUT", "Bad inputs"},
    {"USERABORT", "User aborted"},
    {"INSWRKSPCN", "Insufficient workspace (1)"},
    {"INSWRKSPCS", "Insufficient workspace (2)"},
    {"INSWRKSPCF", "Insufficient workspace (3)"},
    {"MAXITER", "Maximum iterations"},
    {"BADDERIV1", "Bad derivatives"},
    {"MAXACCY", "Requested accuracy unachievable"},
    {"EXTRNABORT", "Externally aborted"},
    {"SYSTEMERR", "System error"},
}};

bool Known(int code) { return code <= 0 && code > -static_cast<int>(kTexts.size()); }

}  // namespace

std::string_view StatusWord(int code) { return Known(code) ? kTexts[-code].word : ""; }

std::string_view OutcomeText(int code) {
  return Known(code) ? kTexts[-code].outcome : "Unsuccessful";
}

}  // namespace kx::solvers
