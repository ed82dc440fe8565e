// Encodes the standard input with the tokenizer of a model; prints the ids on one line, then the
// text that they decode to.
#include <cstdio>
#include <iostream>
#include <iterator>

#include "format/loader.h"
#include "tokenizer/tokenizer.h"

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#endif

int main(int argc, char** argv) {
#if defined(_WIN32)
  for (const int stream : {0, 1}) _setmode(stream, _O_BINARY);
#endif
  kiv::ORBLoader loader;
  kiv::Tokenizer tokenizer;
  if (argc != 2 || !loader.open(argv[1]).ok() ||
      !tokenizer.load(std::move(loader.tokenizer)).ok()) {
    std::fputs("tokenizer_runner: expected a model\n", stderr);
    return 1;
  }
  const std::string text{std::istreambuf_iterator<char>(std::cin), {}};
  std::vector<int32_t> ids;
  std::string decoded;
  if (!tokenizer.encode(text, ids, /*addBos=*/true).ok() || !tokenizer.decode(ids, decoded).ok()) {
    return 1;
  }
  for (const int32_t id : ids) std::cout << id << ' ';
  std::cout << '\n' << decoded;
  return 0;
}
