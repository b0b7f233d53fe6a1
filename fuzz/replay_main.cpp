// Runs a fuzz target once over every file of the corpus folders (or files)
// it is given, so that the targets build and their seeds keep passing
// without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

int replay(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  const std::string input{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (!in && !in.eof()) {
    std::fprintf(stderr, "cannot read %s\n", file.c_str());
    return 1;
  }
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    if (std::filesystem::is_directory(argv[i])) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
        if (entry.is_regular_file()) files.push_back(entry.path());
      }
    } else {
      files.emplace_back(argv[i]);
    }
  }
  if (files.empty()) {
    std::fprintf(stderr, "usage: %s <corpus folder or file>...: no inputs found\n", argv[0]);
    return 2;
  }
  int failures = 0;
  for (const auto& file : files) failures += replay(file);
  std::printf("replayed %zu inputs\n", files.size() - failures);
  return failures == 0 ? 0 : 1;
}
