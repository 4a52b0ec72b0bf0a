// Archiving and unarchiving a test case definition, beside the raw baseline of building the same
// binary property list with libplist directly (no object graph, no class checks).
#include <benchmark/benchmark.h>
#include <plist/plist.h>

#include <cstdlib>

#include "vorlund/catalogue/test_case_object.h"
#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/conversion/object_data.h"

namespace {

std::shared_ptr<VLTestCaseObject> sampleObject() {
  auto object = VLTestCaseObject::make();
  object->setName("WiFi Ping Gateway");
  object->setSelector("pingGateway:");
  object->setTechnology("WiFi");
  object->setType("Average");
  object->setInstanceId("6F1C1B9E-6D3B-4C57-9D0E-1A2B3C4D5E6F");
  object->setOptions(vl::Dictionary{{"Count", 20}, {"Interval", 0.5}, {"Host", "192.0.2.1"}});
  object->setEnvironments(vl::Array{"Office", "Walk"});
  object->setTags(vl::Array{"ping", "wifi"});
  object->setWebTags(vl::Dictionary{{"area", "connectivity"}});
  object->setTimeout(120);
  return object;
}

void BM_ArchiveTestCaseObject(benchmark::State& state) {
  vl::Value object = sampleObject();
  for (auto _ : state) {
    auto bytes = vl::archive(object);
    benchmark::DoNotOptimize(bytes);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ArchiveTestCaseObject);

void BM_UnarchiveTestCaseObject(benchmark::State& state) {
  std::string bytes = *vl::archive(vl::Value(sampleObject()));
  const vl::ClassSet& allowed = VLValidExternalClassesForCoding();
  for (auto _ : state) {
    auto value = vl::unarchive(bytes, allowed);
    if (!value) state.SkipWithError("unarchive failed");
    benchmark::DoNotOptimize(value);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_UnarchiveTestCaseObject);

// The same keys and values written straight into a binary property list.
void BM_RawPlistBaseline(benchmark::State& state) {
  for (auto _ : state) {
    plist_t root = plist_new_dict();
    plist_dict_set_item(root, "AvailableInProcedor", plist_new_bool(1));
    plist_t options = plist_new_dict();
    plist_dict_set_item(options, "Count", plist_new_uint(20));
    plist_dict_set_item(options, "Interval", plist_new_real(0.5));
    plist_dict_set_item(options, "Host", plist_new_string("192.0.2.1"));
    plist_dict_set_item(root, "Options", options);
    plist_dict_set_item(root, "instanceId", plist_new_string("6F1C1B9E-6D3B-4C57-9D0E-1A2B3C4D5E6F"));
    plist_dict_set_item(root, "Name", plist_new_string("WiFi Ping Gateway"));
    plist_dict_set_item(root, "Selector", plist_new_string("pingGateway:"));
    plist_dict_set_item(root, "Technology", plist_new_string("WiFi"));
    plist_dict_set_item(root, "Type", plist_new_string("Average"));
    plist_t environments = plist_new_array();
    plist_array_append_item(environments, plist_new_string("Office"));
    plist_array_append_item(environments, plist_new_string("Walk"));
    plist_dict_set_item(root, "Environments", environments);
    plist_t tags = plist_new_array();
    plist_array_append_item(tags, plist_new_string("ping"));
    plist_array_append_item(tags, plist_new_string("wifi"));
    plist_dict_set_item(root, "Tags", tags);
    plist_t reporting = plist_new_dict();
    plist_dict_set_item(reporting, "area", plist_new_string("connectivity"));
    plist_dict_set_item(root, "ReportingTags", reporting);
    plist_dict_set_item(root, "Timeout", plist_new_real(120));
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    benchmark::DoNotOptimize(bytes);
    std::free(bytes);
    plist_free(root);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawPlistBaseline);

}  // namespace
