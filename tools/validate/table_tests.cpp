// The constant tables behind the four functions.
#include <cstring>
#include <set>
#include <thread>

#include "validate/handle.h"
#include "validate/platform.h"
#include "validate/test.h"

namespace orb::validate {
namespace {

constexpr size_t kLongestText = 4096;

void expectWords(Test& test, const char* what, const char* text) {
  if (!test.expect(text != nullptr, "%s: expected a text, found null", what)) return;
  const size_t length = strnlen(text, kLongestText);
  test.expect(length > 0 && length < kLongestText, "%s: expected 1 to %zu bytes, found %zu", what,
              kLongestText - 1, length);
  for (size_t i = 0; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (!test.expect(byte >= 0x20 && byte != 0x7F, "%s: control character 0x%02X", what, byte))
      return;
  }
}

void expectSlot(Test& test, const char* table, const char* slot, bool present) {
  test.expect(present, "%s: slot %s is null", table, slot);
}

// The first table and how many there are; null, as a failure, when there is none.
template <typename Table, typename Function>
const Table* tablesOf(Test& test, const char* name, Function function, uint32_t& count) {
  count = 0;
  if (!test.expect(function != nullptr, "no function %s", name)) return nullptr;
  const Table* first = function(&count);
  if (!test.expect(first != nullptr && count > 0, "%s: expected at least 1 table, found %u", name,
                   count)) {
    count = 0;
    return nullptr;
  }
  return first;
}

void descriptor(Test& test) {
  if (!test.expect(test.plugin.init != nullptr, "no function orb_plugin_init")) return;
  const ORBPluginDescriptor* found = test.plugin.init();
  if (!test.expect(found != nullptr, "orb_plugin_init: expected a descriptor, found null")) return;
  test.expectEqual("version of the descriptor", found->version, 1);
  test.expectEqual("second version of the descriptor", found->secondVersion, 1);
  expectWords(test, "id of the plug-in", found->id);
  expectWords(test, "description of the plug-in", found->description);
  test.expect(found->reserved0 == nullptr && found->reserved1 == nullptr,
              "descriptor: expected null in the reserved pointers");
  test.note("plug-in %s: %s", found->id, found->description);
}

void firstGeneration(Test& test) {
  uint32_t count = 0;
  const auto* tables =
      tablesOf<ORBRuntime>(test, "orb_plugin_runtimes", test.plugin.runtimes, count);
  for (uint32_t i = 0; i < count; ++i) {
    const ORBRuntime& table = tables[i];
    test.expectEqual("version of a first-generation table", table.version, 1);
    test.expectEqual("size of a first-generation table", table.size, 0);
    expectWords(test, "id of a first-generation table", table.id);
    expectWords(test, "description of a first-generation table", table.description);
    expectSlot(test, "first generation", "probe", table.probe != nullptr);
    expectSlot(test, "first generation", "create", table.create != nullptr);
    expectSlot(test, "first generation", "destroy", table.destroy != nullptr);
    expectSlot(test, "first generation", "generate", table.generate != nullptr);
  }
}

void secondGeneration(Test& test) {
  uint32_t count = 0;
  const auto* tables =
      tablesOf<ORBRuntimeV2>(test, "orb_plugin_runtimes_v2", test.plugin.runtimesV2, count);
  const char* const kName = "second generation";
  for (uint32_t i = 0; i < count; ++i) {
    const ORBRuntimeV2& table = tables[i];
    test.expectEqual("version of a second-generation table", table.version, 3);
    if (!test.expectEqual("size of a second-generation table", table.size, sizeof table)) return;
    expectWords(test, "id of a second-generation table", table.id);
    expectWords(test, "description of a second-generation table", table.description);
    expectSlot(test, kName, "probe", table.probe != nullptr);
    expectSlot(test, kName, "create", table.create != nullptr);
    expectSlot(test, kName, "destroy", table.destroy != nullptr);
    expectSlot(test, kName, "generate", table.generate != nullptr);
    expectSlot(test, kName, "generateEx", table.generateEx != nullptr);
    expectSlot(test, kName, "bench", table.bench != nullptr);
    expectSlot(test, kName, "configure", table.configure != nullptr);
    expectSlot(test, kName, "chatTurn", table.chatTurn != nullptr);
    expectSlot(test, kName, "reset", table.reset != nullptr);
    expectSlot(test, kName, "stats", table.stats != nullptr);
  }
}

void streamingExtension(Test& test) {
  uint32_t count = 0;
  const auto* tables =
      tablesOf<ORBRuntimeV2S>(test, "orb_plugin_runtimes_v2s", test.plugin.runtimesV2S, count);
  for (uint32_t i = 0; i < count; ++i) {
    test.expectEqual("version of a streaming table", tables[i].version, 1);
    if (!test.expectEqual("size of a streaming table", tables[i].size, sizeof tables[i])) return;
    expectWords(test, "id of a streaming table", tables[i].id);
    expectSlot(test, "streaming", "chatTurnStream", tables[i].chatTurnStream != nullptr);
  }
}

template <typename Table, typename Function>
std::set<std::string> idsOf(Test& test, const char* name, Function function) {
  uint32_t count = 0;
  const auto* tables = tablesOf<Table>(test, name, function, count);
  std::set<std::string> ids;
  for (uint32_t i = 0; i < count; ++i) {
    const std::string id = tables[i].id != nullptr ? tables[i].id : "";
    test.expect(ids.insert(id).second, "%s: two tables of id %s", name, id.c_str());
  }
  return ids;
}

void idsMatch(Test& test) {
  const Plugin& plugin = test.plugin;
  const auto first = idsOf<ORBRuntime>(test, "orb_plugin_runtimes", plugin.runtimes);
  const auto second = idsOf<ORBRuntimeV2>(test, "orb_plugin_runtimes_v2", plugin.runtimesV2);
  const auto streams = idsOf<ORBRuntimeV2S>(test, "orb_plugin_runtimes_v2s", plugin.runtimesV2S);
  for (const std::string& id : first) {
    test.expect(second.count(id) == 1, "id %s is in the first generation only", id.c_str());
  }
  for (const std::string& id : streams) {
    test.expect(second.count(id) == 1, "streaming table of id %s: no such runtime", id.c_str());
  }
}

template <typename Table, typename Function>
void expectSameEachTime(Test& test, const char* name, Function function) {
  if (!test.expect(function != nullptr, "no function %s", name)) return;
  GuardedBytes count(sizeof(uint32_t));
  const Table* first = function(nullptr);
  test.expect(function(reinterpret_cast<uint32_t*>(count.data())) == first,
              "%s: another table with a count than without", name);
  test.expect(count.frontIntact(), "%s: bytes in front of the count were changed", name);
  const Table* elsewhere = nullptr;
  std::thread([&] { elsewhere = function(nullptr); }).join();
  test.expect(elsewhere == first, "%s: another table on another thread", name);
}

void entryPointsGiveTheSameEachTime(Test& test) {
  const Plugin& plugin = test.plugin;
  expectSameEachTime<ORBRuntime>(test, "orb_plugin_runtimes", plugin.runtimes);
  expectSameEachTime<ORBRuntimeV2>(test, "orb_plugin_runtimes_v2", plugin.runtimesV2);
  expectSameEachTime<ORBRuntimeV2S>(test, "orb_plugin_runtimes_v2s", plugin.runtimesV2S);
  if (!test.expect(plugin.init != nullptr, "no function orb_plugin_init")) return;
  test.expect(plugin.init() == plugin.init(),
              "orb_plugin_init: another descriptor the second time");
}

std::string image(const Plugin& plugin) {
  std::string bytes(reinterpret_cast<const char*>(plugin.runtime), sizeof(ORBRuntimeV2));
  bytes += plugin.runtime->id;
  bytes += plugin.runtime->description != nullptr ? plugin.runtime->description : "";
  if (plugin.streaming != nullptr) {
    bytes.append(reinterpret_cast<const char*>(plugin.streaming), sizeof(ORBRuntimeV2S));
  }
  return bytes;
}

void tablesAreConstant(Test& test) {
  const std::string before = image(test.plugin);
  ORBRuntimeProbe probe;
  test.plugin.runtime->probe("missing.orb", &probe);
  if (!test.subject.model.empty()) {
    Handle handle(test);
    if (handle.ok()) handle.chat("Hello");
  }
  test.expect(image(test.plugin) == before, "a table changed while the runtime was used");
}

}  // namespace

std::vector<TestCase> tableTests() {
  return {
      {"tables.descriptor", Need::Tables, descriptor},
      {"tables.first_generation", Need::Tables, firstGeneration},
      {"tables.second_generation", Need::Tables, secondGeneration},
      {"tables.streaming_extension", Need::Tables, streamingExtension},
      {"tables.ids_match", Need::Tables, idsMatch},
      {"tables.entry_points_give_the_same_each_time", Need::Tables, entryPointsGiveTheSameEachTime},
      {"tables.tables_are_constant", Need::Tables, tablesAreConstant}};
}

}  // namespace orb::validate
