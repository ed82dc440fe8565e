#include <array>

#include "format/orb2_reader.h"

namespace kiv::orb2 {
namespace {

constexpr std::array<uint64_t, 256> makeTable() {
  constexpr uint64_t kPolynomial = 0x42F0E1EBA9EA3693;
  std::array<uint64_t, 256> table{};
  for (uint64_t i = 0; i < table.size(); ++i) {
    uint64_t c = i;
    for (int bit = 0; bit < 8; ++bit) c = (c >> 1) ^ ((c & 1) != 0 ? kPolynomial : 0);
    table[i] = c;
  }
  return table;
}

constexpr std::array<uint64_t, 256> kTable = makeTable();
static_assert(kTable[1] == 0x3C3B78E888D80FE1 && kTable[128] == 0x42F0E1EBA9EA3693);

}  // namespace

uint64_t crc64(const uint8_t* data, uint64_t length) {
  uint64_t crc = 0;
  for (uint64_t i = 0; i < length; ++i) crc = kTable[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  return crc;
}

}  // namespace kiv::orb2
