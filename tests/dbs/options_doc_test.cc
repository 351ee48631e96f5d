#include "dbs/options_doc.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "dbs/option_table.h"
#include "testing/scratch_dir.h"

namespace kx::dbs {
namespace {

constexpr const char* kPage = KX_SOURCE_DIR "/docs/options.md";

// The committed page must be exactly what the tables generate. To regenerate after a table
// change, run this test with KX_UPDATE_DOCS=1.
TEST(OptionsDoc, CommittedPageMatchesTheTables) {
  std::string generated = RenderOptionsMarkdown();
  if (std::getenv("KX_UPDATE_DOCS") != nullptr) std::ofstream(kPage) << generated;
  EXPECT_EQ(kx::testing::ReadFile(kPage), generated)
      << "docs/options.md drifted from src/dbs/option_table.cc; rerun with KX_UPDATE_DOCS=1";
}

TEST(OptionsDoc, EveryOptionAndPropertyHasARow) {
  std::string page = RenderOptionsMarkdown();
  for (const OptionDef& d : GlobalOptionTable())
    EXPECT_NE(page.find("| `" + std::string(d.name) + "` |"), std::string::npos) << d.name;
  for (const OptionDef& d : PropertyTable())
    EXPECT_NE(page.find("| `" + std::string(d.name) + "` |"), std::string::npos) << d.name;
}

}  // namespace
}  // namespace kx::dbs
