// kx_fuzz: a mutation runner for the readers of user files. Each reader gets a seed corpus
// (the repository's models, DBS, data and restart files, plus generated ones); every run
// mutates one seed (truncate, delete, insert, duplicate a line, replace bytes, splice numbers
// such as 1e999, nan or -0) and feeds the result to the reader. A run passes when the reader
// returns or stops with kx::Stop; any other exception, a crash, a sanitizer report or a run
// longer than the time limit fails, and the input is saved as crash-READER-N.txt in the
// current directory, to become a regression case.
//
// The DBS runs also check a property of the numeric gate: whatever the store holds after a
// read is written back (both DBS forms) as text that reads again without a warning.
//
// Usage: kx_fuzz READER|all [RUNS] [SEED]    READER: model, dbs, data, restart
// Built with -DKX_SANITIZE=ON it runs under the address and undefined-behaviour sanitizers
// (scripts/fuzz.sh). The test suite runs a short pass of every reader.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "base/file_writer.h"
#include "base/report.h"
#include "dbs/dbs_file.h"
#include "files/restart.h"
#include "horizon/data_file.h"
#include "model/builder.h"
#include "../testing/scratch_dir.h"

#ifdef __SANITIZE_ADDRESS__  // built with -DKX_SANITIZE=ON
#include <sanitizer/common_interface_defs.h>
#define KX_HAVE_SANITIZER_HOOKS 1
#endif

namespace kx::fuzz {
namespace {

constexpr unsigned kSecondsPerInput = 20;  // a run longer than this is a hang
constexpr size_t kMaxSeedBytes = 8000;     // larger seeds only slow the runs down
constexpr std::string_view kAlphabet = "[]:=<>()&$!*,+-^/.0123456789 \n\t\"xyzabcnEeDd";
// Texts spliced in whole: numbers at the edges of the gate and odd tokens.
const char* const kTokens[] = {"1e999", "-1e999", "inf", "nan", "-0", "1e-400", "2147483648",
                               "-2147483649", "1e21", "0x10", "1d308", "9e15", "[0]", "[99999999]",
                               "=", ",", "*", "!", "ZPM.", "NLC.", "p(1).n(2).", "ss."};

// The input of the run in progress, kept where a crash handler can write it out.
std::string current_input;
std::string current_name = "crash";

void SaveCurrentInput() {
  const std::string path = current_name + ".txt";
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return;
  std::fwrite(current_input.data(), 1, current_input.size(), f);
  std::fclose(f);
  std::fprintf(stderr, "kx_fuzz: input saved as %s\n", path.c_str());
}

void OnFatalSignal(int sig) {
  SaveCurrentInput();
  std::fprintf(stderr, "kx_fuzz: %s\n", sig == SIGALRM ? "hang (time limit)" : strsignal(sig));
  _exit(3);
}

void InstallHandlers() {
#ifdef KX_HAVE_SANITIZER_HOOKS
  __sanitizer_set_death_callback(SaveCurrentInput);
#endif
  for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM}) signal(sig, OnFatalSignal);
}

// Files of the repository with one of the extensions, small enough to mutate quickly.
std::vector<std::string> RepositoryFiles(std::initializer_list<const char*> extensions) {
  std::vector<std::string> out;
  for (const char* dir : {"/tests/models", "/examples"}) {
    const std::filesystem::path root = std::string(KX_SOURCE_DIR) + dir;
    if (!std::filesystem::exists(root)) continue;
    for (const auto& e : std::filesystem::recursive_directory_iterator(root)) {
      if (!e.is_regular_file() || std::filesystem::file_size(e.path()) > kMaxSeedBytes) continue;
      for (const char* ext : extensions)
        if (e.path().extension() == ext) out.push_back(kx::testing::ReadFile(e.path()));
    }
  }
  return out;
}

