// objects/objects_doc: docs/objects.md generated from the object tables (a test keeps the
// committed page equal to what the tables give).
#pragma once

#include <string>

namespace kx::objects {

// The whole Markdown page: every object with its arguments, members, units, defaults and
// equation texts, grouped by family.
std::string RenderObjectsMarkdown();

}  // namespace kx::objects
