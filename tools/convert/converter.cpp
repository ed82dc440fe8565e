#include "convert/converter.h"

#include <cmath>
#include <filesystem>

#include "convert/source_types.h"

namespace orb {
namespace {

using kiv::ORB2Writer;
using kiv::Status;

std::string fileNameOf(const std::string& path) {
  std::error_code error;
  const auto whole = std::filesystem::absolute(pathFromUtf8(path), error).lexically_normal();
  return utf8FromPath(whole.has_filename() ? whole.filename() : whole.parent_path().filename());
}

void writeMetadata(ORB2Writer& writer, const SourceModel& model, const ConversionOptions& options) {
  const ModelShape& shape = model.shape;
  writer.setMeta("general.architecture", "qwen35");
  if (!model.name.empty()) writer.setMeta("general.name", model.name);
  writer.setMeta("general.source.format", model.format);
  writer.setMeta("general.source.file", fileNameOf(model.path));
  writer.setMeta("general.source.bytes", model.sourceBytes());
  writer.setMeta("general.converter", options.converter);
  const auto size = [&](const char* key, uint64_t value) {
    writer.setMeta(key, static_cast<uint32_t>(value));  // checkShape() keeps them small
  };
  size("qwen35.block_count", shape.blocks);
  size("qwen35.embedding_length", shape.hidden);
  size("qwen35.feed_forward_length", shape.ffn);
  size("qwen35.attention.head_count", shape.queryHeads);
  size("qwen35.attention.head_count_kv", shape.keyValueHeads);
  size("qwen35.ssm.time_step_rank", shape.valueHeads);
  if (shape.contextLength > 0) writer.setMeta("qwen35.context_length", shape.contextLength);
}

}  // namespace

Status writeTensors(ORB2Writer& writer, const std::vector<PlannedTensor>& plan, unsigned threads,
                    bool measureErrors, const ConversionProgress& progress,
                    ConversionReport& report) {
  TensorWriter tensors(writer, threads, measureErrors, plannedBytes(plan), progress);
  for (const PlannedTensor& planned : plan) {
    TensorRecord record;
    if (Status status = tensors.write(planned, record.findings); !status.ok()) return status;
    if (planned.source == nullptr || planned.passage == Passage::Alias) continue;
    record.name = planned.name;
    record.sourceType = sourceTypeName(planned.source->type);
    record.type = planned.type;
    record.bytes = ORB2Writer::tensorBytes(planned.type, planned.dims);
    record.lossy = planned.lossy;
    report.tensors.push_back(std::move(record));
  }
  return Status::success();
}

double TensorRecord::relativeError() const {
  if (findings.squaredValues <= 0) return 0;
  return std::sqrt(findings.squaredErrors / findings.squaredValues);
}

bool sameFile(const std::string& a, const std::string& b) {
  std::error_code error;
  return std::filesystem::equivalent(pathFromUtf8(a), pathFromUtf8(b), error) && !error;
}

Status convertModel(const SourceModel& model, const std::string& path,
                    const ConversionOptions& options, const ConversionProgress& progress,
                    ConversionReport& report) {
  for (const std::string& file : model.files()) {
    if (sameFile(file, path)) {
      return Status::invalidFormat(path + ": expected another file than the source");
    }
  }
  std::vector<PlannedTensor> plan;
  if (Status status = planConversion(model, options.types, plan); !status.ok()) return status;
  report = {};
  report.identityBlocks = kMaxBlocks - model.shape.blocks;
  const kiv::TokenizerData tokenizer =
      convertTokenizer(model.tokenizer, model.shape.vocabulary, report.tokenizer);

  ORB2Writer writer;
  if (Status status = writer.open(path, options.overwrite); !status.ok()) return status;
  writeMetadata(writer, model, options);
  writer.setTokenizer(tokenizer);
  writer.setText(model.chatTemplate);
  if (Status status =
          writeTensors(writer, plan, options.threads, /*measureErrors=*/false, progress, report);
      !status.ok()) {
    return status;
  }
  return writer.finish();
}

}  // namespace orb
