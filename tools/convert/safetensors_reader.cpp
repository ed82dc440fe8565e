#include "convert/safetensors_reader.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <unordered_map>

#include "convert/guarded_json.h"
#include "convert/source_types.h"

namespace orb {
namespace {

using Json = nlohmann::json;
using kiv::Status;

constexpr uint64_t kMaxHeaderBytes = uint64_t{16} << 20;  // a model of 900 tensors has 150 kB
constexpr const char* kIndexName = "model.safetensors.index.json";

uint32_t typeOf(const std::string& name) {
  if (name == "F32") return static_cast<uint32_t>(SourceType::F32);
  if (name == "F16") return static_cast<uint32_t>(SourceType::F16);
  if (name == "BF16") return static_cast<uint32_t>(SourceType::BF16);
  return kForeignType;
}

// A list of numbers that are not negative, at most eight of them; false for anything else.
bool readNumbers(const Json& entry, const char* key, std::vector<uint64_t>& out) {
  constexpr size_t kMost = 8;
  const auto list = entry.find(key);
  if (list == entry.end() || !list->is_array() || list->size() > kMost) return false;
  for (const Json& value : *list) {
    if (!value.is_number_unsigned()) return false;
    out.push_back(value.get<uint64_t>());
  }
  return true;
}

class Header {
 public:
  Header(std::shared_ptr<InputFile> file, uint64_t dataStart)
      : file_(std::move(file)), dataStart_(dataStart), dataBytes_(file_->size() - dataStart) {}

  Status read(const std::string& name, const Json& entry, SourceTensor& tensor) const {
    std::vector<uint64_t> shape;
    std::vector<uint64_t> range;
    const auto dtype = entry.find("dtype");
    if (!entry.is_object() || dtype == entry.end() || !dtype->is_string() ||
        !readNumbers(entry, "shape", shape) || !readNumbers(entry, "data_offsets", range) ||
        range.size() != 2) {
      return refuse(name, "dtype, shape and data_offsets of numbers that are not negative",
                    "something else");
    }
    if (range[0] > range[1] || range[1] > dataBytes_) {
      return refuse(name, "data inside the file",
                    "bytes " + std::to_string(range[0]) + " to " + std::to_string(range[1]) +
                        " of " + std::to_string(dataBytes_));
    }
    tensor.name = name;
    tensor.file = file_;
    tensor.type = typeOf(dtype->get_ref<const std::string&>());
    tensor.dims.assign(shape.rbegin(), shape.rend());
    if (tensor.dims.empty()) tensor.dims.push_back(1);
    tensor.offset = dataStart_ + range[0];
    tensor.bytes = sourceBytes(tensor.type, tensor.dims);
    if (tensor.type == kForeignType) return Status::success();
    if (tensor.bytes == 0 || tensor.bytes != range[1] - range[0]) {
      return refuse(name, "as many bytes as its shape takes", std::to_string(range[1] - range[0]));
    }
    return Status::success();
  }

  Status refuse(const std::string& name, const std::string& expected,
                const std::string& found) const {
    return Status::invalidFormat(file_->path() + ": tensor " + name + ": expected " + expected +
                                 ", found " + found);
  }

 private:
  std::shared_ptr<InputFile> file_;
  uint64_t dataStart_;
  uint64_t dataBytes_;
};

// What the index says: tensors by file. Names of files only, so that it cannot lead elsewhere.
Status readIndex(const std::string& path, std::map<std::string, std::set<std::string>>& files) {
  Json index;
  if (Status status = readGuardedJson(path, kMaxHeaderBytes, index); !status.ok()) return status;
  const auto map = index.is_object() ? index.find("weight_map") : index.end();
  if (map == index.end() || !map->is_object()) {
    return Status::invalidFormat(path + ": expected a weight_map, found none");
  }
  for (const auto& [tensor, file] : map->items()) {
    const std::string name = file.is_string() ? file.get<std::string>() : "";
    if (name.empty() || name.find_first_of("/\\:") != std::string::npos || name == "." ||
        name == "..") {
      return Status::invalidFormat(path + ": tensor " + tensor +
                                   ": expected the name of a file in the folder, found " +
                                   (name.empty() ? "none" : "\"" + name + "\""));
    }
    files[name].insert(tensor);
  }
  return Status::success();
}

Status readIndexed(const std::string& folder, std::vector<SourceTensor>& out) {
  const std::string indexPath = folder + "/" + kIndexName;
  std::map<std::string, std::set<std::string>> files;
  if (Status status = readIndex(indexPath, files); !status.ok()) return status;
  for (const auto& [file, tensors] : files) {
    std::vector<SourceTensor> found;
    if (Status status = readSafetensors(folder + "/" + file, found); !status.ok()) return status;
    std::set<std::string> missing = tensors;
    for (SourceTensor& tensor : found) {
      if (missing.erase(tensor.name) != 0) out.push_back(std::move(tensor));
    }
    if (!missing.empty()) {
      return Status::invalidFormat(indexPath + ": tensor " + *missing.begin() + ": expected in " +
                                   file + ", found not there");
    }
  }
  return Status::success();
}

}  // namespace

Status readSafetensors(const std::string& path, std::vector<SourceTensor>& out) {
  auto file = std::make_shared<InputFile>();
  if (Status status = file->open(path); !status.ok()) return status;
  uint64_t headerBytes = 0;
  if (Status status = file->read(0, &headerBytes, sizeof headerBytes); !status.ok()) return status;
  if (headerBytes > kMaxHeaderBytes || headerBytes > file->size() - sizeof headerBytes) {
    return Status::invalidFormat(path + ": expected a header of at most " +
                                 std::to_string(kMaxHeaderBytes) +
                                 " bytes inside the file, found " + std::to_string(headerBytes));
  }
  std::string text(headerBytes, '\0');
  if (Status status = file->read(sizeof headerBytes, text.data(), text.size()); !status.ok()) {
    return status;
  }
  Json header;
  if (Status status = parseGuardedJson(path, text, header); !status.ok()) return status;
  if (!header.is_object()) return Status::invalidFormat(path + ": expected a JSON object");
  const Header reader(file, sizeof headerBytes + headerBytes);
  const size_t first = out.size();
  for (const auto& [name, entry] : header.items()) {
    if (name == "__metadata__") continue;
    SourceTensor tensor;
    if (Status status = reader.read(name, entry, tensor); !status.ok()) return status;
    out.push_back(std::move(tensor));
  }
  return checkOverlaps({out.begin() + static_cast<std::ptrdiff_t>(first), out.end()});
}

Status readSafetensorsFolder(const std::string& folder, std::vector<SourceTensor>& out) {
  std::error_code error;
  const std::filesystem::path native = pathFromUtf8(folder);
  if (std::filesystem::exists(native / kIndexName, error)) {
    if (Status status = readIndexed(folder, out); !status.ok()) return status;
    return checkOverlaps(out);
  }
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(native, error)) {
    if (entry.path().extension() == ".safetensors") {
      files.push_back(utf8FromPath(entry.path().filename()));
    }
  }
  if (files.empty()) {
    return Status::ioError(folder + ": expected *.safetensors files, found none");
  }
  std::sort(files.begin(), files.end());
  for (const std::string& file : files) {
    if (Status status = readSafetensors(folder + "/" + file, out); !status.ok()) return status;
  }
  return checkOverlaps(out);
}

}  // namespace orb
