#include "quant/status.h"

namespace kiv {

const char* Status::codeName() const {
  switch (code) {
    case StatusCode::Ok:
      return "OK";
    case StatusCode::InvalidFormat:
      return "InvalidFormat";
    case StatusCode::Unsupported:
      return "Unsupported";
    case StatusCode::Corrupted:
      return "Corrupted";
    case StatusCode::IOError:
      return "IOError";
  }
  return "Unknown";
}

}  // namespace kiv