std::string Mutate(const std::string& seed, std::mt19937& rng) {
  std::string t = seed;
  auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n)(rng); };
  const int edits = 1 + static_cast<int>(pick(3));
  for (int k = 0; k < edits; ++k) {
    const size_t at = t.empty() ? 0 : pick(t.size() - 1);
    switch (pick(6)) {
      case 0: t.resize(at); break;
      case 1: if (!t.empty()) t.erase(at, 1 + pick(8)); break;
      case 2: t.insert(at, 1 + pick(3), kAlphabet[pick(kAlphabet.size() - 1)]); break;
      case 3: {  // duplicate the line holding `at`
        size_t bol = t.rfind('\n', at);
        bol = bol == std::string::npos ? 0 : bol + 1;
        size_t eol = t.find('\n', at);
        if (eol == std::string::npos) eol = t.size();
        if (bol <= eol) t.insert(bol, t.substr(bol, eol - bol) + "\n");
        break;
      }
      case 4: t.insert(at, kTokens[pick(std::size(kTokens) - 1)]); break;
      case 5: {  // replace a number-like run by a token
        size_t end = at;
        while (end < t.size() && std::strchr("0123456789.eE+-", t[end])) ++end;
        t.replace(at, end - at, kTokens[pick(std::size(kTokens) - 1)]);
        break;
      }
      default: if (!t.empty()) t[at] = kAlphabet[pick(kAlphabet.size() - 1)]; break;
    }
  }
  return t;
}

// One reader under test: its seeds and how one input is fed to it.
struct Reader {
  std::string name;
  std::vector<std::string> seeds;
  std::function<void(const std::string&)> run;
};

Reader ModelReader(const std::string& scratch) {
  Reader r{"model", RepositoryFiles({".zpm"}), nullptr};
  r.run = [scratch](const std::string& text) {
    model::BuildOptions o;
    o.work_dir = scratch;  // File blocks write here
    o.max_range = 1000;
    o.max_memory = 3;
    model::BuildModelFromText(text, o);
  };
  return r;
}

dbs::OptionStore FuzzStore() {
  dbs::OptionStore s;
  s.AddVariable("feed", dbs::VarClass::kFV);
  s.AddVariable("valve", dbs::VarClass::kMV);
  s.AddVariable("temp", dbs::VarClass::kSV);
  s.AddVariable("tank.level", dbs::VarClass::kCV);
  s.SetHorizon(3);
  return s;
}

// The gate's promise: what was read is written as text that reads back without a warning.
void CheckDbsRoundTrip(const dbs::OptionStore& s) {
  for (int form : {1, 2}) {
    const std::string text = dbs::FormatDbs(s, form, 1);
    dbs::OptionStore back = FuzzStore();
    if (dbs::ReadDbsText(text, "written.dbs", back).warnings != 0) {
      std::fprintf(stderr, "kx_fuzz: a written DBS file (form %d) does not read back:\n%s\n",
                   form, text.c_str());
      SaveCurrentInput();
      _exit(4);
    }
  }
}

Reader DbsReader() {
  Reader r{"dbs", RepositoryFiles({".dbs"}), nullptr};
  dbs::OptionStore busy = FuzzStore();
  busy.Set("valve", "DPRED[3]", 7.25);
  busy.Set("tank.level", "SPHI", 1e300);
  busy.SetGlobal("OTOL", 1.0 / 3.0);
  r.seeds.push_back(dbs::FormatDbs(busy, 1, 1));
  r.seeds.push_back(dbs::FormatDbs(busy, 2, 1));
  r.seeds.push_back("ZPM.IMODE = 6\nZPM.MAX_ITER 2147483647\nvalve.PRED[2] = 1d3\n# c\n! c\n");
  r.run = [](const std::string& text) {
    dbs::OptionStore s = FuzzStore();
    dbs::ReadDbsText(text, "fuzz.dbs", s);
    CheckDbsRoundTrip(s);
  };
  return r;
}

Reader DataReader() {
  Reader r{"data", RepositoryFiles({".csv"}), nullptr};
  r.seeds.push_back("time, u, \"Level\"\n0, 1, 2\n1, -, NaN\n2,,3.5e-3\n");
  r.seeds.push_back("u,x\n1,2\n3\n4,5,6\n");
  r.run = [](const std::string& text) { horizon::ParseDataFile(text, "fuzz.csv"); };
  return r;
}

