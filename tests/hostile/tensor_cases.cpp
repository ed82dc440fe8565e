// The tensor index, each tensor's role in the model, and what stands in the weights.
#include <limits>
#include <optional>

#include "hostile/hostile_case.h"

namespace orbtest {
namespace {

constexpr uint64_t kTwoTo32 = uint64_t{1} << 32;
constexpr uint64_t kTwoTo63 = uint64_t{1} << 63;
constexpr uint64_t kSharedBytes = 1024;       // what every tensor but the convolution points to
constexpr uint64_t kTapBytes = 4 * 4 * 8192;  // the convolution, behind it in the section
constexpr uint64_t kWeightBytes = kSharedBytes + kTapBytes;

using Change = std::function<void(TensorSpec&)>;

// Block 0 is linear, block 1 full.
HostileCase changed(const std::string& tensor, const std::string& defect, const char* message,
                    const Change& change) {
  const auto file = [=] {
    ModelFile model = smallestModel(1);
    change(model[tensor]);
    return model.build();
  };
  return {tensor + ": " + defect, file, true, message, *message == '\0' ? "" : tensor};
}

// What the forward pass may take from a tensor.
struct Role {
  const char* tensor;
  uint64_t mostRows = 0;  // of a matrix whose rows have one element; 0 for a vector or no limit
  uint64_t mostCols = 0;  // of a matrix; 0 for a vector
  uint64_t least = 0;     // elements of a vector; 1 has no shorter one
};

constexpr Role kRoles[] = {
    {"blk.0.attn_norm.weight", 0, 0, 1},
    {"blk.0.post_attention_norm.weight", 0, 0, 1},
    {"blk.0.ffn_gate.weight", 0, 1, 0},
    {"blk.0.ffn_up.weight", 1, 1, 0},
    {"blk.0.ffn_down.weight", 1, 1, 0},
    {"blk.0.attn_qkv.weight", 8192, 1, 0},
    {"blk.0.attn_gate.weight", 4096, 1, 0},
    {"blk.0.ssm_beta.weight", 32, 1, 0},
    {"blk.0.ssm_alpha.weight", 32, 1, 0},
    {"blk.0.ssm_dt.bias", 0, 0, 32},
    {"blk.0.ssm_a", 0, 0, 32},
    {"blk.0.ssm_conv1d.weight", 0, 0, 32768},
    {"blk.0.ssm_norm.weight", 0, 0, 128},
    {"blk.0.ssm_out.weight", 1, 4096, 0},
    {"blk.1.attn_q.weight", 8192, 1, 0},
    {"blk.1.attn_k.weight", 1024, 1, 0},
    {"blk.1.attn_v.weight", 1024, 1, 0},
    {"blk.1.attn_output.weight", 1, 4096, 0},
    {"blk.1.attn_q_norm.weight", 0, 0, 256},
    {"blk.1.attn_k_norm.weight", 0, 0, 256},
    {"output_norm.weight", 0, 0, 1},
    {"token_embd.weight", 0, 0, 0},
};

const char* messageOf(const Role& role) {
  return role.tensor[0] == 'b' ? kBlockFailed : kModelFailed;
}

// As many bytes as the shape needs, wherever they are.
void reshape(TensorSpec& spec, std::vector<uint64_t> dims) {
  uint64_t bytes = sizeof(float);
  for (const uint64_t dim : dims) bytes *= dim;
  spec.dims = std::move(dims);
  spec.sizeChange = static_cast<int64_t>(bytes) - static_cast<int64_t>(spec.data->size());
  spec.offsetChange = 0;
}

void typeCases(const Role& role, std::vector<HostileCase>& cases) {
  const bool matrix = role.least == 0;
  const auto add = [&](const char* name, uint16_t type) {
    cases.push_back(changed(role.tensor, std::string("type ") + name, messageOf(role),
                            [=](TensorSpec& spec) { spec.type = type; }));
  };
  add("F16", static_cast<uint16_t>(QuantType::F16));
  add("Q4_0", static_cast<uint16_t>(QuantType::Q4_0));
  add("IQ4_XS", static_cast<uint16_t>(QuantType::IQ4_XS));
  add("10", 10);
  add("65535", UINT16_MAX);
  if (!matrix) add("BF16", static_cast<uint16_t>(QuantType::BF16));
  if (matrix) add("Q8_0 with a partial block", static_cast<uint16_t>(QuantType::Q8_0));
  if (matrix) add("Q6_K with a partial block", static_cast<uint16_t>(QuantType::Q6_K));
}

void shapeCases(const Role& role, std::vector<HostileCase>& cases) {
  const auto add = [&](const std::string& name, std::vector<uint64_t> dims) {
    // A row of the embedding is the hidden size, which a block looks at first; the largest number
    // stands for none.
    const bool hidden = role.tensor[0] == 't' && dims[0] > 1 && dims[0] != UINT64_MAX;
    cases.push_back(changed(role.tensor, name, hidden ? kBlockFailed : messageOf(role),
                            [=](TensorSpec& spec) { spec.dims = dims; }));
  };
  add("a row of 0 elements", {0, 1});
  add("0 rows", {1, 0});
  add("a row of 2^32 elements", {kTwoTo32, 1});
  add("a row whose bytes wrap to 0", {uint64_t{1} << 62, 1});
  add("a row of 2^64 - 1 elements", {UINT64_MAX, 1});
  add("2^63 rows", {1, kTwoTo63});
  add("rows whose product wraps to 0", {1, kTwoTo32, kTwoTo32});
  add("rows whose product wraps to 1", {1, UINT64_MAX, UINT64_MAX});
  for (const uint16_t stored : {uint16_t{0}, uint16_t{5}, uint16_t{UINT16_MAX}}) {
    cases.push_back(changed(role.tensor, std::to_string(stored) + " dimensions", messageOf(role),
                            [=](TensorSpec& spec) { spec.ndims = stored; }));
  }
}

void limitCases(const Role& role, std::vector<HostileCase>& cases) {
  const auto add = [&](const char* name, const char* message, std::vector<uint64_t> dims) {
    cases.push_back(
        changed(role.tensor, name, message, [=](TensorSpec& spec) { reshape(spec, dims); }));
  };
  if (role.mostRows != 0) {
    add("one row too many", messageOf(role), {1, role.mostRows + 1});
    add("as many rows as there may be", kCreated, {1, role.mostRows});
  }
  if (role.mostCols != 0) add("a row one too long", messageOf(role), {role.mostCols + 1, 1});
  if (role.least > 1) {
    add("one element too few", messageOf(role), {role.least - 1});
    // The convolution must have rows of four.
    const bool rows = role.least == 32768;
    add("transposed", rows ? messageOf(role) : kCreated,
        rows ? std::vector<uint64_t>{8192, 4} : std::vector<uint64_t>{1, role.least});
  }
}

void placeCases(const Role& role, std::vector<HostileCase>& cases) {
  const auto add = [&](const char* name, const Change& change) {
    cases.push_back(changed(role.tensor, name, messageOf(role), change));
  };
  add("one byte past the section", [](TensorSpec& spec) {
    const bool taps = spec.data->size() == kTapBytes;
    spec.offsetChange = static_cast<int64_t>(taps ? 1 : kWeightBytes - kSharedBytes + 1);
  });
  add("an offset behind the section", [](TensorSpec& spec) { spec.offsetChange = 1 << 20; });
  add("an offset whose end wraps", [](TensorSpec& spec) {
    const bool taps = spec.data->size() == kTapBytes;
    spec.offsetChange = taps ? -static_cast<int64_t>(kSharedBytes) - 64 : -64;
  });
  add("no bytes",
      [](TensorSpec& spec) { spec.sizeChange = -static_cast<int64_t>(spec.data->size()); });
  add("2^64 - 1 bytes",
      [](TensorSpec& spec) { spec.sizeChange = -static_cast<int64_t>(spec.data->size()) - 1; });
  if (role.least > 1 && role.least < 32768) {
    add("unaligned floats", [](TensorSpec& spec) { spec.offsetChange = 2; });
  }
}

HostileCase missing(const Role& role) {
  const std::string tensor = role.tensor;
  // Without its output projection a linear block is taken for a full one.
  const bool kind = tensor == "blk.0.ssm_out.weight";
  return {tensor + ": missing",
          [=] {
            ModelFile model = smallestModel(1);
            model.erase(tensor);
            return model.build();
          },
          true, messageOf(role), kind ? "blk.0.attn_q.weight" : tensor};
}

// The valid file with changes in the index entry of a tensor or of its neighbour.
uint64_t entryOf(const std::string& tensor) {
  std::string name = tensor;
  name.resize(64);
  const auto found = std::search(validFile().begin(), validFile().end(), name.begin(), name.end());
  return static_cast<uint64_t>(found - validFile().begin());
}

void swapEntries(File& file, uint64_t a, uint64_t b) {
  std::swap_ranges(file.begin() + static_cast<ptrdiff_t>(a),
                   file.begin() + static_cast<ptrdiff_t>(a) + 128,
                   file.begin() + static_cast<ptrdiff_t>(b));
}

template <typename Body>
HostileCase edited(const char* name, const char* message, const char* finding, const Body& body) {
  return {name,
          [body] {
            File file = validFile();
            body(file);
            return file;
          },
          true, message, finding};
}

HostileCase biased(const char* name, const char* message, const Change& change) {
  return {name,
          [=] {
            ModelFile model = smallestModel();
            model["blk.3.attn_q.bias"] = TensorSpec::floats({8}, 1);
            change(model["blk.3.attn_q.bias"]);
            return model.build();
          },
          true, message, *message == '\0' ? "" : "blk.3.attn_q.bias"};
}

HostileCase withWeights(const char* name, int generated,
                        const std::function<void(ModelFile&)>& set) {
  return {name,
          [=] {
            ModelFile model = smallestModel(1);
            set(model);
            return model.build();
          },
          true,
          kCreated,
          "",
          generated};
}

// Every element of the tensors' shapes is `value`.
std::function<void(ModelFile&)> filled(const char* tensor, float value) {
  return [=](ModelFile& model) { model[tensor] = TensorSpec::floats(model[tensor].dims, value); };
}

}  // namespace

std::vector<HostileCase> indexCases() {
  const char* embedding = "token_embd.weight";
  const char* norm = "output_norm.weight";
  return {
      edited("index: a name of 64 bytes without an end", kModelFailed, embedding,
             [=](File& file) {
               std::fill_n(file.begin() + static_cast<ptrdiff_t>(entryOf(embedding)), 64, 'z');
               poke(file, entryOf(embedding) + 64, uint16_t{64});
             }),
      edited("index: every name without an end", kBlockFailed, "tensor index",
             [](File& file) {
               for (uint64_t at = sectionOffset(kIndexSection); at < file.size(); at += 128) {
                 std::fill_n(file.begin() + static_cast<ptrdiff_t>(at), 64, 'z');
                 if (at + 128 <= file.size()) poke(file, at + 64, uint16_t{UINT16_MAX});
               }
             }),
      edited("index: a name length of 65535", kModelFailed, embedding,
             [=](File& file) { poke(file, entryOf(embedding) + 64, uint16_t{UINT16_MAX}); }),
      edited("index: a name length of 0", kModelFailed, "tensor index",
             [=](File& file) { poke(file, entryOf(embedding) + 64, uint16_t{0}); }),
      edited("index: a name one byte too short", kModelFailed, embedding,
             [=](File& file) { poke(file, entryOf(embedding) + 64, uint16_t{16}); }),
      edited("index: the last two swapped", kModelFailed, "tensor index",
             [=](File& file) { swapEntries(file, entryOf(norm), entryOf(embedding)); }),
      edited("index: backwards", kBlockFailed, "tensor index",
             [](File& file) {
               const uint64_t first = sectionOffset(kIndexSection);
               const uint64_t count = sectionSize(kIndexSection) / 128;
               for (uint64_t i = 0; i < count / 2; ++i) {
                 swapEntries(file, first + i * 128, first + (count - 1 - i) * 128);
               }
             }),
      edited("index: one tensor twice, another not at all", kModelFailed, "tensor index",
             [=](File& file) {
               std::copy_n(file.begin() + static_cast<ptrdiff_t>(entryOf(embedding)), 128,
                           file.begin() + static_cast<ptrdiff_t>(entryOf(norm)));
             }),
      edited("index: reserved fields", kCreated, "",
             [=](File& file) {
               poke(file, entryOf(norm) + 70, uint16_t{UINT16_MAX});
               poke(file, entryOf(norm) + 120, UINT64_MAX);
             }),
      edited("index: dimensions behind the last", kCreated, "",
             [=](File& file) { poke(file, entryOf(norm) + 96, UINT64_MAX); }),
      edited("index: all zeros", kBlockFailed, "tensor index",
             [](File& file) {
               std::fill(file.begin() + static_cast<ptrdiff_t>(sectionOffset(kIndexSection)),
                         file.end(), uint8_t{0});
             }),
      biased("bias: of any length", kCreated, [](TensorSpec&) {}),
      biased("bias: type F16", kBlockFailed, [](TensorSpec& spec) { spec.type = 1; }),
      biased("bias: one byte past the section", kBlockFailed,
             [](TensorSpec& spec) { spec.offsetChange = 1; }),
      biased("bias: a row of 0 elements", kBlockFailed, [](TensorSpec& spec) { spec.dims = {0}; }),
      biased("bias: a row whose bytes wrap", kBlockFailed,
             [](TensorSpec& spec) { spec.dims = {uint64_t{1} << 62}; }),
  };
}

std::vector<HostileCase> roleCases() {
  std::vector<HostileCase> cases;
  for (const Role& role : kRoles) {
    cases.push_back(missing(role));
    typeCases(role, cases);
    shapeCases(role, cases);
    limitCases(role, cases);
    placeCases(role, cases);
  }
  return cases;
}

std::vector<HostileCase> weightCases() {
  constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  constexpr float kMost = std::numeric_limits<float>::max();
  constexpr float kLeast = std::numeric_limits<float>::denorm_min();
  return {
      withWeights("weights: embedding of NaN", ORB_FAILED, filled("token_embd.weight", kNan)),
      withWeights("weights: embedding of infinity", ORB_FAILED,
                  filled("token_embd.weight", kInfinity)),
      withWeights("weights: embedding of the largest number", ORB_OK,
                  filled("token_embd.weight", kMost)),
      withWeights("weights: embedding of the smallest number", ORB_OK,
                  filled("token_embd.weight", kLeast)),
      withWeights("weights: output norm of NaN", ORB_FAILED, filled("output_norm.weight", kNan)),
      withWeights("weights: output norm of infinity", ORB_FAILED,
                  filled("output_norm.weight", kInfinity)),
      withWeights("weights: convolution of infinity", ORB_FAILED,
                  filled("blk.0.ssm_conv1d.weight", kInfinity)),
      withWeights("weights: decay that grows", ORB_FAILED, filled("blk.0.ssm_a", kInfinity)),
      withWeights("weights: time step of NaN", ORB_FAILED, filled("blk.0.ssm_dt.bias", kNan)),
      withWeights("weights: query norm of NaN", ORB_FAILED,
                  filled("blk.1.attn_q_norm.weight", kNan)),
      withWeights("weights: feed-forward step of infinity", ORB_FAILED,
                  filled("blk.7.ffn_up.weight", kInfinity)),
      withWeights("weights: all zero", ORB_OK,
                  [](ModelFile& model) {
                    filled("token_embd.weight", 0)(model);
                    filled("output_norm.weight", 0)(model);
                  }),
  };
}

}  // namespace orbtest
