// orb quantize: an .orb file as the source.
#include <cstring>
#include <map>
#include <string_view>
#include <tuple>

#include "convert/converter.h"
#include "convert/source_types.h"
#include "format/loader.h"

namespace orb {
namespace {

using kiv::ORB2Writer;
using kiv::ORBLoader;
using kiv::QuantType;
using kiv::Status;

// A tensor that the runtime multiplies with, of a size worth quantizing.
bool isMatrix(const kiv::TensorView& view) {
  if (view.ndims != 2 || view.dims[0] == 1 || view.dims[1] == 1) return false;
  std::string_view name = view.name;
  if (name.substr(0, 4) == "blk.") {
    const size_t point = name.find('.', 4);
    if (point == std::string_view::npos) return false;
    name.remove_prefix(point + 1);
  }
  for (const auto rules : {globalTensors(), commonTensors(), linearTensors(), fullTensors()}) {
    for (const TensorRule& rule : rules) {
      if (name == rule.name) return !rule.vector;
    }
  }
  return false;
}

class RequantizePlanner {
 public:
  RequantizePlanner(const ORBLoader& loader, const std::string& path, QuantType type)
      : loader_(loader), path_(path), type_(type) {}

  // `sources` holds what the plan points to.
  Status run(std::vector<SourceTensor>& sources, std::vector<PlannedTensor>& plan) {
    auto file = std::make_shared<InputFile>();
    if (Status status = file->open(path_); !status.ok()) return status;
    sources.reserve(loader_.tensors.size());
    std::map<std::tuple<const uint8_t*, uint64_t, std::vector<uint64_t>, bool>, std::string> first;
    for (const kiv::TensorView& view : loader_.tensors) {
      PlannedTensor tensor;
      if (Status status = describe(view, file, sources, tensor); !status.ok()) return status;
      // The same bytes once, unless their uses ask for different types.
      const bool matrix = tensor.type != static_cast<QuantType>(view.type);
      const auto [place, isNew] =
          first.try_emplace({view.data, view.type, tensor.dims, matrix}, view.name);
      if (!isNew && tensor.type == typeOf_[place->second]) {
        tensor.passage = Passage::Alias;
        tensor.aliasOf = place->second;
      }
      typeOf_[view.name] = tensor.type;
      plan.push_back(std::move(tensor));
    }
    return Status::success();
  }

 private:
  Status describe(const kiv::TensorView& view, const std::shared_ptr<InputFile>& file,
                  std::vector<SourceTensor>& sources, PlannedTensor& tensor) const {
    const auto type = static_cast<QuantType>(view.type);
    const std::vector<uint64_t> dims(view.dims, view.dims + view.ndims);
    const uint64_t bytes = ORB2Writer::tensorBytes(type, dims);
    const auto offset = static_cast<uint64_t>(view.data - loader_.reader.mapping());
    const bool known = type == QuantType::F32 || sourceTypeOf(type) != SourceType::F32;
    if (!known || bytes == 0 || bytes > view.size || offset > file->size() ||
        bytes > file->size() - offset) {
      return Status::invalidFormat(path_ + ": tensor " + view.name +
                                   ": expected one that the runtime can use; orb info --check "
                                   "says more");
    }
    SourceTensor source;
    source.name = tensor.name = view.name;
    source.type = static_cast<uint32_t>(sourceTypeOf(type));
    source.dims = tensor.dims = dims;
    source.file = file;
    source.offset = offset;
    source.bytes = bytes;
    sources.push_back(std::move(source));
    tensor.source = &sources.back();
    tensor.rowLength = dims[0];
    tensor.rows = 1;
    for (size_t i = 1; i < dims.size(); ++i) tensor.rows *= dims[i];
    tensor.sourceRows = tensor.rows;
    tensor.type = isMatrix(view) ? mixedType(view.name, type_, dims[0]) : type;
    tensor.passage = tensor.type == type ? Passage::Copy : Passage::Floats;
    tensor.lossy = tensor.type != type && tensor.type != QuantType::F32;
    return Status::success();
  }

  const ORBLoader& loader_;
  const std::string& path_;
  QuantType type_;
  std::map<std::string, QuantType> typeOf_;
};

// Everything but the note of who wrote the file; of keys that come more than once, the first.
void copyMetadata(const ORBLoader& loader, const std::string& converter, ORB2Writer& writer) {
  constexpr const char* kConverterKey = "general.converter";
  std::map<std::string, bool> seen;
  kiv::ORB2Reader::MetaEntryView entry;
  for (uint64_t i = 0; loader.reader.metaAt(i, entry); ++i) {
    if (entry.key == kConverterKey || !seen.emplace(entry.key, true).second) continue;
    switch (static_cast<kiv::orb2::MetaType>(entry.type)) {
      case kiv::orb2::MetaType::U32:
        writer.setMeta(entry.key, entry.u32);
        break;
      case kiv::orb2::MetaType::I32:
        writer.setMeta(entry.key, entry.i32);
        break;
      case kiv::orb2::MetaType::F32:
        writer.setMeta(entry.key, entry.f32);
        break;
      case kiv::orb2::MetaType::U64:
        writer.setMeta(entry.key, entry.u64);
        break;
      case kiv::orb2::MetaType::String:
        writer.setMeta(entry.key, entry.str);
        break;
      case kiv::orb2::MetaType::U32Array:
        writer.setMeta(entry.key, entry.u32Array);
        break;
    }
  }
  writer.setMeta(kConverterKey, converter);
}

}  // namespace

Status requantizeModel(const std::string& source, const std::string& path,
                       const ConversionOptions& options, const ConversionProgress& progress,
                       ConversionReport& report) {
  if (sameFile(source, path)) {
    return Status::invalidFormat(path + ": expected another file than the source");
  }
  ORBLoader loader;
  if (Status status = loader.open(source.c_str(), /*largeFiles=*/true); !status.ok()) {
    return status;
  }
  std::vector<SourceTensor> sources;
  std::vector<PlannedTensor> plan;
  RequantizePlanner planner(loader, source, options.types.type.value_or(QuantType::Q4_K));
  if (Status status = planner.run(sources, plan); !status.ok()) return status;

  report = {};
  ORB2Writer writer;
  if (Status status = writer.open(path, options.overwrite); !status.ok()) return status;
  copyMetadata(loader, options.converter, writer);
  writer.setTokenizer(loader.tokenizer);
  writer.setText(loader.text);
  writer.setHeaderWords(loader.headerWordA, loader.headerWordB, loader.headerWordC);
  if (Status status =
          writeTensors(writer, plan, options.threads, /*measureErrors=*/true, progress, report);
      !status.ok()) {
    return status;
  }
  return writer.finish();
}

}  // namespace orb
