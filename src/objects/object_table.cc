#include "objects/object_table.h"

namespace kx::objects {

const std::vector<const ObjectType*>& ObjectTypes() {
  static const std::vector<const ObjectType*> kAll = [] {
    std::vector<const ObjectType*> all;
    for (const auto* family : {&MathObjectTypes(), &ControlObjectTypes(), &ThermoObjectTypes(),
                               &ProcessObjectTypes()}) {
      for (const ObjectType& t : *family) all.push_back(&t);
    }
    return all;
  }();
  return kAll;
}

const ObjectType* FindObjectType(std::string_view keyword) {
  for (const ObjectType* t : ObjectTypes()) {
    for (const char* k : t->keywords)
      if (keyword == k) return t;
  }
  return nullptr;
}

std::string MemberUnits(std::string_view keyword, std::string_view member) {
  const ObjectType* t = FindObjectType(keyword);
  if (t == nullptr) return "";
  for (const MemberSpec& m : t->members)
    if (member == m.name) return m.units;
  return "";
}

}  // namespace kx::objects
