// Truncated and mutated model files must never crash or hang the front end: every outcome is
// a built model or a kx::Stop with a message.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "builder_testing.h"

namespace kx::model {
namespace {

// Mutations in all, shared among the seeds (at least kMinVariants each); seeds above
// kMaxSeedBytes (the generated large test problems) would only slow the run down.
constexpr int kTotalVariants = 40000;
constexpr int kMinVariants = 300;
constexpr size_t kMaxSeedBytes = 6000;
constexpr std::string_view kAlphabet = "[]:=<>()&$!*,+-^/.0123456789 \n\txyzabcnE";

std::vector<std::string> SeedModels() {
  std::vector<std::string> seeds;
  for (const char* dir : {"/tests/models", "/examples"}) {
    std::filesystem::path root = std::string(KX_SOURCE_DIR) + dir;
    if (!std::filesystem::exists(root)) continue;
    for (const auto& e : std::filesystem::recursive_directory_iterator(root)) {
      if (e.path().extension() != ".zpm") continue;
      if (std::filesystem::file_size(e.path()) > kMaxSeedBytes) continue;
      std::ifstream in(e.path());
      std::stringstream s;
      s << in.rdbuf();
      seeds.push_back(s.str());
    }
  }
  return seeds;
}

// One seeded mutation: truncate, delete, insert, duplicate or swap lines.
std::string Mutate(const std::string& seed, std::mt19937* rng) {
  std::string t = seed;
  auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n)(*rng); };
  int edits = 1 + static_cast<int>(pick(3));
  for (int k = 0; k < edits && !t.empty(); ++k) {
    size_t at = pick(t.size() - 1);
    switch (pick(4)) {
      case 0: t.resize(at); break;
      case 1: t.erase(at, 1 + pick(8)); break;
      case 2: t.insert(at, 1 + pick(3), kAlphabet[pick(kAlphabet.size() - 1)]); break;
      case 3: {
        size_t bol = t.rfind('\n', at);
        bol = bol == std::string::npos ? 0 : bol + 1;
        size_t eol = t.find('\n', at);
        if (eol == std::string::npos) eol = t.size();
        t.insert(bol, t.substr(bol, eol - bol) + "\n");
        break;
      }
      default: t[at] = kAlphabet[pick(kAlphabet.size() - 1)]; break;
    }
  }
  return t;
}

TEST(FrontEndFuzz, MutatedModelsBuildOrStopCleanly) {
  std::vector<std::string> seeds = SeedModels();
  ASSERT_GE(seeds.size(), 3u);
  testing::ScratchDir dir;
  BuildOptions o;
  o.work_dir = dir.str();
  o.max_range = 1000;
  std::mt19937 rng(20240611);
  int built = 0, stopped = 0;
  const int per_seed = std::max(kMinVariants, kTotalVariants / static_cast<int>(seeds.size()));
  for (const std::string& seed : seeds) {
    for (int v = 0; v < per_seed; ++v) {
      std::string text = Mutate(seed, &rng);
      OutputCapture out;
      try {
        BuildModelFromText(text, o);
        ++built;
      } catch (const Stop&) {
        ++stopped;
      } catch (const std::exception& e) {
        ADD_FAILURE() << "unexpected exception " << e.what() << " for model:\n" << text;
      }
    }
  }
  // Both outcomes occur, so the corpus exercises the success path and the messages.
  EXPECT_GT(built, 0);
  EXPECT_GT(stopped, 0);
}

}  // namespace
}  // namespace kx::model
