#include "testing/nlp_suite.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "base/report.h"
#include "base/text.h"
#include "model/builder.h"

namespace kx::testing {
namespace {

std::unique_ptr<LoadedModel> Wrap(model::ModelStore store, std::string name) {
  auto m = std::make_unique<LoadedModel>();
  m->store = std::move(store);
  m->access = std::make_unique<model::ModelAccess>(m->store);
  m->problem = std::make_unique<solvers::ModelProblem>(*m->access, false, std::move(name));
  return m;
}

// Reads the "! key: value" header lines at the top of a suite file.
SuiteEntry ReadEntry(const std::filesystem::path& path) {
  SuiteEntry e{.name = path.stem().string(), .path = path.string()};
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::string t(Trim(line));
    if (t.empty()) continue;
    if (t[0] != '!') break;
    t = std::string(Trim(std::string_view(t).substr(1)));
    if (StartsWith(t, "optimum:")) e.optimum = std::stod(t.substr(8));
    if (StartsWith(t, "size:")) e.large = Trim(std::string_view(t).substr(5)) == "large";
  }
  return e;
}

std::vector<SuiteEntry> Scan(const std::string& folder, bool include_large) {
  std::vector<SuiteEntry> list;
  std::filesystem::path dir = std::filesystem::path(KX_SOURCE_DIR) / "tests/models" / folder;
  if (!std::filesystem::exists(dir)) return list;
  for (const auto& f : std::filesystem::directory_iterator(dir)) {
    if (f.path().extension() != ".zpm") continue;
    SuiteEntry e = ReadEntry(f.path());
    if (include_large || !e.large) list.push_back(e);
  }
  std::sort(list.begin(), list.end(),
            [](const SuiteEntry& a, const SuiteEntry& b) { return a.name < b.name; });
  return list;
}

}  // namespace

std::unique_ptr<LoadedModel> LoadModelText(std::string_view zpm_text, std::string name) {
  OutputCapture quiet;
  model::BuildOptions options;
  options.max_memory = 10;
  return Wrap(model::BuildModelFromText(zpm_text, options), std::move(name));
}

std::unique_ptr<LoadedModel> LoadModelFile(const std::string& path) {
  OutputCapture quiet;
  model::BuildOptions options;
  options.max_memory = 10;
  return Wrap(model::BuildModel(path, options),
              std::filesystem::path(path).stem().string());
}

std::vector<SuiteEntry> NlpSuite(bool include_large) { return Scan("nlp", include_large); }

std::vector<SuiteEntry> MinlpSuite() { return Scan("minlp", true); }

double RelativeError(double f, double optimum) {
  if (optimum == 0.0) return std::abs(f);
  return std::abs(f - optimum) / std::max(std::abs(optimum), 1e-8);
}

}  // namespace kx::testing