Reader RestartReader(const std::string& scratch) {
  static const char* kModel =
      "Model m\n  Parameters\n    p = 1\n  End Parameters\n  Variables\n    a = 1\n    b = 2\n"
      "    c = 0\n  End Variables\n  Connections\n    b = c\n  End Connections\n"
      "  Equations\n    a + b = p\n  End Equations\nEnd Model\n";
  model::ModelStore base;
  {
    OutputCapture quiet;
    model::BuildOptions o;
    o.work_dir = scratch;
    base = model::BuildModelFromText(kModel, o);
  }
  Reader r{"restart", RepositoryFiles({".t0"}), nullptr};
  const std::string seed_path = scratch + "/seed.t0";
  files::WriteRestart(seed_path, base, false);
  r.seeds.push_back(kx::testing::ReadFile(seed_path));
  r.seeds.push_back("! dynamic\np(1).n(1).a = 1 *\np(1).n(2).a = 2\np(2).n(2).b = 3 *\nss.c = 4\n");
  const std::string path = scratch + "/fuzz.t0";
  auto run_count = std::make_shared<long>(0);
  r.run = [base, path, run_count](const std::string& text) {
    static const files::RestartRead kHows[] = {
        files::RestartRead::kByName,      files::RestartRead::kByRoot,
        files::RestartRead::kByPosition,  files::RestartRead::kSpecsOnly,
        files::RestartRead::kByRootWithSpecs, files::RestartRead::kSmart,
        files::RestartRead::kCalculatedOnly};
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    model::ModelStore s = base;
    files::ReadRestart(path, kHows[(*run_count)++ % std::size(kHows)], s);
  };
  return r;
}

// Runs `runs` mutated inputs through one reader; returns the number of failures (0 or 1:
// the first failure stops the reader, its input saved).
int FuzzReader(const Reader& r, long runs, unsigned seed) {
  if (r.seeds.empty()) {
    std::fprintf(stderr, "kx_fuzz: no seeds for %s\n", r.name.c_str());
    return 1;
  }
  std::mt19937 rng(seed);
  long returned = 0, stopped = 0;
  for (long i = 0; i < runs; ++i) {
    const std::string& seed_text = r.seeds[i % r.seeds.size()];
    current_input = i < static_cast<long>(r.seeds.size()) ? seed_text : Mutate(seed_text, rng);
    current_name = "crash-" + r.name + "-" + std::to_string(i);
    alarm(kSecondsPerInput);
    try {
      OutputCapture quiet;
      r.run(current_input);
      ++returned;
    } catch (const Stop&) {
      ++stopped;
    } catch (const std::exception& e) {
      alarm(0);
      std::fprintf(stderr, "kx_fuzz: %s run %ld: unexpected exception: %s\n", r.name.c_str(), i,
                   e.what());
      SaveCurrentInput();
      return 1;
    }
    alarm(0);
  }
  std::printf("%-8s %8ld inputs from %3zu seeds: %8ld read, %8ld stopped with a message\n",
              r.name.c_str(), runs, r.seeds.size(), returned, stopped);
  return 0;
}

}  // namespace
}  // namespace kx::fuzz

int main(int argc, char** argv) {
  using namespace kx::fuzz;
  if (argc < 2) {
    std::fprintf(stderr, "usage: kx_fuzz model|dbs|data|restart|all [RUNS] [SEED]\n");
    return 2;
  }
  const std::string which = argv[1];
  const long runs = argc > 2 ? std::atol(argv[2]) : 10000;
  const unsigned seed = argc > 3 ? static_cast<unsigned>(std::atol(argv[3])) : 20261123u;
  InstallHandlers();
  const kx::testing::ScratchDir scratch("kx_fuzz");
  std::vector<Reader> readers;
  if (which == "model" || which == "all") readers.push_back(ModelReader(scratch.str()));
  if (which == "dbs" || which == "all") readers.push_back(DbsReader());
  if (which == "data" || which == "all") readers.push_back(DataReader());
  if (which == "restart" || which == "all") readers.push_back(RestartReader(scratch.str()));
  if (readers.empty()) {
    std::fprintf(stderr, "kx_fuzz: unknown reader %s\n", which.c_str());
    return 2;
  }
  int failures = 0;
  for (const Reader& r : readers) failures += FuzzReader(r, runs, seed);
  return failures == 0 ? 0 : 1;
}
