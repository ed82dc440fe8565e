// Reader of the ORB2 container (".orb"): maps the file read-only, validates header and section
// table, parses the metadata and hands out pointers into the mapping. All integers little-endian.
//
// Header, 64 bytes at offset 0:
//   0 magic "ORB2" | 4 u32 version 2 | 8 u32 endian marker 0x01020304 | 12 u32 section count
//   16 u64 word A | 24 u64 word B | 32 u64 word C | 40 u64 tensor count | 48 u64 reserved
//   56 u64 CRC-64 of header bytes 0..55 followed by the section table
// Section table, 24 bytes an entry at offset 64:
//   0 u32 type | 4 u32 reserved | 8 u64 offset (multiple of 64) | 16 u64 size
// Metadata section: u32 count, then per entry u16 key length, key, u8 type (0 u32, 1 i32, 2 f32,
//   3 u64, 4 string as u32 length + bytes, 5 u32 array as u32 count + elements), value; unaligned.
// Tensor index section, 128 bytes an entry, sorted by name: see TensorIndexEntry.
// Quantization-info section (optional), 32 bytes a tensor: see QuantInfoRecord.
// Tokenizer section: "TKNZ", string model, u32 V + V strings, u32 S + S x u32 scores,
//   u32 T + T x i32 types, u32 M + M strings, 4 x i32 special ids, u8 flag;
//   a string is a u32 length and its bytes.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "compat/export.h"
#include "format/tokenizer_data.h"
#include "quant/status.h"

namespace kiv {

namespace orb2 {

enum class SectionType : uint32_t {
  Meta = 1,
  Tokenizer = 2,
  Text = 3,
  TensorIndex = 4,
  WeightData = 5,
  QuantInfo = 6,
};

enum class MetaType : uint8_t { U32 = 0, I32 = 1, F32 = 2, U64 = 3, String = 4, U32Array = 5 };

inline constexpr uint32_t kVersion = 2;
inline constexpr uint32_t kEndianMarker = 0x01020304;
inline constexpr uint64_t kAlignment = 64;
inline constexpr uint32_t kMaxSections = 16;
inline constexpr uint32_t kMaxTokenizerCount = 67108864;  // 2^26, for every list of the section

struct FileHeader {
  char magic[4];
  uint32_t version;
  uint32_t endianMarker;
  uint32_t sectionCount;
  uint64_t wordA;
  uint64_t wordB;
  uint64_t wordC;
  uint64_t tensorCount;
  uint64_t reserved;
  uint64_t crc;
};
static_assert(sizeof(FileHeader) == 64);

struct SectionEntry {
  uint32_t type;
  uint32_t reserved;
  uint64_t offset;  // from the start of the file
  uint64_t size;    // bytes
};
static_assert(sizeof(SectionEntry) == 24);

struct TensorIndexEntry {
  char name[64];        // padded with NUL; 64 bytes have no terminator
  uint16_t nameLength;  // the loader uses at most 64
  uint16_t type;        // QuantType
  uint16_t ndims;       // 0 to 4
  uint16_t reserved;
  uint64_t dims[4];
  uint64_t offset;  // from the start of the weight-data section
  uint64_t size;    // bytes
  uint64_t reserved2;
};
static_assert(sizeof(TensorIndexEntry) == 128);

struct QuantInfoRecord {
  uint16_t type;  // not used: the index entry's type counts
  uint16_t a;
  uint32_t b;
  uint32_t c;
  uint32_t d;
  uint32_t e;
  uint8_t reserved[12];
};
static_assert(sizeof(QuantInfoRecord) == 32);

// The format's own checksum: right-shifting table algorithm over the polynomial constant
// 0x42F0E1EBA9EA3693 as it stands, initial value 0, no final XOR. "123456789" gives
// 0x4DB9A9F87EC10C59.
ORB_API uint64_t crc64(const uint8_t* data, uint64_t length);

}  // namespace orb2

// One tensor straight from the index. All zero means that there is no such tensor. `data` and
// `size` are what the index says, unchecked.
struct TensorEntryView {
  const uint8_t* data = nullptr;
  uint64_t size = 0;
  uint16_t type = 0;
  uint16_t ndims = 0;  // at most 4: an entry that claims more is cut
  uint64_t dims[4] = {};
  uint8_t quant[8] = {};  // first bytes of the quantization-info record, 0 without one
};

// Threads: one thread opens and closes; between the two, const members may be called from any.
// Everything that points into the file becomes invalid at close(). Header and section table are
// copied before they are checked, so a file that somebody rewrites meanwhile moves no bound. Nobody
// may shorten it: the operating system answers a read behind its end with a signal.
class ORB_API ORB2Reader {
 public:
  // Owned copy of one metadata entry; only the field that belongs to `type` is filled.
  struct MetaEntryView {
    std::string key;
    uint8_t type = 0;
    uint32_t u32 = 0;
    int32_t i32 = 0;
    float f32 = 0;
    uint64_t u64 = 0;
    std::string str;
    std::vector<uint32_t> u32Array;
  };

