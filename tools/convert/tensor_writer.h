// Streams one planned tensor after the other from its source into a container: reads runs of rows,
// converts them on all threads, writes them in order. Memory: a few chunks of some megabytes.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "convert/conversion_plan.h"
#include "format/orb2_writer.h"

namespace orb {

// Called now and then with the bytes of weights written and those in all; false stops the work.
using ConversionProgress = std::function<bool(uint64_t doneBytes, uint64_t totalBytes)>;

// What was seen of the values on their way.
struct TensorFindings {
  uint64_t notFinite = 0;
  float largest = 0;         // magnitude; of values of block types that are copied: an upper bound
  double squaredValues = 0;  // of the source; both only when errors are measured
  double squaredErrors = 0;  // of the result against it
};

// Larger magnitudes occur in no trained model.
inline constexpr float kAbsurdWeight = 1e4f;

// Encodes `count` floats (whole blocks) as any type of the runtime.
void encodeValues(kiv::QuantType type, const float* values, uint8_t* out, uint64_t count);

class TensorWriter {
 public:
  TensorWriter(kiv::ORB2Writer& writer, unsigned threads, bool measureErrors, uint64_t totalBytes,
               const ConversionProgress& progress)
      : writer_(writer),
        threads_(threads),
        measureErrors_(measureErrors),
        totalBytes_(totalBytes),
        progress_(progress) {}

  // The message of a stop is "stopped".
  kiv::Status write(const PlannedTensor& tensor, TensorFindings& findings);

 private:
  kiv::Status writeRows(const PlannedTensor& tensor, uint64_t first, uint64_t last,
                        TensorFindings& findings);
  kiv::Status readRows(const PlannedTensor& tensor, uint64_t first, uint64_t last);
  kiv::Status append(const std::vector<uint8_t>& bytes);

  kiv::ORB2Writer& writer_;
  unsigned threads_;
  bool measureErrors_;
  uint64_t totalBytes_;
  uint64_t doneBytes_ = 0;
  const ConversionProgress& progress_;
  std::vector<uint8_t> raw_;      // source rows of the chunk, in the result's order
  std::vector<uint8_t> encoded_;  // rows of the result
};

}  // namespace orb
