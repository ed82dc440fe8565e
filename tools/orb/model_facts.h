// What can be said about a model file without running it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "format/loader.h"

namespace orb {

struct TensorFacts {
  std::string name;
  std::string type;            // name, or the number of an unknown one
  std::vector<uint64_t> dims;  // dims[0] is the row length
  uint64_t offset = 0;         // from the start of the weight section, as the index says
  uint64_t size = 0;           // bytes, as the index says
  std::string sharedWith;      // first tensor of the index with the same bytes, or empty
};

// Bytes that a runtime takes beside the mapped file; estimates where they depend on the runtime.
struct MemoryFacts {
  uint64_t mapping = 0;           // the file; pages become resident as they are read
  uint64_t cachePerPosition = 0;  // keys and values of all full blocks
  uint64_t states = 0;            // linear blocks: recurrent and convolution, now and after a batch
  uint64_t workspace = 0;         // activations of a batch, logits, sampling
  uint64_t tokenizer = 0;         // vocabulary and indexes
};

struct ModelFacts {
  std::vector<TensorFacts> tensors;  // in index order
  uint64_t hidden = 0;               // 0 without an embedding
  uint64_t vocabulary = 0;           // rows of the embedding
  uint64_t parameters = 0;           // elements of all tensors that are stored, shared ones once
  std::string blocks;                // one letter each: 'l' linear, 'f' full, '-' missing
  uint64_t linearBlocks = 0;
  uint64_t fullBlocks = 0;
  uint64_t readPerToken = 0;  // bytes of weights that one token reads, shared ones every time
  MemoryFacts memory;
};

// Works on any file whose container opens, whether or not the model binds; without a tokenizer
// section the tensors are still listed. No weight is read.
ModelFacts collectModelFacts(const kiv::ORBLoader& loader);

}  // namespace orb
