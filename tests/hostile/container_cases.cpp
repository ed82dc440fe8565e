// Header, section table, truncation, and metadata.
#include "hostile/hostile_case.h"

namespace orbtest {
namespace {

using kiv::orb2::MetaType;

constexpr uint64_t kWraps = UINT64_MAX - 63;  // a multiple of 64 that any size carries past 2^64

HostileCase refused(std::string name, std::string message, std::function<File()> file) {
  return {std::move(name), std::move(file), false, kOpenFailed, std::move(message)};
}

HostileCase accepted(std::string name, std::function<File()> file) {
  return {std::move(name), std::move(file), true, kCreated, ""};
}

// The valid file with one field changed and the checksum right.
template <typename T>
std::function<File()> spoiled(uint64_t offset, T value) {
  return [=] {
    File file = validFile();
    poke(file, offset, value);
    reseal(file);
    return file;
  };
}

std::function<File()> cut(uint64_t size) {
  return [=] {
    File file = validFile();
    file.resize(size);
    return file;
  };
}

// More sections behind those that there are, all empty and of an unknown type.
std::function<File()> withSections(size_t count) {
  return [=] {
    ContainerBuilder builder = smallestModel().container();
    kiv::TokenizerData tokenizer;
    tokenizer.tokens = {"a", "b"};
    builder.tokenizer(tokenizer).meta("general.architecture", "qwen35");
    for (size_t i = kSections; i < count; ++i) builder.section(static_cast<SectionType>(99), {});
    return builder.build();
  };
}

std::vector<HostileCase> headerCases() {
  return {
      refused("header: empty file", "ORB2: cannot stat file", [] { return File(); }),
      refused("header: one byte", "ORB2: file too small", cut(1)),
      refused("header: 63 bytes", "ORB2: file too small", cut(63)),
      refused("header: 64 bytes", "ORB2: truncated section table", cut(64)),
      refused("header: magic in lower case", "ORB2: bad magic", spoiled(0, 'o')),
      refused("header: magic of another version", "ORB2: bad magic", spoiled(3, '1')),
      refused("header: version 0", "ORB2: unsupported version", spoiled(4, uint32_t{0})),
      refused("header: version 3", "ORB2: unsupported version", spoiled(4, uint32_t{3})),
      refused("header: version 2^32 - 1", "ORB2: unsupported version", spoiled(4, UINT32_MAX)),
      refused("header: marker swapped", "ORB2: big-endian files unsupported",
              spoiled(8, uint32_t{0x04030201})),
      refused("header: checksum off by one", "ORB2: CRC mismatch",
              [] {
                File file = validFile();
                poke(file, 56, peek<uint64_t>(file, 56) + 1);
                return file;
              }),
      refused("header: a word changed under the checksum", "ORB2: CRC mismatch",
              [] {
                File file = validFile();
                poke(file, 16, uint64_t{1});
                return file;
              }),
      accepted("header: words A to C and the reserved one",
               [] {
                 File file = validFile();
                 for (const uint64_t at : {16, 24, 32, 48}) poke(file, at, UINT64_MAX);
                 reseal(file);
                 return file;
               }),
  };
}

std::vector<HostileCase> headerCountCases() {
  const uint64_t tensors = peek<uint64_t>(validFile(), 40);
  return {
      refused("sections: none", "ORB2: missing tensor index", spoiled(12, uint32_t{0})),
      refused("sections: index left out of the count", "ORB2: missing tensor index",
              spoiled(12, uint32_t{kSections - 1})),
      accepted("sections: 16", withSections(16)),
      refused("sections: 17", "ORB2: too many sections", withSections(17)),
      refused("sections: count whose bytes wrap 32 bits", "ORB2: truncated section table",
              spoiled(12, uint32_t{0x0AAAAAAB})),
      refused("sections: 2^31", "ORB2: truncated section table", spoiled(12, uint32_t{1} << 31)),
      refused("sections: 2^32 - 1", "ORB2: truncated section table", spoiled(12, UINT32_MAX)),
      {"tensors: none", spoiled(40, uint64_t{0}), true, kBlockFailed, "token_embd.weight"},
      {"tensors: without the last", spoiled(40, tensors - 1), true, kModelFailed,
       "token_embd.weight"},
      refused("tensors: one more than the index", "ORB2: missing tensor index",
              spoiled(40, tensors + 1)),
      refused("tensors: 2^57, whose bytes wrap to 0", "ORB2: missing tensor index",
              spoiled(40, uint64_t{1} << 57)),
      refused("tensors: 2^63", "ORB2: missing tensor index", spoiled(40, uint64_t{1} << 63)),
      refused("tensors: 2^64 - 1", "ORB2: missing tensor index", spoiled(40, UINT64_MAX)),
  };
}

std::vector<HostileCase> boundsCases() {
  const char* names[kSections] = {"weights", "tokenizer", "metadata", "index"};
  std::vector<HostileCase> cases;
  const uint64_t end = validFile().size();
  for (size_t i = 0; i < kSections; ++i) {
    const std::string name = std::string("bounds: ") + names[i] + " ";
    const auto add = [&](const char* what, uint64_t offset, uint64_t size) {
      cases.push_back(refused(name + what, "ORB2: bad section bounds", [=] {
        File file = validFile();
        poke(file, tableField(i, 8), offset);
        poke(file, tableField(i, 16), size);
        reseal(file);
        return file;
      }));
    };
    add("whose end wraps", kWraps, 128);
    add("whose size wraps it", sectionOffset(i), UINT64_MAX - sectionOffset(i) + 1);
    add("of 2^64 - 1 bytes", sectionOffset(i), UINT64_MAX);
    add("one byte too long", sectionOffset(i), end - sectionOffset(i) + 1);
    add("behind the end", (end + 127) / 64 * 64, 0);
    add("at an odd offset", sectionOffset(i) + 1, 1);
    add("at 32 bytes", sectionOffset(i) + 32, 1);
  }
  return cases;
}

// One section where another is.
std::function<File()> aliased(size_t section, size_t other) {
  return [=] {
    File file = validFile();
    poke(file, tableField(section, 8), sectionOffset(other));
    poke(file, tableField(section, 16), sectionSize(other));
    reseal(file);
    return file;
  };
}

std::function<File()> withSection(SectionType type, const Bytes& content, bool first) {
  return [=] {
    kiv::TokenizerData tokenizer;
    tokenizer.tokens = {"a", "b"};
    ContainerBuilder builder = smallestModel().container();
    if (first) builder.section(type, content);
    builder.tokenizer(tokenizer).section(
        SectionType::Meta,
        Bytes().u32(1).metaKey("general.architecture", MetaType::String).text("qwen35"));
    if (!first) builder.section(type, content);
    return builder.build();
  };
}

std::vector<HostileCase> sectionCases() {
  const auto without = [](SectionType type) {
    return [type] {
      kiv::TokenizerData tokenizer;
      tokenizer.tokens = {"a", "b"};
      const size_t section = type == SectionType::WeightData  ? kWeightSection
                             : type == SectionType::Tokenizer ? kTokenizerSection
                             : type == SectionType::Meta      ? kMetaSection
                                                              : kIndexSection;
      File file = validFile();
      poke(file, tableField(section, 0), uint32_t{99});
      reseal(file);
      return file;
    };
  };
  return {
      refused("sections: no index", "ORB2: missing tensor index",
              without(SectionType::TensorIndex)),
      refused("sections: no weights", "ORB2: missing weight data",
              without(SectionType::WeightData)),
      refused("sections: no metadata", "ORB2: missing meta section", without(SectionType::Meta)),
      refused("sections: no tokenizer", "tokenizer", without(SectionType::Tokenizer)),
      refused("overlap: tokenizer over the metadata", "tokenizer",
              aliased(kTokenizerSection, kMetaSection)),
      refused("overlap: metadata over the tokenizer", "ORB2: bad meta key",
              aliased(kMetaSection, kTokenizerSection)),
      {"overlap: index over the tokenizer", aliased(kIndexSection, kTokenizerSection), false,
       kOpenFailed, "ORB2: missing tensor index"},
      // Names read as weights are numbers like any others.
      accepted("overlap: weights over the index", aliased(kWeightSection, kIndexSection)),
      {"overlap: weights over the metadata", aliased(kWeightSection, kMetaSection), true,
       kBlockFailed, "token_embd.weight"},
      accepted("duplicate: a second tokenizer of rubbish",
               withSection(SectionType::Tokenizer, Bytes("rubbish"), false)),
      refused("duplicate: rubbish before the tokenizer", "tokenizer",
              withSection(SectionType::Tokenizer, Bytes("rubbish"), true)),
      accepted("duplicate: second metadata", withSection(SectionType::Meta, Bytes().u32(9), false)),
      refused("duplicate: wrong metadata first", "ORB2: bad meta key",
              withSection(SectionType::Meta, Bytes().u32(9), true)),
      accepted("quantization info: exact",
               withSection(SectionType::QuantInfo, Bytes().zeros(354 * 32), false)),
      refused("quantization info: one byte short", "ORB2: bad quant info",
              withSection(SectionType::QuantInfo, Bytes().zeros(354 * 32 - 1), false)),
      accepted("text: arbitrary bytes", withSection(SectionType::Text, Bytes("\xFF\x00"), false)),
  };
}

std::vector<HostileCase> truncationCases() {
  std::vector<HostileCase> cases = {
      refused("cut: inside the table", "ORB2: truncated section table",
              cut(64 + 24 * kSections - 1)),
      refused("cut: behind the table", "ORB2: bad section bounds", cut(64 + 24 * kSections)),
      refused("cut: the last byte", "ORB2: bad section bounds", cut(validFile().size() - 1)),
      accepted("longer: one byte more",
               [] {
                 File file = validFile();
                 file.push_back(0);
                 return file;
               }),
  };
  for (size_t i = 0; i < kSections; ++i) {
    cases.push_back(refused("cut: at section " + std::to_string(i), "ORB2: bad section bounds",
                            cut(sectionOffset(i))));
  }
  return cases;
}

// The model with another metadata section.
std::function<File()> withMetadata(const Bytes& section) {
  return [=] {
    kiv::TokenizerData tokenizer;
    tokenizer.tokens = {"a", "b"};
    return smallestModel()
        .container()
        .section(SectionType::Meta, section)
        .tokenizer(tokenizer)
        .build();
  };
}

Bytes architecture(std::string_view value = "qwen35") {
  return Bytes().metaKey("general.architecture", MetaType::String).text(value);
}

// The architecture, then an entry of key "k" whose value is cut or lies about its length.
std::function<File()> withValue(MetaType type, const Bytes& value) {
  return withMetadata(
      Bytes().u32(2).raw(architecture()).raw(Bytes().metaKey("k", type)).raw(value));
}

}  // namespace

std::vector<HostileCase> containerCases() {
  std::vector<HostileCase> all;
  for (const auto& cases :
       {headerCases(), headerCountCases(), boundsCases(), sectionCases(), truncationCases()}) {
    all.insert(all.end(), cases.begin(), cases.end());
  }
  return all;
}

std::vector<HostileCase> metadataCases() {
  const auto foreign = [](std::string name, const Bytes& section) {
    return HostileCase{std::move(name), withMetadata(section), false,
                       "not a qwen35-architecture model", "general.architecture"};
  };
  const Bytes one = Bytes().u32(1);
  return {
      refused("metadata: empty", "ORB2: missing meta section", withMetadata({})),
      refused("metadata: 3 bytes", "ORB2: missing meta section", withMetadata(Bytes().zeros(3))),
      refused("metadata: one entry too many", "ORB2: bad meta key",
              withMetadata(Bytes().u32(2).raw(architecture()))),
      refused("metadata: 2^31 entries", "ORB2: bad meta key",
              withMetadata(Bytes().u32(uint32_t{1} << 31).raw(architecture()))),
      refused("metadata: 2^32 - 1 entries", "ORB2: bad meta key",
              withMetadata(Bytes().u32(UINT32_MAX).raw(architecture()))),
      accepted("metadata: bytes behind the entries",
               withMetadata(Bytes().u32(1).raw(architecture()).zeros(99))),
      refused("metadata: key of 65535 bytes", "ORB2: bad meta key",
              withMetadata(Bytes(one).u16(UINT16_MAX).raw("k"))),
      refused("metadata: key one byte too long", "ORB2: bad meta key",
              withMetadata(Bytes(one).u16(2).raw("k"))),
      refused("metadata: no type", "ORB2: bad meta type", withMetadata(Bytes(one).u16(1).raw("k"))),
      refused("metadata: type 6", "ORB2: unknown meta type",
              withValue(static_cast<MetaType>(6), {})),
      refused("metadata: type 255", "ORB2: unknown meta type",
              withValue(static_cast<MetaType>(255), {})),
      refused("metadata: u32 of 3 bytes", "ORB2: bad meta u32",
              withValue(MetaType::U32, Bytes().zeros(3))),
      refused("metadata: i32 of 3 bytes", "ORB2: bad meta i32",
              withValue(MetaType::I32, Bytes().zeros(3))),
      refused("metadata: f32 of 3 bytes", "ORB2: bad meta f32",
              withValue(MetaType::F32, Bytes().zeros(3))),
      refused("metadata: u64 of 7 bytes", "ORB2: bad meta u64",
              withValue(MetaType::U64, Bytes().zeros(7))),
      refused("metadata: string without a length", "ORB2: bad meta str",
              withValue(MetaType::String, Bytes().zeros(3))),
      refused("metadata: string one byte too long", "ORB2: bad meta str",
              withValue(MetaType::String, Bytes().u32(3).raw("ab"))),
      refused("metadata: string of 2^31 bytes", "ORB2: bad meta str",
              withValue(MetaType::String, Bytes().u32(uint32_t{1} << 31).raw("ab"))),
      refused("metadata: string of 2^32 - 1 bytes", "ORB2: bad meta str",
              withValue(MetaType::String, Bytes().u32(UINT32_MAX).raw("ab"))),
      refused("metadata: array without a count", "ORB2: bad meta array",
              withValue(MetaType::U32Array, Bytes().zeros(3))),
      refused("metadata: array one element too long", "ORB2: bad meta array",
              withValue(MetaType::U32Array, Bytes().u32(2).u32(1))),
      refused("metadata: array whose bytes wrap 32 bits", "ORB2: bad meta array",
              withValue(MetaType::U32Array, Bytes().u32((uint32_t{1} << 30) + 1).u32(1))),
      refused("metadata: array of 2^32 - 1 elements", "ORB2: bad meta array",
              withValue(MetaType::U32Array, Bytes().u32(UINT32_MAX).u32(1))),
      foreign("architecture: none", Bytes().u32(0)),
      foreign("architecture: empty", Bytes().u32(1).raw(architecture(""))),
      foreign("architecture: a longer name", Bytes().u32(1).raw(architecture("qwen35 "))),
      foreign("architecture: a NUL byte behind the name",
              Bytes().u32(1).raw(architecture(std::string_view("qwen35\0", 7)))),
      foreign("architecture: a number",
              Bytes().u32(1).metaKey("general.architecture", MetaType::U32).u32(35)),
      foreign("architecture: the first of two counts",
              Bytes().u32(2).raw(architecture("other")).raw(architecture())),
      {"architecture: mixture of experts",
       withMetadata(Bytes().u32(1).raw(architecture("qwen35moe"))), true,
       "qwen35moe not supported yet", "general.architecture"},
  };
}

}  // namespace orbtest
