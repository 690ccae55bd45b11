// Runs a fuzz target over every file of the folders and files given, in the order of their names.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      files.emplace_back(argv[i]);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) files.push_back(entry);
  }
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    std::ifstream stream(file, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(stream)), {});
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("%zu inputs\n", files.size());
  return files.empty() ? 1 : 0;
}
