// Which tensors a converted model has, in which element types, and how each comes about.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "convert/source_model.h"
#include "quant/quant_type.h"

namespace orb {

struct TypeChoice {
  // Element type of the matrices; a little more is spent on the embedding, the values and the way
  // down of the feed-forward step. Without it every tensor stays as close to its source as can be.
  std::optional<kiv::QuantType> type;
  kiv::QuantType halves = kiv::QuantType::F32;  // what F16 becomes without `type`: F32 or BF16
  bool strict = false;  // refuse what loses precision without being asked for
};

enum class Passage { Copy, Reencode, Floats, Zeros, Alias };

struct PlannedTensor {
  std::string name;
  kiv::QuantType type = kiv::QuantType::F32;
  std::vector<uint64_t> dims;
  Passage passage = Passage::Floats;
  // As the values are read: rows of rowLength, the last of `rows` zeros when the source has fewer.
  uint64_t rowLength = 1;
  uint64_t rows = 1;
  uint64_t sourceRows = 0;
  const SourceTensor* source = nullptr;
  ValueChange change = ValueChange::None;
  HeadOrder order = HeadOrder::Same;
  uint64_t firstRow = 0;  // of the value heads, as in TensorRule
  uint64_t headRows = 1;
  uint64_t valueHeads = 0;
  std::string aliasOf;  // the tensor whose bytes it shares

  bool lossy = false;  // the type holds less than the source does
};

// The element type of a matrix in a model of mainly `type`; of one that takes rows of this length.
kiv::QuantType mixedType(const std::string& name, kiv::QuantType type, uint64_t rowLength);

// Fails only in strict mode, naming the tensor.
kiv::Status planConversion(const SourceModel& model, const TypeChoice& choice,
                           std::vector<PlannedTensor>& plan);

// Bytes that the planned tensors take in the result.
uint64_t plannedBytes(const std::vector<PlannedTensor>& plan);

}  // namespace orb
