#include "format/loader.h"

#include <algorithm>
#include <cstring>

#include "quant/quant_type.h"

namespace kiv {
namespace {

// Two codes behind the last known type pass as they are, everything above reads as IQ4_XS; neither
// can be used, and both are refused where a model is bound.
constexpr uint16_t kFirstClampedType = 11;

TensorView makeView(const ORB2Reader& reader, uint64_t index) {
  const TensorEntryView entry = reader.tensorView(index);
  TensorView view;
  view.data = entry.data;
  view.size = entry.size;
  view.type =
      entry.type < kFirstClampedType ? entry.type : static_cast<uint16_t>(QuantType::IQ4_XS);
  std::copy_n(entry.dims, 4, view.dims);
  view.ndims = entry.ndims;

  view.quant.type = view.type;
  if (index < reader.quantInfo().size()) {
    const orb2::QuantInfoRecord& record = reader.quantInfo()[index];
    view.quant.a = record.a;
    view.quant.b = record.b;
    view.quant.c = record.c;
    view.quant.d = record.d;
    view.quant.e = record.e;
  }

  const auto* entries = reinterpret_cast<const orb2::TensorIndexEntry*>(
      reader.sectionData(orb2::SectionType::TensorIndex));
  const orb2::TensorIndexEntry& stored = entries[index];
  view.name.assign(stored.name, std::min<size_t>(stored.nameLength, sizeof stored.name));
  return view;
}

}  // namespace

Status ORBLoader::open(const char* path, bool largeFiles) {
  close();
  if (Status status = reader.open(path, largeFiles); !status.ok()) return status;
  headerWordA = reader.header().wordA;
  headerWordB = reader.header().wordB;
  headerWordC = reader.header().wordC;
  tensorCount = reader.header().tensorCount;

  tensors.reserve(tensorCount);  // the reader checked that the index holds as many
  for (uint64_t i = 0; i < tensorCount; ++i) tensors.push_back(makeView(reader, i));

  if (!reader.readTokenizer(tokenizer)) {
    return Status::invalidFormat("ORBLoader: no tokenizer section");
  }
  tokenizerModel = tokenizer.model;

  const uint64_t textSize = reader.sectionSize(orb2::SectionType::Text);
  if (textSize != 0) {
    const uint8_t* bytes = reader.sectionData(orb2::SectionType::Text);
    text.assign(reinterpret_cast<const char*>(bytes), textSize);
  }
  opened = true;
  return Status::success();
}

const TensorView* ORBLoader::findTensor(const std::string& name) const {
  if (!opened) return nullptr;
  const auto found =
      std::lower_bound(tensors.begin(), tensors.end(), name,
                       [](const TensorView& view, const std::string& n) { return view.name < n; });
  return found != tensors.end() && found->name == name ? &*found : nullptr;
}

void ORBLoader::close() {
  reader.close();
  tensors.clear();
  tokenizer = {};
  tokenizerModel.clear();
  text.clear();
  headerWordA = headerWordB = headerWordC = tensorCount = 0;
  opened = false;
}

}  // namespace kiv
