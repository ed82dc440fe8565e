#include "tokenizer/special_matcher.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace kiv {

namespace {

// Length of the common prefix; the first `known` bytes are known to be equal.
size_t commonPrefix(std::string_view a, std::string_view b, size_t known) {
  const size_t size = std::min(a.size(), b.size());
  size_t i = known;
  for (; i + sizeof(uint64_t) <= size; i += sizeof(uint64_t)) {
    uint64_t x;
    uint64_t y;
    std::memcpy(&x, a.data() + i, sizeof x);
    std::memcpy(&y, b.data() + i, sizeof y);
    if (x != y) {
      return i + static_cast<size_t>(std::countr_zero(x ^ y)) / 8;
    }
  }
  while (i < size && a[i] == b[i]) {
    ++i;
  }
  return i;
}

}  // namespace

void SpecialMatcher::build(const std::vector<std::pair<std::string_view, int32_t>>& specials) {
  nodes_.clear();
  nodes_.reserve(specials.size());
  for (const auto& [text, id] : specials) {
    if (!text.empty()) {
      nodes_.push_back({text, id, 0, 0, 0});
    }
  }
  std::stable_sort(nodes_.begin(), nodes_.end(),
                   [](const Node& a, const Node& b) { return a.text < b.text; });
  nodes_.erase(std::unique(nodes_.begin(), nodes_.end(),
                           [](const Node& a, const Node& b) { return a.text == b.text; }),
               nodes_.end());

  firstNode_.fill(0);
  for (uint32_t i = 0; i < nodes_.size(); ++i) {
    ++firstNode_[static_cast<unsigned char>(nodes_[i].text[0]) + 1];
    linkPrefixes(i);
  }
  for (size_t b = 0; b < 256; ++b) {
    firstNode_[b + 1] += firstNode_[b];
  }
}

void SpecialMatcher::linkPrefixes(uint32_t index) {
  Node& node = nodes_[index];
  node.parent = node.jump = index;
  if (index == 0) {
    return;
  }
  // In byte order a token's longest prefix is the token before it or one of that one's prefixes.
  uint32_t above = index - 1;
  while (!node.text.starts_with(nodes_[above].text)) {
    if (nodes_[above].depth == 0) {
      return;
    }
    above = nodes_[above].parent;
  }
  const Node& parent = nodes_[above];
  const Node& middle = nodes_[parent.jump];
  const Node& far = nodes_[middle.jump];
  node.parent = above;
  node.depth = parent.depth + 1;
  // Two strides of equal length are joined into one.
  const bool join = parent.depth - middle.depth == middle.depth - far.depth;
  node.jump = join ? middle.jump : above;
}

SpecialMatcher::Match SpecialMatcher::longest(std::string_view text) const {
  if (text.empty()) {
    return {};
  }
  const auto first = static_cast<unsigned char>(text[0]);
  uint32_t low = firstNode_[first];
  uint32_t high = firstNode_[first + 1];
  if (low == high) {
    return {};
  }
  // Find the last node that does not come after the text. What the nodes on both sides of the
  // remaining range share with the text, every node between them shares too.
  size_t lowCommon = 1;
  size_t highCommon = 1;
  while (low < high) {
    const uint32_t middle = low + (high - low) / 2;
    const std::string_view node = nodes_[middle].text;
    const size_t common = commonPrefix(node, text, std::min(lowCommon, highCommon));
    const bool after = common < node.size() &&
                       (common == text.size() || static_cast<unsigned char>(node[common]) >
                                                     static_cast<unsigned char>(text[common]));
    if (after) {
      high = middle;
      highCommon = common;
    } else {
      low = middle + 1;
      lowCommon = common;
    }
  }
  if (low == firstNode_[first]) {
    return {};
  }
  // Any token that the text begins with is a prefix of that node, or the node itself.
  const Node* node = &nodes_[low - 1];
  while (node->text.size() > lowCommon) {
    if (node->depth == 0) {
      return {};
    }
    const Node& far = nodes_[node->jump];
    node = far.text.size() > lowCommon ? &far : &nodes_[node->parent];
  }
  return {node->text.size(), node->id};
}

}  // namespace kiv
