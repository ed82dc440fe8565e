// The whole way from a checkpoint to an .orb file.
#pragma once

#include <string>
#include <vector>

#include "convert/conversion_plan.h"
#include "convert/tensor_writer.h"
#include "convert/tokenizer_conversion.h"

namespace orb {

struct ConversionOptions {
  TypeChoice types;
  bool overwrite = false;
  unsigned threads = 1;
  std::string converter;  // name and version, for the metadata
};

// What became of one tensor of the source.
struct TensorRecord {
  std::string name;
  std::string sourceType;
  kiv::QuantType type = kiv::QuantType::F32;
  uint64_t bytes = 0;
  bool lossy = false;
  TensorFindings findings;

  // A value that no trained model has.
  bool suspicious() const { return findings.notFinite > 0 || findings.largest > kAbsurdWeight; }
  // Root mean square of the errors over that of the values; 0 when they were not measured.
  double relativeError() const;
};

struct ConversionReport {
  std::vector<TensorRecord> tensors;
  TokenizerReport tokenizer;
  uint64_t identityBlocks = 0;  // that fill the model up
};

// Writes beside `path` and renames at the end; a failure leaves nothing. Refuses a `path` that is
// one of the sources. Messages of refusals name the source, those of the writer the destination.
kiv::Status convertModel(const SourceModel& model, const std::string& path,
                         const ConversionOptions& options, const ConversionProgress& progress,
                         ConversionReport& report);

// The same weights in other types: matrices become `options.types.type`, everything else stays.
// Errors are measured.
kiv::Status requantizeModel(const std::string& source, const std::string& path,
                            const ConversionOptions& options, const ConversionProgress& progress,
                            ConversionReport& report);

// The tensors of a plan into an opened writer; what both of the above do.
kiv::Status writeTensors(kiv::ORB2Writer& writer, const std::vector<PlannedTensor>& plan,
                         unsigned threads, bool measureErrors, const ConversionProgress& progress,
                         ConversionReport& report);

// Whether both name one existing file.
bool sameFile(const std::string& a, const std::string& b);

}  // namespace orb
