#include "files/files_help.h"

#include "base/report.h"

namespace kx::files {
namespace {

// Continuation lines carry the code of the line they continue.
constexpr HelpLine kHelp[] = {
    {0, "SUBROUTINE: zpm_files (imsg,filename)"},
    {0, "   imsg     = integer request code (below)"},
    {0, "   filename = file name, up to 100 characters (optional for imsg=0)"},
    {0, "*** restart files ***"},
    {1, "1 = READ restart file"},
    {1, "lines are acceptable.  No specs are read."},
    {2, "2 = WRITE restart file"},
    {3, "3 = WRITE restart file of calculated variables only"},
    {4, " 4 = READ a restart file from a different problem type solution"},
    {4,
     "This option removes suffixes (e.g. \"p(1).n(1).\" and \"ss.\") and compares the ... "
     "variable root names."},
    {5, " 5 = READ a restart file from the same type problem solution and same variable order"},
    {5, "Use this option for long restart files (e.g. dynamic simulations) or when"},
    {5, "variable order is expected to be constant.  Also reads specs."},
    {6, "6 = READ variable specifications * = Calc, Otherwise Fixed"},
    {7, "7 = Option 4 but also reads in specification indicators (*)"},
    {8, "8 = Smart version of option 7 to save read time."},
    {11, " 11 = Read calculated variables only for warmstart from warm.t0."},
    {12, " 12 = Read lagrange multipliers only for warmstart from lam.t0."},
    {13, "13 = READ binary restart file (not supported)"},
    {14, "14 = WRITE binary restart file (not supported)"},
    {0, "*** model equations and variables ***"},
    {21, "21 = WRITE equation names, residuals, and bounds"},
    {22, " 22 = WRITE equation names and calculated variables (active states only)"},
    {23, "23 = WRITE equation names and all variables"},
    {24, "24 = WRITE variables and variable aliases (all variables)"},
    {25,
     " 25 = WRITE variables, aliases, type, differential type, and list numbers, etc (all "
     "equations and variables)"},
    {26, "26 = WRITE objective function variables"},
    {27, "27 = WRITE variable constraints"},
    {28, "28 = WRITE node and horizon pointer information"},
    {0, "*** model definition files and reports ***"},
    {31, "31 = READ model definitions from an info file"},
    {32, " 32 = WRITE zpm definition file, model definition file (mdf), and info file for steady"},
    {32, "state or dynamic simulations"},
    {33, "33 = WRITE model equation report in Latex"},
    {34, "34 = WRITE sparsity.unt (dummy file)"},
    {35, "35 = READ number of each variable from an info file"},
    {0, "*** plot and history files ***"},
    {41, "41 = WRITE plot files - raw variable dump (4 files)"},
    {42, "42 = WRITE plot files - ALL variables at node locations"},
    {43, "43 = WRITE plot files - DBS variables at node locations"},
    {0, "*** dbs files ***"},
    {51, "51 = READ dbs file"},
    {52, "52 = WRITE dbs file on good solution"},
    {53, "53 = WRITE dbs file on bad solution"},
    {55, "55 = READ dbs file header and initialize"},
    {0, "*** json files ***"},
    {56, "56 = WRITE json file"},
    {57, "57 = TODO: READ json file"},
    {58, "58 = TODO: READ json file header and initialize"},
    {0, "*** initial condition transfer file export ***"},
    {0, "(6*) where *=imode"},
    {65, "65 = WRITE transfer file from estimation problem"},
    {66, "66 = WRITE initial condition file ic.t0 (after dynamic sim, est and ctl solutions)"},
    {0, "*** initial condition transfer file import ***"},
    {0, "(7*) where *=imode"},
    {76, "76 = READ transfer file into control problem"},
    {0, "*** measurements and derivatives ***"},
    {81, "81 = WRITE a measurement file"},
    {82, "82 = READ a measurement file "},
    {83, "83 = WRITE model derivatives"},
    {84, "84 = READ model derivatives"},
    {0, "*** web reports ***"},
    {91, "91 = WRITE a web solution file and FV,MV,SV,CV tables"},
    {92, "92 = WRITE xml plot files for defined variables"},
    {93, "93 = WRITE xml plot files for custom trends"},
};

}  // namespace

std::span<const HelpLine> FileRoutineHelp() { return kHelp; }

std::string_view RequestText(int code) {
  if (code <= 0) return "";
  for (const HelpLine& h : kHelp)
    if (h.code == code) return h.text;
  return "";
}

void PrintFileRoutineHelp() {
  for (const HelpLine& h : kHelp) Say(h.text);
}

}  // namespace kx::files
