#include "convert/source_model.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <set>
#include <unordered_map>

#include "convert/source_types.h"

namespace orb {
namespace {

using kiv::Status;

// Dimensions without those of 1, which say nothing.
std::vector<uint64_t> squeezed(const std::vector<uint64_t>& dims) {
  std::vector<uint64_t> result;
  std::copy_if(dims.begin(), dims.end(), std::back_inserter(result),
               [](uint64_t dim) { return dim != 1; });
  return result;
}

std::string dimsText(const std::vector<uint64_t>& dims) {
  std::string text;
  for (const uint64_t dim : dims) text += (text.empty() ? "" : " x ") + std::to_string(dim);
  return text;
}

Status refuse(const SourceTensor& tensor, const std::string& expected, const std::string& found) {
  return Status::invalidFormat(tensor.file->path() + ": tensor " + tensor.name + ": expected " +
                               expected + ", found " + found);
}

class Mapper {
 public:
  Mapper(SourceModel& model, const std::string& prefix) : model_(model), prefix_(prefix) {
    for (const SourceTensor& tensor : model.tensors) byName_.emplace(tensor.name, &tensor);
  }

  Status run() {
    for (const TensorRule& rule : globalTensors()) {
      if (Status status = map(rule, rule.name, prefix_ + rule.original); !status.ok()) {
        return status;
      }
    }
    for (uint64_t block = 0; block < model_.shape.blocks; ++block) {
      const std::string number = std::to_string(block) + ".";
      const std::string ours = "blk." + number;
      const std::string theirs = prefix_ + "layers." + number;
      if (Status status = mapAll(commonTensors(), ours, theirs); !status.ok()) return status;
      const bool linear = find(ours + "ssm_out.weight", theirs + "linear_attn.out_proj.weight");
      const auto rules = linear ? linearTensors() : fullTensors();
      if (Status status = mapAll(rules, ours, theirs); !status.ok()) return status;
    }
    return Status::success();
  }

  const SourceTensor* find(const std::string& ours, const std::string& theirs) const {
    const auto found = byName_.find(model_.original ? theirs : ours);
    return found == byName_.end() ? nullptr : found->second;
  }

 private:
  Status mapAll(std::span<const TensorRule> rules, const std::string& ours,
                const std::string& theirs) {
    for (const TensorRule& rule : rules) {
      if (Status status = map(rule, ours + rule.name, theirs + rule.original); !status.ok()) {
        return status;
      }
    }
    return Status::success();
  }

  Status map(const TensorRule& rule, const std::string& ours, const std::string& theirs) {
    const SourceTensor* tensor = find(ours, theirs);
    if (tensor == nullptr) {
      if (rule.optional) return Status::success();
      return Status::invalidFormat(model_.path + ": tensor " + (model_.original ? theirs : ours) +
                                   ": expected, found none of that name");
    }
    const SourceTypeInfo* type = findSourceType(tensor->type);
    if (type == nullptr || tensor->bytes == 0) {
      return refuse(
          *tensor, "a type that can be converted",
          model_.original ? "another than F32, F16 and BF16" : sourceTypeName(tensor->type));
    }
    if (rule.vector && type->blockElements != 1) {
      return refuse(*tensor, "type F32, F16 or BF16", type->name);
    }
    const std::vector<uint64_t> expected = {sizeOf(rule.columns, model_.shape),
                                            sizeOf(rule.rows, model_.shape)};
    if (squeezed(tensor->dims) != squeezed(expected)) {
      return refuse(*tensor, "dimensions " + dimsText(squeezed(expected)), dimsText(tensor->dims));
    }
    model_.mapped.push_back({ours, &rule, tensor});
    return Status::success();
  }

  SourceModel& model_;
  std::string prefix_;
  std::unordered_map<std::string, const SourceTensor*> byName_;
};

// Whether two tensors hold the same bytes; stops at the first difference.
Status compareBytes(const SourceTensor& a, const SourceTensor& b, bool& same) {
  constexpr uint64_t kChunk = 1 << 20;
  same = a.type == b.type && a.bytes == b.bytes && a.dims == b.dims;
  std::vector<char> first(kChunk);
  std::vector<char> second(kChunk);
  for (uint64_t at = 0; same && at < a.bytes; at += kChunk) {
    const uint64_t part = std::min(kChunk, a.bytes - at);
    if (Status status = a.file->read(a.offset + at, first.data(), part); !status.ok()) {
      return status;
    }
    if (Status status = b.file->read(b.offset + at, second.data(), part); !status.ok()) {
      return status;
    }
    same = std::memcmp(first.data(), second.data(), part) == 0;
  }
  return Status::success();
}

}  // namespace

uint64_t SourceModel::sourceBytes() const {
  std::set<const InputFile*> seen;
  uint64_t sum = 0;
  for (const SourceTensor& tensor : tensors) {
    if (seen.insert(tensor.file.get()).second) sum += tensor.file->size();
  }
  return sum;
}

std::vector<std::string> SourceModel::files() const {
  std::set<std::string> paths;
  for (const SourceTensor& tensor : tensors) paths.insert(tensor.file->path());
  return {paths.begin(), paths.end()};
}

Status mapTensors(SourceModel& model, const std::string& prefix, const std::string& outputName) {
  Mapper mapper(model, prefix);
  if (Status status = mapper.run(); !status.ok()) return status;
  const SourceTensor* output = mapper.find(outputName, outputName);
  if (output == nullptr) return Status::success();
  bool same = false;
  if (Status status = compareBytes(*model.mapped.front().source, *output, same); !status.ok()) {
    return status;
  }
  if (same) return Status::success();
  return refuse(*output, "no output matrix of its own, or the same bytes as the embedding",
                "another matrix; the runtime has the embedding only");
}

Status readSourceModel(const std::string& path, SourceModel& out) {
  std::error_code error;
  if (std::filesystem::is_directory(pathFromUtf8(path), error)) {
    return readSafetensorsModel(path, out);
  }
  InputFile file;
  if (Status status = file.open(path); !status.ok()) return status;
  if (GgufReader::recognizes(path)) return readGgufModel(path, out);
  return Status::invalidFormat(path +
                               ": expected a GGUF file, or a folder with config.json, "
                               "*.safetensors and tokenizer.json, found neither");
}

}  // namespace orb
