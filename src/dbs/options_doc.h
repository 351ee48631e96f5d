// docs/options.md is generated from the option tables: RenderOptionsMarkdown() gives its
// whole text, and a test fails when the committed page differs from it.
#pragma once

#include <string>

namespace kx::dbs {

std::string RenderOptionsMarkdown();

}  // namespace kx::dbs
