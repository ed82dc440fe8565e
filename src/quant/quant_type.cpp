#include "quant/quant_type.h"

namespace kiv {
namespace {

struct TypeInfo {
  const char* name;
  uint64_t blockElements;
  uint64_t blockBytes;
};

constexpr TypeInfo kTypes[kQuantTypeCount] = {
    {"F32", 1, 4},      {"F16", 1, 2},      {"BF16", 1, 2},
    {"Q4_0", 32, 18},   {"Q8_0", 32, 34},   {"Q4_K", 256, 144},
    {"Q5_K", 256, 176}, {"Q6_K", 256, 210}, {"IQ4_XS", 256, 136},
};

constexpr TypeInfo kUnknown = {"?", 0, 0};

const TypeInfo& infoOf(QuantType type) {
  const auto value = static_cast<uint8_t>(type);
  return value < kQuantTypeCount ? kTypes[value] : kUnknown;
}

}  // namespace

const char* quantTypeName(QuantType type) { return infoOf(type).name; }

namespace quant {

uint64_t blockElements(QuantType type) { return infoOf(type).blockElements; }

uint64_t quantizedBytes(QuantType type, uint64_t n) {
  const TypeInfo& info = infoOf(type);
  if (info.blockElements == 0) return 0;
  return (n + info.blockElements - 1) / info.blockElements * info.blockBytes;
}

uint64_t quantizedBytesK(QuantType type, uint64_t n) {
  return infoOf(type).blockElements == 256 ? quantizedBytes(type, n) : 0;
}

}  // namespace quant
}  // namespace kiv
