#include "reports/export_values.h"
#include "vorlund/reports/exports.h"

namespace vl {

nlohmann::ordered_json fleetResultsJson(const Fleet& fleet, const FleetSummary& summary) {
  nlohmann::ordered_json devices = nlohmann::ordered_json::array();
  for (const DeviceRun& run : fleet.devices) {
    nlohmann::ordered_json device = {
        {"device", run.device}, {"resultsFile", run.resultsPath}, {"timeline", run.timelinePath}};
    device["results"] = run.results
                            ? reports::exportJson(Value(run.results->resultsFileDictionary()))
                            : nlohmann::ordered_json(nullptr);
    devices.push_back(std::move(device));
  }
  nlohmann::ordered_json document;
  document["devices"] = std::move(devices);
  document["aggregate"] = fleet.aggregate
                              ? reports::exportJson(Value(fleet.aggregate->resultsFileDictionary()))
                              : nlohmann::ordered_json(nullptr);
  // The summary is built unordered; its text reads back into the ordered document as it stands.
  document["summary"] = nlohmann::ordered_json::parse(
      fleetSummaryJson(summary).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  return document;
}

}  // namespace vl
