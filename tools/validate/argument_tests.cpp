// Null pointers, short records, buffers of every length, paths that lead nowhere.
#include <algorithm>
#include <cstring>
#include <limits>

#include "validate/handle.h"
#include "validate/platform.h"
#include "validate/test.h"

namespace orb::validate {
namespace {

const char* const kMissing = "there/is/no/such/file.orb";

void probeTakesNulls(Test& test) {
  const ORBRuntimeV2& runtime = *test.plugin.runtime;
  ORBRuntimeProbe record;
  test.expectEqual("probe(null, null)", runtime.probe(nullptr, nullptr), ORB_OK);
  test.expectEqual("probe(path, null)", runtime.probe(kMissing, nullptr), ORB_OK);
  record.score = 1;
  test.expectEqual("probe(null, record)", runtime.probe(nullptr, &record), ORB_OK);
  test.expectEqual("score of a null path", record.score, 0);
}

void expectProbe(Test& test, const char* path, bool served) {
  GuardedBytes bytes(sizeof(ORBRuntimeProbe));
  ORBRuntimeProbe record;
  test.expectEqual(
      "result of probe",
      test.plugin.runtime->probe(path, reinterpret_cast<ORBRuntimeProbe*>(bytes.data())), ORB_OK);
  test.expect(bytes.frontIntact(), "probe: bytes in front of the record were changed");
  std::memcpy(&record, bytes.data(), sizeof record);
  test.expect((record.score > 0) == served, "probe of \"%.60s\": expected %s, found score %u", path,
              served ? "a score above 0" : "score 0", record.score);
  const bool texts = record.arch != nullptr && record.device != nullptr && record.detail != nullptr;
  if (!test.expect(texts, "probe: expected texts, found null")) return;
  test.expect(record.device[0] != '\0', "probe: expected a device, found none");
  test.expect((record.arch[0] != '\0') == served, "probe: architecture \"%s\", yet score %u",
              record.arch, record.score);
}

void probeFillsItsRecord(Test& test) {
  expectProbe(test, kMissing, false);
  expectProbe(test, "", false);
  if (!test.subject.model.empty()) expectProbe(test, test.subject.model.c_str(), true);
}

// A failing create with a buffer of `size` bytes that it may use; what it leaves there.
std::string failToCreate(Test& test, const char* path, size_t size) {
  GuardedBytes bytes(size);
  ORBRuntimeHandle* handle = reinterpret_cast<ORBRuntimeHandle*>(&bytes);
  char* message = bytes.data();
  const int code = test.plugin.runtime->create(path, nullptr, &handle, message, size);
  test.expect(code == ORB_FAILED, "create of \"%.60s\": expected 1, found %d", path, code);
  test.expect(handle == nullptr, "create of \"%.60s\": the handle is not null after a failure",
              path);
  test.expect(bytes.frontIntact(), "create: bytes in front of the message were changed");
  if (size == 0) return "";
  const bool ended = std::memchr(message, '\0', size) != nullptr;
  test.expect(ended, "create: the message is not terminated within %zu bytes", size);
  return ended ? message : "";
}

void createTellsWhyItFailed(Test& test) {
  constexpr size_t kAmple = 512;
  const std::string whole = failToCreate(test, kMissing, kAmple);
  test.expect(!whole.empty(), "create: expected a message, found none");
  for (size_t size = 0; size < whole.size() + 4; ++size) {
    const size_t kept = std::min(size == 0 ? 0 : size - 1, whole.size());
    test.expectText("cut message of create", failToCreate(test, kMissing, size),
                    whole.substr(0, kept));
  }
}

void createTakesNulls(Test& test) {
  const ORBRuntimeV2& runtime = *test.plugin.runtime;
  char message[64] = "untouched";
  ORBRuntimeHandle* handle = nullptr;
  test.expectEqual("create without a place for the handle",
                   runtime.create(kMissing, nullptr, nullptr, message, sizeof message),
                   ORB_INVALID);
  test.expectText("message of that", message, "untouched");
  test.expectEqual("create without a message buffer",
                   runtime.create(kMissing, nullptr, &handle, nullptr, 64), ORB_FAILED);
  test.expectEqual("create of a null path",
                   runtime.create(nullptr, nullptr, &handle, message, sizeof message), ORB_FAILED);
  test.expect(handle == nullptr, "create of a null path: expected no handle, found one");
  test.expectEqual("create with a configuration",
                   runtime.create(kMissing, "{}", &handle, message, sizeof message), ORB_FAILED);
}

void oddPathsAreRefused(Test& test) {
  std::string longPath(5000, 'x');
  std::string bytes;
  for (int i = 0; i < 40; ++i) bytes += static_cast<char>(1 + test.below(255));
  for (const std::string& path :
       {std::string(), std::string("."), std::string("/"), std::string(".orb"), longPath + ".orb",
        bytes + "/none.orb", std::string("%s%n%p.orb"), std::string("\xFF\xFE.orb")}) {
    expectProbe(test, path.c_str(), false);
    failToCreate(test, path.c_str(), 64);
  }
}

void nullHandlesAreInvalid(Test& test) {
  const ORBRuntimeV2& runtime = *test.plugin.runtime;
  const ORBSessionOptions options = keepSettings();
  GuardedBytes out(64);
  ORBBenchResult result;
  ORBRuntimeStats stats;
  runtime.destroy(nullptr);
  test.expectEqual("generate", runtime.generate(nullptr, "a", out.data(), 64), ORB_INVALID);
  test.expectEqual("generateEx", runtime.generateEx(nullptr, "a", &options, out.data(), 64),
                   ORB_INVALID);
  test.expectEqual("chatTurn", runtime.chatTurn(nullptr, "a", out.data(), 64), ORB_INVALID);
  test.expectEqual("bench", runtime.bench(nullptr, nullptr, &result), ORB_INVALID);
  test.expectEqual("configure", runtime.configure(nullptr, &options), ORB_INVALID);
  test.expectEqual("reset", runtime.reset(nullptr), ORB_INVALID);
  test.expectEqual("stats", runtime.stats(nullptr, &stats), ORB_INVALID);
  if (test.plugin.streaming == nullptr) return;
  test.expectEqual("chatTurnStream",
                   test.plugin.streaming->chatTurnStream(nullptr, "a", nullptr, nullptr, nullptr),
                   ORB_INVALID);
}

void missingBuffersAreInvalid(Test& test) {
  const ORBRuntimeV2& runtime = *test.plugin.runtime;
  Handle handle(test);
  if (!handle.ok()) return;
  ORBRuntimeHandle* raw = handle.raw();
  handle.chat("Hello");
  const uint64_t context = handle.contextTokens();
  GuardedBytes out(8);
  for (const size_t size : {size_t{0}, size_t{8}}) {
    char* buffer = size == 0 ? out.data() : nullptr;
    test.expectEqual("generate without a buffer", runtime.generate(raw, "a", buffer, size),
                     ORB_INVALID);
    test.expectEqual("generateEx without a buffer",
                     runtime.generateEx(raw, "a", nullptr, buffer, size), ORB_INVALID);
    test.expectEqual("chatTurn without a buffer", runtime.chatTurn(raw, "a", buffer, size),
                     ORB_INVALID);
  }
  test.expect(static_cast<unsigned char>(out.data()[0]) == GuardedBytes::kCanary,
              "a buffer of length 0 was written to");
  test.expectEqual("bench without a result", runtime.bench(raw, nullptr, nullptr), ORB_INVALID);
  test.expectEqual("configure without options", runtime.configure(raw, nullptr), ORB_INVALID);
  test.expectEqual("stats without a record", runtime.stats(raw, nullptr), ORB_INVALID);
  test.expectEqual("context after invalid calls", static_cast<int64_t>(handle.contextTokens()),
                   static_cast<int64_t>(context));
}

void nullTextsAreEmpty(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  const Answer prompt = handle.generate(""), noPrompt = handle.generate(nullptr);
  test.expectEqual("result of a null prompt", noPrompt.code, prompt.code);
  test.expectText("text after a null prompt", noPrompt.text, prompt.text);
  handle.reset();
  const Answer text = handle.chat("");
  handle.reset();
  const Answer noText = handle.chat(nullptr);
  test.expectEqual("result of a null user text", noText.code, text.code);
  test.expectText("answer to a null user text", noText.text, text.text);
  handle.reset();
  const Streamed streamed = handle.stream(nullptr);
  test.expectEqual("result of a streamed null user text", streamed.code, text.code);
}

// Records that end where their size says, so that reading on is found out.
void shortRecordsAreRefused(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  const Answer plain = handle.generate("Hello");
  ORBSessionOptions options = sampling(1.5f, 7);
  for (uint32_t size = 8; size < sizeof options; size += 8) {
    GuardedBytes bytes(size);
    options.structSize = size;
    std::memcpy(bytes.data(), &options, size);
    const auto* record = reinterpret_cast<const ORBSessionOptions*>(bytes.data());
    test.expectEqual("configure with a short record",
                     test.plugin.runtime->configure(handle.raw(), record), ORB_INVALID);
    const Answer answer = handle.generateEx("Hello", record);
    test.expectText("generateEx with a short record", answer.text, plain.text);
  }
  for (const uint32_t size : {0u, 1u, 55u}) {
    options.structSize = size;
    test.expectEqual("configure with a short record",
                     test.plugin.runtime->configure(handle.raw(), &options), ORB_INVALID);
  }
  test.expectText("generate after refused records", handle.generate("Hello").text, plain.text);
}

void longerRecordsAreTaken(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  for (const uint32_t size : {56u, 57u, 64u, std::numeric_limits<uint32_t>::max()}) {
    ORBSessionOptions options = keepSettings();
    options.structSize = size;
    handle.configure(options);
  }
}

void buffersOfEveryLength(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  const std::string prompt = handle.talkativePrompt();
  const std::string generated = handle.generate(prompt.c_str()).text;
  const std::string answer = handle.chat("Hello").text;
  std::vector<size_t> sizes{1, 2, 3, 5, 8};
  for (const size_t length : {generated.size(), answer.size()}) {
    sizes.insert(sizes.end(), {std::max<size_t>(length, 1), length + 1, length + 2});
  }
  for (const size_t size : sizes) {
    const Answer cut = handle.generate(prompt.c_str(), size);
    test.expectEqual("result of generate", cut.code, ORB_OK);
    test.expectText("cut text", cut.text, generated.substr(0, size - 1));
    test.expectText("cut text of generateEx", handle.generateEx(prompt.c_str(), nullptr, size).text,
                    generated.substr(0, size - 1));
    test.expectText("cut answer", handle.chat("Hello", size).text, answer.substr(0, size - 1));
  }
}

}  // namespace

std::vector<TestCase> argumentTests() {
  return {{"arguments.probe_takes_nulls", Need::Tables, probeTakesNulls},
          {"arguments.probe_fills_its_record", Need::Tables, probeFillsItsRecord},
          {"arguments.create_tells_why_it_failed", Need::Tables, createTellsWhyItFailed},
          {"arguments.create_takes_nulls", Need::Tables, createTakesNulls},
          {"arguments.odd_paths_are_refused", Need::Tables, oddPathsAreRefused},
          {"arguments.null_handles_are_invalid", Need::Tables, nullHandlesAreInvalid},
          {"arguments.missing_buffers_are_invalid", Need::Model, missingBuffersAreInvalid},
          {"arguments.null_texts_are_empty", Need::Model, nullTextsAreEmpty},
          {"arguments.short_records_are_refused", Need::Model, shortRecordsAreRefused},
          {"arguments.longer_records_are_taken", Need::Model, longerRecordsAreTaken},
          {"arguments.buffers_of_every_length", Need::Model, buffersOfEveryLength}};
}

}  // namespace orb::validate
