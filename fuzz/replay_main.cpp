// Runs a fuzz target over files: each argument is an input file or a folder
// of them. Built with every compiler, so that the seed corpus and every input
// that once failed run as regression tests in the ordinary (and sanitizer)
// builds.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void RunFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path arg(argv[i]);
    if (std::filesystem::is_directory(arg)) {
      std::vector<std::filesystem::path> files;
      for (const auto& entry : std::filesystem::directory_iterator(arg))
        if (entry.is_regular_file()) files.push_back(entry.path());
      std::sort(files.begin(), files.end());
      for (const auto& f : files) {
        RunFile(f);
        ++count;
      }
    } else if (std::filesystem::exists(arg)) {
      RunFile(arg);
      ++count;
    }
  }
  std::printf("%zu inputs ran\n", count);
  return count > 0 ? 0 : 1;
}
