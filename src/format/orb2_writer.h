// Streaming writer of the ORB2 container, for tools and tests.
//
// The file is written beside its destination ("<path>.part") and renamed at the end, so a path
// never holds half a model. Weight data comes first and is streamed; the metadata, tokenizer, text
// and tensor index (sorted by name) follow; header, section table and CRC are written last.
// Sections and tensors start at multiples of 64 bytes. No quantization info is written.
//
//   ORB2Writer writer;
//   writer.open("model.orb", /*overwrite=*/false);
//   writer.beginTensor("output_norm.weight", QuantType::F32, {256});
//   writer.append(bytes, size);                          // any number of times
//   writer.endTensor();
//   writer.addAlias("blk.1.attn_norm.weight", "blk.0.attn_norm.weight");  // shares the bytes
//   writer.setMeta("general.architecture", "qwen35");
//   writer.setTokenizer(data);
//   writer.finish();
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "format/orb2_reader.h"
#include "format/tokenizer_data.h"
#include "quant/quant_type.h"
#include "quant/status.h"

namespace kiv {

// One thread at a time; everything is set between open() and finish(). Messages begin with
// "ORB2Writer: " and name the file; I/O failures have code IOError, misuse (a second tensor of one
// name, a size that differs from the shape) code InvalidFormat. After any failure finish() fails
// too and the temporary file is removed.
class ORB2Writer {
 public:
  ORB2Writer() = default;
  ~ORB2Writer() { abandon(); }
  ORB2Writer(const ORB2Writer&) = delete;
  ORB2Writer& operator=(const ORB2Writer&) = delete;

  // Creates the temporary file. An existing `path` is refused unless `overwrite`, and always when
  // it is not a regular file. What an earlier open() began is abandoned.
  Status open(const std::string& path, bool overwrite);

  // dims[0] is the row length; one to four dimensions. Between begin and end exactly
  // tensorBytes(type, dims) bytes are appended.
  Status beginTensor(std::string_view name, QuantType type, const std::vector<uint64_t>& dims);
  Status append(const void* data, uint64_t size);
  Status endTensor();

  // A further index entry for the bytes, type and shape of a finished tensor.
  Status addAlias(std::string_view name, std::string_view existing);

  // Failures of the setters (a key that serves twice, lists that are too long) come out at
  // finish().
  void setHeaderWords(uint64_t a, uint64_t b, uint64_t c);
  void setMeta(std::string_view key, std::string_view value);
  void setMeta(std::string_view key, uint32_t value);
  void setMeta(std::string_view key, uint64_t value);
  void setMeta(std::string_view key, float value);
  void setMeta(std::string_view key, int32_t value);
  void setMeta(std::string_view key, const std::vector<uint32_t>& values);
  void setTokenizer(const TokenizerData& data);
  void setText(std::string_view text);

  // Writes the remaining sections and the header, flushes to disk and renames.
  Status finish();

  // Closes and removes the temporary file; what a destructor or an interrupt does.
  void abandon();

  // Bytes written so far, for progress displays.
  uint64_t bytesWritten() const { return position_; }

  // Bytes of a tensor: whole-block rows times their number. 0 when there is no such tensor: unknown
  // type, not one to four dimensions, an empty one, rows that are not whole blocks, 2^62 or more.
  static uint64_t tensorBytes(QuantType type, const std::vector<uint64_t>& dims);

 private:
  // What goes into the file beside the weights.
  struct Contents {
    orb2::FileHeader header{};
    std::vector<orb2::SectionEntry> sections;
    std::vector<orb2::TensorIndexEntry> index;      // in the order of writing
    std::unordered_map<std::string, size_t> names;  // position in `index`
    std::string meta;                               // entries back to back
    std::unordered_set<std::string> metaKeys;
    std::string tokenizer;
    std::string text;
  };

  Status checkDestination() const;
  Status checkName(std::string_view name) const;
  Status write(const void* data, uint64_t size);
  Status padTo(uint64_t alignment);
  Status writeSections();
  Status writeSection(orb2::SectionType type, const void* body, uint64_t size);
  Status writeHeader();
  Status commit();
  void appendMeta(std::string_view key, orb2::MetaType type, const void* value, size_t size);
  Status misuse(const std::string& text) const;
  Status ioFailure(const char* text) const;
  Status fail(Status status);
  void removePart();

  std::string path_;
  std::string partPath_;  // empty when there is no temporary file
  bool overwrite_ = false;
  std::FILE* file_ = nullptr;
  Status error_;  // the first failure since open()
  uint64_t position_ = 0;
  uint64_t weightStart_ = 0;
  uint64_t expectedEnd_ = 0;  // of the tensor that is being written
  bool inTensor_ = false;
  Contents contents_;
};

}  // namespace kiv
