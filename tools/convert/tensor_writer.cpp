#include "convert/tensor_writer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <thread>

#include "convert/source_types.h"
#include "quant/block_codec.h"
#include "quant/blocks.h"
#include "quant/k_blocks.h"

namespace orb {
namespace {

using kiv::QuantType;
using kiv::Status;
using kiv::quant::loadHalf;

constexpr uint64_t kChunkElements = uint64_t{4} << 20;

// Rounds to nearest, ties to even; a NaN stays one.
uint16_t toBf16(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  if (value != value) return static_cast<uint16_t>(bits >> 16 | 0x40);
  return static_cast<uint16_t>((bits + 0x7FFF + (bits >> 16 & 1)) >> 16);
}

void look(const float* values, uint64_t count, TensorFindings& findings) {
  float largest = findings.largest;
  uint64_t notFinite = 0;
  for (uint64_t i = 0; i < count; ++i) {
    const float magnitude = std::fabs(values[i]);
    if (magnitude <= std::numeric_limits<float>::max()) {
      largest = std::max(largest, magnitude);
    } else {
      ++notFinite;
    }
  }
  findings.largest = largest;
  findings.notFinite += notFinite;
}

// The largest magnitude that the scales of one block allow.
float boundOfBlock(QuantType type, const uint8_t* block) {
  switch (type) {
    case QuantType::Q8_0:
      return 128 * std::fabs(loadHalf(block));
    case QuantType::Q4_K:
      return 63 * 15 * std::fabs(loadHalf(block)) + 63 * std::fabs(loadHalf(block + 2));
    case QuantType::Q5_K:
      return 63 * 31 * std::fabs(loadHalf(block)) + 63 * std::fabs(loadHalf(block + 2));
    default:  // Q6_K
      return 128 * 32 * std::fabs(loadHalf(block + 208));
  }
}

// Values of a container type. Blocks are decoded only when their scales allow something absurd.
void lookAtBlocks(QuantType type, const uint8_t* bytes, uint64_t count, TensorFindings& findings) {
  const SourceTypeInfo& info = sourceType(sourceTypeOf(type));
  float values[256];
  if (info.blockElements == 1) {
    for (uint64_t i = 0; i < count; i += 256) {
      const uint64_t part = std::min<uint64_t>(256, count - i);
      info.decode(bytes + i * info.blockBytes, values, part);
      look(values, part, findings);
    }
    return;
  }
  for (uint64_t i = 0; i < count; ++i, bytes += info.blockBytes) {
    const float bound = boundOfBlock(type, bytes);
    if (bound <= kAbsurdWeight) {
      findings.largest = std::max(findings.largest, bound);
    } else {
      info.decode(bytes, values, 1);
      look(values, info.blockElements, findings);
    }
  }
}

// The source row of a row of the result.
uint64_t sourceRow(const PlannedTensor& tensor, uint64_t row) {
  if (tensor.order != HeadOrder::Rows || row < tensor.firstRow) return row;
  const uint64_t inHeads = row - tensor.firstRow;
  const uint64_t head = groupedHead(inHeads / tensor.headRows, tensor.valueHeads);
  return tensor.firstRow + head * tensor.headRows + inHeads % tensor.headRows;
}

void changeValues(ValueChange change, float* values, uint64_t count) {
  if (change == ValueChange::PlusOne) {
    for (uint64_t i = 0; i < count; ++i) values[i] += 1;
  } else if (change == ValueChange::NegativeExponential) {
    for (uint64_t i = 0; i < count; ++i) values[i] = -std::exp(values[i]);
  }
}

// Converts rows of one tensor; one object a thread.
class RowConverter {
 public:
  RowConverter(const PlannedTensor& tensor, bool measureErrors)
      : tensor_(tensor),
        source_(*findSourceType(tensor.source->type)),
        target_(sourceType(sourceTypeOf(tensor.type))),
        measureErrors_(measureErrors && tensor.lossy),
        sourceBlocks_(tensor.rowLength / source_.blockElements),
        targetBlocks_(tensor.rowLength / target_.blockElements) {}

