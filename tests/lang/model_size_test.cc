// The size of every record store is checked against MAX_MEMORY before any vector statement
// is expanded: a model too large stops at once with the store named, not after minutes of
// work with an exception text.
#include <gtest/gtest.h>

#include "base/report.h"
#include "lang/compiler.h"
#include "lang/model_file.h"

namespace kx::lang {
namespace {

std::vector<std::string> StopLines(const std::string& text, int max_memory) {
  Compiler compiler;
  ReaderOptions o;
  o.max_memory = max_memory;
  OutputCapture out;
  try {
    ReadModelText(text, &compiler, o);
  } catch (const Stop& stop) {
    return stop.lines();
  }
  return {};
}

TEST(ModelSize, EachStoreIsCheckedAgainstMaxMemory) {
  struct Case {
    const char* text;
    const char* first_line;  // nullptr: the model fits
  };
  const Case cases[] = {
      {"Variables\nx[1:10000] = 1\nEnd Variables\n", nullptr},
      {"Variables\nx[1:10001] = 1\nEnd Variables\n",
       "Error: Not enough memory to store model variables: 10001 elements, room for 10000"},
      // Parameters and variables share one store.
      {"Parameters\np[1:5000] = 1\nEnd Parameters\nVariables\nx[1:5000] = 1\ny = 2\n"
       "End Variables\n",
       "Error: Not enough memory to store model variables: 10001 elements, room for 10000"},
      {"Intermediates\nv[1:20000] = 1\nEnd Intermediates\n",
       "Error: Not enough memory to store model intermediates: 20000 elements, room for 10000"},
      {"Equations\nx[1:9000] = 1\nx[2:3000] = 2\nEnd Equations\n",
       "Error: Not enough memory to store model equations: 11999 elements, room for 10000"},
      {"Connections\na[1:10001] = b[1:10001]\nEnd Connections\n",
       "Error: Not enough memory to store model connections: 10001 elements, room for 10000"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> lines = StopLines(c.text, 2);
    if (!c.first_line) {
      EXPECT_TRUE(lines.empty()) << c.text;
      continue;
    }
    EXPECT_EQ(lines, (std::vector<std::string>{c.first_line,
                                               "Increase MAX_MEMORY 10^(2-10), Currently: 10^2",
                                               "Stopping..."}))
        << c.text;
  }
}

// Ten million elements at the default level stop before a single copy is made (a run that
// expanded them first would take many seconds and gigabytes here).
TEST(ModelSize, HugeModelStopsBeforeExpansion) {
  std::vector<std::string> lines =
      StopLines("Variables\nx[1:10000000] = 1\nEnd Variables\nEquations\n"
                "x[1:10000000] = 2\nEnd Equations\n", 4);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0],
            "Error: Not enough memory to store model variables: 10000000 elements, room for "
            "1000000");
  EXPECT_EQ(StoreCapacity(4), 1000000);
  EXPECT_EQ(StoreCapacity(10), 1000000000000);
}

}  // namespace
}  // namespace kx::lang
