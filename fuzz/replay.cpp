// Runs a fuzz target over the files of the given directories, once each, and says how many.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz.h"

int main(int count, char** arguments) {
  LLVMFuzzerInitialize(&count, &arguments);
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < count; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  for (const auto& path : files) {
    std::ifstream stream(path, std::ios::binary);
    const std::vector<char> content(std::istreambuf_iterator<char>(stream), {});
    std::fprintf(stderr, "%s\n", path.filename().c_str());  // the last line names a crash
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(content.data()), content.size());
  }
  std::fprintf(stderr, "replayed %zu inputs\n", files.size());
  return files.empty() ? 1 : 0;
}
