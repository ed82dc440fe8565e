#include "convert/input_file.h"

#include <system_error>

namespace orb {

using kiv::Status;

std::filesystem::path pathFromUtf8(const std::string& text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

std::string utf8FromPath(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

Status InputFile::open(const std::string& path) {
  path_ = path;
  position_ = 0;
  const std::filesystem::path native = pathFromUtf8(path);
  std::error_code error;
  if (!std::filesystem::is_regular_file(native, error)) {
    return Status::ioError(path + ": expected a file, found none of that name");
  }
  size_ = std::filesystem::file_size(native, error);
  if (error) return Status::ioError(path + ": " + error.message());
  stream_.open(native, std::ios::binary);
  if (!stream_) return Status::ioError(path + ": cannot be opened for reading");
  return Status::success();
}

Status InputFile::read(uint64_t offset, void* out, uint64_t size) {
  if (offset > size_ || size > size_ - offset) {
    return Status::invalidFormat(path_ + ": the file ends before byte " + std::to_string(offset) +
                                 " + " + std::to_string(size));
  }
  // A seek would discard what the stream has buffered.
  if (offset != position_) stream_.seekg(static_cast<std::streamoff>(offset));
  stream_.read(static_cast<char*>(out), static_cast<std::streamsize>(size));
  position_ = offset + size;
  if (stream_) return Status::success();
  stream_.clear();
  position_ = UINT64_MAX;
  return Status::ioError(path_ + ": cannot be read at byte " + std::to_string(offset));
}

Status readTextFile(const std::string& path, uint64_t limit, std::string& out) {
  InputFile file;
  if (Status status = file.open(path); !status.ok()) return status;
  if (file.size() > limit) {
    return Status::invalidFormat(path + ": expected at most " + std::to_string(limit) +
                                 " bytes, found " + std::to_string(file.size()));
  }
  out.resize(file.size());
  return file.read(0, out.data(), out.size());
}

}  // namespace orb
