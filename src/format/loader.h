// The open model file as the rest of the system sees it: the container reader plus ready-to-use
// records of every tensor, the tokenizer and the text section. No weight byte is copied.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compat/export.h"
#include "format/orb2_reader.h"
#include "format/tensor_view.h"
#include "format/tokenizer_data.h"
#include "quant/status.h"

namespace kiv {

// Threads: one thread opens and closes; between the two, findTensor() and the fields may be read
// from any. The records point into the reader's mapping and are valid until close().
class ORB_API ORBLoader {
 public:
  ORBLoader() = default;
  ~ORBLoader() { close(); }
  ORBLoader(const ORBLoader&) = delete;
  ORBLoader& operator=(const ORBLoader&) = delete;

  // Opens `path` and builds the records. A failure of the reader is returned unchanged and leaves
  // the loader closed. Without a readable tokenizer section: "ORBLoader: no tokenizer section",
  // with the reader left open (its metadata stays readable) and `opened` false.
  Status open(const char* path, bool largeFiles = false);

  // The record of exactly that name, or null; binary search, so the file's index must be sorted.
  const TensorView* findTensor(const std::string& name) const;

  void close();

  ORB2Reader reader;
  uint64_t headerWordA = 0;
  uint64_t headerWordB = 0;
  uint64_t headerWordC = 0;
  uint64_t tensorCount = 0;
  std::vector<TensorView> tensors;  // in index order
  TokenizerData tokenizer;
  std::string tokenizerModel;
  std::string text;  // content of the text section, empty without one
  bool opened = false;
};

}  // namespace kiv