  // `rows` source rows to as many of the result.
  void convert(const uint8_t* raw, uint8_t* out, uint64_t rows) {
    if (tensor_.passage == Passage::Copy) {
      lookAtBlocks(tensor_.type, raw, rows * sourceBlocks_, findings);
    } else if (tensor_.passage == Passage::Reencode) {
      source_.reencode(raw, out, rows * sourceBlocks_);
      lookAtBlocks(tensor_.type, out, rows * targetBlocks_, findings);
      if (measureErrors_) measure(raw, out, rows);
    } else {
      throughFloats(raw, out, rows);
    }
  }

  TensorFindings findings;

 private:
  // Some thousand elements at a time, so that they stay in the cache.
  void throughFloats(const uint8_t* raw, uint8_t* out, uint64_t rows) {
    const uint64_t step = std::max<uint64_t>(1, 4096 / tensor_.rowLength);
    for (uint64_t row = 0; row < rows; row += step) {
      const uint64_t part = std::min(step, rows - row);
      const uint64_t count = part * tensor_.rowLength;
      values_.resize(count);
      source_.decode(raw + row * sourceBlocks_ * source_.blockBytes, values_.data(),
                     part * sourceBlocks_);
      if (tensor_.order == HeadOrder::Columns) tileColumns(part);
      changeValues(tensor_.change, values_.data(), count);
      look(values_.data(), count, findings);
      uint8_t* target = out + row * targetBlocks_ * target_.blockBytes;
      encodeValues(tensor_.type, values_.data(), target, count);
      if (measureErrors_) compare(target, part);
    }
  }

  void tileColumns(uint64_t rows) {
    other_.resize(values_.size());
    const uint64_t width = tensor_.headRows;
    for (uint64_t row = 0; row < rows; ++row) {
      const float* from = values_.data() + row * tensor_.rowLength;
      float* to = other_.data() + row * tensor_.rowLength;
      for (uint64_t head = 0; head < tensor_.valueHeads; ++head) {
        std::copy_n(from + groupedHead(head, tensor_.valueHeads) * width, width, to + head * width);
      }
    }
    values_.swap(other_);
  }

  void measure(const uint8_t* raw, const uint8_t* out, uint64_t rows) {
    values_.resize(tensor_.rowLength);
    for (uint64_t row = 0; row < rows; ++row) {
      source_.decode(raw + row * sourceBlocks_ * source_.blockBytes, values_.data(), sourceBlocks_);
      compare(out + row * targetBlocks_ * target_.blockBytes, 1);
    }
  }

  // The rows in values_ against their encoding.
  void compare(const uint8_t* encoded, uint64_t rows) {
    other_.resize(values_.size());
    target_.decode(encoded, other_.data(), rows * targetBlocks_);
    for (size_t i = 0; i < values_.size(); ++i) {
      const double value = values_[i];
      const double error = other_[i] - value;
      findings.squaredValues += value * value;
      findings.squaredErrors += error * error;
    }
  }

