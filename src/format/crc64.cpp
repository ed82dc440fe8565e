#include <array>

#include "format/orb2_reader.h"

namespace kiv::orb2 {
namespace {

// Entry i is i after four steps c -> (c >> 1) ^ ((c & 1) != 0 ? 0x42F0E1EBA9EA3693 : 0).
constexpr std::array<uint64_t, 16> kAfterFourBits = {
    0x0000000000000000, 0x5A12C5AC36ADFDE5, 0x31C4488F3E8F96ED, 0x6BD68D2308226B08,
    0x6388911E7D1F2DDA, 0x399A54B24BB2D03F, 0x524CD9914390BB37, 0x085E1C3D753D46D2,
    0x42F0E1EBA9EA3693, 0x18E224479F47CB76, 0x7334A9649765A07E, 0x29266CC8A1C85D9B,
    0x217870F5D4F51B49, 0x7B6AB559E258E6AC, 0x10BC387AEA7A8DA4, 0x4AAEFDD6DCD77041,
};

}  // namespace

uint64_t crc64(const uint8_t* data, uint64_t length) {
  uint64_t crc = 0;
  for (uint64_t i = 0; i < length; ++i) {
    crc ^= data[i];
    crc = kAfterFourBits[crc & 15] ^ (crc >> 4);
    crc = kAfterFourBits[crc & 15] ^ (crc >> 4);
  }
  return crc;
}

}  // namespace kiv::orb2
