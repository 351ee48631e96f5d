#include "dbs/options_json.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "base/file_writer.h"
#include "dbs/dbs_file.h"

namespace kx::dbs {
namespace {

using Json = nlohmann::ordered_json;

Json ElementJson(const Record& r, size_t k) {
  const double v = WrittenValue(r, k);  // as in a DBS file: sentinels, never inf or NaN
  if (r.type() == 'I' && std::fabs(v) < 9.0e15) return Json(static_cast<long long>(v));
  return Json(v);
}

Json RecordJson(const Record& r) {
  if (!r.is_array) return ElementJson(r, 0);
  Json list = Json::array();
  for (size_t k = 0; k < r.values.size(); ++k) list.push_back(ElementJson(r, k));
  return list;
}

}  // namespace

std::string FormatOptionsJson(const OptionStore& store) {
  // Each member is built whole before it goes into `root`: references into an ordered_json
  // object do not survive the next insertion.
  Json root = Json::object();
  Json zpm = Json::object();
  for (const Record& r : store.globals()) zpm[r.name] = RecordJson(r);
  Json nlc = Json::object();
  for (std::string_view key : OutcomeKeys()) nlc[std::string(key)] = zpm[std::string(key)];
  root["ZPM"] = std::move(zpm);
  root["NLC"] = std::move(nlc);
  for (const Variable& v : store.variables()) {
    Json props = Json::object();
    for (const Record& r : v.records) props[r.name] = RecordJson(r);
    root[v.name] = std::move(props);
  }
  return root.dump(2) + "\n";
}

bool WriteOptionsJson(const std::string& path, const OptionStore& store) {
  return WriteFileAtomically(path, FormatOptionsJson(store));
}

}  // namespace kx::dbs