  const PlannedTensor& tensor_;
  const SourceTypeInfo& source_;
  const SourceTypeInfo& target_;
  bool measureErrors_;
  uint64_t sourceBlocks_;  // a row
  uint64_t targetBlocks_;
  std::vector<float> values_;
  std::vector<float> other_;
};

void merge(const TensorFindings& part, TensorFindings& findings) {
  findings.notFinite += part.notFinite;
  findings.largest = std::max(findings.largest, part.largest);
  findings.squaredValues += part.squaredValues;
  findings.squaredErrors += part.squaredErrors;
}

// Calls work(thread, first, last) for contiguous shares of `count` on as many threads.
template <typename Work>
void inParallel(unsigned threads, uint64_t count, const Work& work) {
  std::vector<std::thread> others;
  const auto begin = [&](unsigned thread) { return count * thread / threads; };
  for (unsigned thread = 1; thread < threads; ++thread) {
    others.emplace_back([&, thread] { work(thread, begin(thread), begin(thread + 1)); });
  }
  work(0, 0, begin(1));
  for (std::thread& other : others) other.join();
}

}  // namespace

void encodeValues(QuantType type, const float* values, uint8_t* out, uint64_t count) {
  switch (type) {
    case QuantType::BF16:
      for (uint64_t i = 0; i < count; ++i) {
        const uint16_t bits = toBf16(values[i]);
        std::memcpy(out + 2 * i, &bits, sizeof bits);
      }
      return;
    case QuantType::Q8_0:
      kiv::quant::quantQ80(values, out, count);
      return;
    case QuantType::Q4_K:
      kiv::quant::quantQ4K(values, out, count);
      return;
    case QuantType::Q5_K:
      kiv::quant::quantQ5K(values, out, count);
      return;
    case QuantType::Q6_K:
      kiv::quant::quantQ6K(values, out, count);
      return;
    default:
      std::memcpy(out, values, count * sizeof(float));
  }
}

Status TensorWriter::write(const PlannedTensor& tensor, TensorFindings& findings) {
  if (tensor.passage == Passage::Alias) return writer_.addAlias(tensor.name, tensor.aliasOf);
  if (Status status = writer_.beginTensor(tensor.name, tensor.type, tensor.dims); !status.ok()) {
    return status;
  }
  const uint64_t step = std::max<uint64_t>(1, kChunkElements / tensor.rowLength);
  for (uint64_t first = 0; first < tensor.rows; first += step) {
    const uint64_t last = std::min(tensor.rows, first + step);
    if (Status status = writeRows(tensor, first, last, findings); !status.ok()) return status;
  }
  return writer_.endTensor();
}

Status TensorWriter::writeRows(const PlannedTensor& tensor, uint64_t first, uint64_t last,
                               TensorFindings& findings) {
  const uint64_t rowBytes = kiv::quant::quantizedBytes(tensor.type, tensor.rowLength);
  const uint64_t known = std::min(last, std::max(first, tensor.sourceRows));
  if (Status status = readRows(tensor, first, known); !status.ok()) return status;
  const bool copy = tensor.passage == Passage::Copy;
  encoded_.assign(copy ? 0 : (last - first) * rowBytes, 0);
  if (known > first) {
    const uint64_t rawBytes = raw_.size() / (known - first);
    const unsigned threads = (known - first) * tensor.rowLength < 65536 ? 1 : threads_;
    std::vector<RowConverter> converters(threads, RowConverter(tensor, measureErrors_));
    inParallel(threads, known - first, [&](unsigned thread, uint64_t begin, uint64_t end) {
      converters[thread].convert(raw_.data() + begin * rawBytes,
                                 copy ? nullptr : encoded_.data() + begin * rowBytes, end - begin);
    });
    for (const RowConverter& converter : converters) merge(converter.findings, findings);
  }
  return append(copy ? raw_ : encoded_);
}

// Neighbouring rows in one go.
Status TensorWriter::readRows(const PlannedTensor& tensor, uint64_t first, uint64_t last) {
  raw_.clear();
  if (first >= last) return Status::success();
  const SourceTypeInfo& info = *findSourceType(tensor.source->type);
  const uint64_t rowBytes = tensor.rowLength / info.blockElements * info.blockBytes;
  raw_.resize((last - first) * rowBytes);
  for (uint64_t row = first; row < last;) {
    const uint64_t from = sourceRow(tensor, row);
    uint64_t end = row + 1;
    while (end < last && sourceRow(tensor, end) == from + (end - row)) ++end;
    Status status =
        tensor.source->file->read(tensor.source->offset + from * rowBytes,
                                  raw_.data() + (row - first) * rowBytes, (end - row) * rowBytes);
    if (!status.ok()) return status;
    row = end;
  }
  return Status::success();
}

Status TensorWriter::append(const std::vector<uint8_t>& bytes) {
  if (Status status = writer_.append(bytes.data(), bytes.size()); !status.ok()) return status;
  doneBytes_ += bytes.size();
  if (!progress_ || progress_(doneBytes_, totalBytes_)) return Status::success();
  return Status::ioError("stopped");
}

}  // namespace orb
