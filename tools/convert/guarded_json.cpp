#include "convert/guarded_json.h"

#include <vector>

#include "convert/input_file.h"

namespace orb {
namespace {

using Json = nlohmann::json;
using kiv::Status;

constexpr size_t kMaxDepth = 64;
constexpr uint64_t kMaxValues = uint64_t{1} << 22;  // a tokenizer has a million

// Builds the document from the parser's events, and ends the parse at the first thing too much.
class Builder final : public nlohmann::json_sax<Json> {
 public:
  explicit Builder(Json& root) : root_(root) {}

  const std::string& error() const { return error_; }

  bool null() override { return add(nullptr) != nullptr; }
  bool boolean(bool value) override { return add(value) != nullptr; }
  bool number_integer(number_integer_t value) override { return add(value) != nullptr; }
  bool number_unsigned(number_unsigned_t value) override { return add(value) != nullptr; }
  bool number_float(number_float_t value, const string_t&) override {
    return add(value) != nullptr;
  }
  bool string(string_t& value) override { return add(std::move(value)) != nullptr; }
  bool binary(binary_t&) override { return false; }
  bool start_object(std::size_t) override { return open(Json::object()); }
  bool start_array(std::size_t) override { return open(Json::array()); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }

  bool key(string_t& name) override {
    const auto [place, isNew] = open_.back()->get_ref<Json::object_t&>().emplace(name, nullptr);
    if (!isNew) return stop("expected each key once, found \"" + name.substr(0, 100) + "\" twice");
    member_ = &place->second;
    return true;
  }

  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception& exception) override {
    // A number beyond every range is reported here too.
    static_cast<void>(exception);
    return stop("expected JSON, found an error at byte " + std::to_string(position));
  }

 private:
  bool stop(std::string error) {
    error_ = std::move(error);
    return false;
  }

  Json* add(Json value) {
    if (++values_ > kMaxValues) {
      stop("expected at most " + std::to_string(kMaxValues) + " values, found more");
      return nullptr;
    }
    if (open_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    if (open_.back()->is_array()) {
      auto& list = open_.back()->get_ref<Json::array_t&>();
      list.push_back(std::move(value));
      return &list.back();
    }
    *member_ = std::move(value);
    return member_;
  }

  // A list grows only while nothing inside it is open, so the pointers stay good.
  bool open(Json value) {
    if (open_.size() >= kMaxDepth) {
      return stop("expected at most " + std::to_string(kMaxDepth) + " levels, found more");
    }
    Json* place = add(std::move(value));
    if (place != nullptr) open_.push_back(place);
    return place != nullptr;
  }

  bool close() {
    open_.pop_back();
    return true;
  }

  Json& root_;
  std::vector<Json*> open_;
  Json* member_ = nullptr;
  uint64_t values_ = 0;
  std::string error_;
};

}  // namespace

Status parseGuardedJson(const std::string& subject, std::string_view text, Json& out) {
  Builder builder(out);
  if (Json::sax_parse(text.begin(), text.end(), &builder)) return Status::success();
  out = nullptr;
  return Status::invalidFormat(subject + ": " + builder.error());
}

Status readGuardedJson(const std::string& path, uint64_t maxBytes, Json& out) {
  std::string text;
  if (Status status = readTextFile(path, maxBytes, text); !status.ok()) return status;
  return parseGuardedJson(path, text, out);
}

}  // namespace orb
