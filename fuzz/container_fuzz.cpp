// Files through reader, loader, validation, binding and the forward pass.
//
// Input: a byte of modes, then
//   raw      the file as it stands
//   patched  a valid small model with changes: each a byte of kind and what belongs to it
#include <omp.h>

#include <array>

#include "fuzz.h"
#include "hostile/smallest_model.h"
#include "input.h"
#include "model/forward.h"
#include "model/kernels/kernel_table.h"
#include "model/model.h"
#include "model/validation.h"

namespace {

using kiv::ORBLoader;
using kiv::orb2::SectionType;
using orbfuzz::Input;
using orbfuzz::require;

using File = std::vector<uint8_t>;

enum Mode : uint8_t { kPatched = 1, kSealed = 2, kLargeFiles = 4, kLinear = 8, kTiers = 48 };
enum Patch : uint8_t { kIndexField, kWeights, kTable, kTextSections, kCut, kPatchKinds };

constexpr size_t kMaxContext = 4;
constexpr size_t kIndexEntry = sizeof(kiv::orb2::TensorIndexEntry);

// Where field `field` of an index entry lies, and how many bytes it has.
constexpr std::array<std::pair<size_t, size_t>, 12> kIndexFields = {{
    {0, 8},
    {8, 8},
    {16, 8},
    {64, 2},
    {66, 2},
    {68, 2},
    {72, 8},
    {80, 8},
    {88, 8},
    {96, 8},
    {104, 8},
    {112, 8},
}};

struct Base {
  File file;
  uint64_t index = 0;
  uint64_t tensors = 0;
  uint64_t weights = 0;
  uint64_t text = 0;  // metadata and tokenizer

  explicit Base(size_t linear) : file(orbtest::smallestModel(linear).build()) {
    kiv::ORB2Reader reader;
    const orbfuzz::MemoryFile place(file);
    require(reader.open(place.path()).ok(), "the base model opens");
    tensors = reader.header().tensorCount;
    index = reader.section(SectionType::TensorIndex)->offset;
    weights = reader.section(SectionType::WeightData)->offset;
    text = reader.section(SectionType::Meta)->offset;
    text = std::min(text, reader.section(SectionType::Tokenizer)->offset);
  }
};

void overwrite(File& file, uint64_t at, std::string_view bytes) {
  for (size_t i = 0; i < bytes.size() && at + i < file.size(); ++i) {
    file[at + i] = static_cast<uint8_t>(bytes[i]);
  }
}

void patch(File& file, const Base& base, Input& input) {
  switch (input.byte() % kPatchKinds) {
    case kIndexField: {
      const size_t entry = input.below(base.tensors);
      const auto [at, size] = kIndexFields[input.byte() % kIndexFields.size()];
      overwrite(file, base.index + entry * kIndexEntry + at, input.take(size));
      break;
    }
    case kWeights: {
      const uint64_t at = base.weights + input.number<uint16_t>();
      overwrite(file, at, input.take(input.byte()));
      break;
    }
    case kTable: {
      const size_t at = input.below(64 + 16 * 24);
      overwrite(file, at, input.take(8));
      break;
    }
    case kTextSections: {
      const uint64_t at = base.text + input.below(1024);
      overwrite(file, at, input.take(input.byte() % 16));
      break;
    }
    case kCut:
      file.resize(std::min<size_t>(file.size(), input.number<uint32_t>() % (file.size() + 1)));
      break;
  }
}

void readEverything(const kiv::ORB2Reader& reader) {
  kiv::ORB2Reader::MetaEntryView entry;
  for (uint64_t i = 0; reader.metaAt(i, entry); ++i) {
    std::string text;
    uint32_t number = 0;
    (void)reader.getMetaStr(entry.key.c_str(), text);
    (void)reader.getMetaU32(entry.key.c_str(), number);
  }
  for (uint64_t i = 0; i < reader.header().tensorCount; ++i) {
    const kiv::TensorEntryView view = reader.tensorView(i);
    require(view.ndims <= 4, "a view has at most four dimensions");
  }
  require(reader.tensorView(reader.header().tensorCount).data == nullptr, "no tensor at the count");
  for (const char* name : {"token_embd.weight", "", "blk.31.attn_q.weight"}) {
    (void)reader.findTensor(name);
  }
  require(reader.aligned64(), "sections are aligned");
}

void runTokens(qwen35::Model& model) {
  const size_t vocabulary = model.vocabularySize;
  require(vocabulary > 0 && model.hiddenSize > 0, "a bound model has sizes");
  std::vector<float> embedding(model.hiddenSize);
  std::vector<float> logits(vocabulary);
  qwen35::embedRow(model, vocabulary - 1, embedding.data());
  qwen35::forwardToken(model, embedding.data(), 0, logits.data());
  const std::array<int32_t, 2> batch = {0, static_cast<int32_t>(vocabulary - 1)};
  (void)qwen35::forwardBatch(model, batch.data(), batch.size(), 1, logits.data());
}

const qwen35::KernelTable& tierOf(uint8_t mode) {
  constexpr std::array<const char*, 4> kNames = {"scalar", "avx2", "avx512", nullptr};
  return qwen35::selectKernels(kNames[(mode & kTiers) >> 4]);
}

void bind(ORBLoader& loader, const qwen35::KernelTable& tier) {
  bool blocks = true;
  for (size_t i = 0; i < qwen35::kLayerCount; ++i) {
    blocks = blocks && qwen35::findBlockDefects(loader, i).empty();
  }
  const bool global = qwen35::findGlobalDefects(loader).empty();
  qwen35::Model model;
  model.kernels = &tier;
  const bool bound = qwen35::initLayers(loader, model, kMaxContext);
  require(bound == blocks, "blocks without defects bind and no others");
  if (!bound) return;
  const bool whole = qwen35::bindModel(loader, model, kMaxContext);
  require(whole == global, "a model without defects binds and no other");
  if (whole) runTokens(model);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  omp_set_num_threads(1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Base kBases[] = {Base(0), Base(1)};
  Input input(data, size);
  const uint8_t mode = input.byte();
  File file;
  if ((mode & kPatched) != 0) {
    const Base& base = kBases[(mode & kLinear) != 0 ? 1 : 0];
    file = base.file;
    while (!input.empty()) patch(file, base, input);
  } else {
    const std::string_view bytes = input.rest();
    file.assign(bytes.begin(), bytes.end());
  }
  if ((mode & kSealed) != 0 && file.size() >= 64) orbtest::reseal(file);
  const orbfuzz::MemoryFile place(file);
  ORBLoader loader;
  const bool opened = loader.open(place.path(), (mode & kLargeFiles) != 0).ok();
  require(opened == loader.opened, "the loader says whether it is open");
  if (loader.reader.opened()) readEverything(loader.reader);
  if (opened) bind(loader, tierOf(mode));
  return 0;
}