  ORB2Reader() = default;
  ~ORB2Reader() { close(); }
  ORB2Reader(const ORB2Reader&) = delete;
  ORB2Reader& operator=(const ORB2Reader&) = delete;

  // Opens, maps and validates, in a fixed order of checks; a failure leaves the reader closed.
  // Every failure has code InvalidFormat. With `largeFiles` false the length of the file is the low
  // 32 bits of its size as a signed number (files of 2 GiB and more are refused or cut); with true
  // it is the size as it stands.
  Status open(const char* path, bool largeFiles = false);

  // Unmaps and forgets everything but the header copy. Safe on a closed reader.
  void close();

  // First entry of that type in table order, or null. Works whenever a table is mapped.
  const orb2::SectionEntry* section(orb2::SectionType type) const;
  const uint8_t* sectionData(orb2::SectionType type) const;  // null when absent
  uint64_t sectionSize(orb2::SectionType type) const;        // 0 when absent

  // False on a closed reader; true when every section offset is a multiple of 64.
  bool aligned64() const;

  // Decodes the metadata section into the entry list; called by open().
  Status parseMeta();

  // Copies entry `index` into `out`; false, `out` untouched, when there is none.
  bool metaAt(uint64_t index, MetaEntryView& out) const;

  // The first entry with exactly this key and the getter's own type; false, `out` untouched, when
  // there is none. No conversions between types.
  bool getMetaU32(const char* key, uint32_t& out) const;
  bool getMetaI32(const char* key, int32_t& out) const;
  bool getMetaF32(const char* key, float& out) const;
  bool getMetaU64(const char* key, uint64_t& out) const;
  bool getMetaStr(const char* key, std::string& out) const;
  // `data` points to the entry's own storage, valid until close().
  bool getMetaU32Array(const char* key, const uint32_t*& data, uint64_t& count) const;

  // Binary search by the first 64 bytes of `name`; null when absent, closed or `name` is null.
  const orb2::TensorIndexEntry* findTensor(const char* name) const;
  TensorEntryView tensorView(uint64_t index) const;
  TensorEntryView tensorView(const char* name) const;

  // (Re)loads the quantization-info records, whole ones only; cannot fail.
  Status parseQuantInfo();

  // Decodes the tokenizer section; false, `out` partly overwritten, when it is absent or malformed.
  bool readTokenizer(TokenizerData& out) const;

  const orb2::FileHeader& header() const { return header_; }
  const std::vector<orb2::QuantInfoRecord>& quantInfo() const { return quantInfo_; }
  // False on a closed reader, and when the file has become shorter than what is mapped or can no
  // longer be asked.
  bool holdsMapping() const;
  const uint8_t* mapping() const { return base_; }
  uint64_t mappingSize() const { return length_; }
  bool opened() const { return opened_; }

 private:
  Status map(const char* path, bool largeFiles);
  Status checkHeader();
  Status checkTable();
  Status checkSections() const;
  const MetaEntryView* findMeta(const char* key, orb2::MetaType type) const;

  orb2::FileHeader header_{};
  std::array<orb2::SectionEntry, orb2::kMaxSections> table_{};
  const orb2::SectionEntry* sections_ = nullptr;  // the table once it is read
  const uint8_t* base_ = nullptr;
  uint64_t length_ = 0;
  int32_t fd_ = -1;
  std::vector<MetaEntryView> meta_;
  std::vector<orb2::QuantInfoRecord> quantInfo_;
  bool opened_ = false;
};

}  // namespace kiv
