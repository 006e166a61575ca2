// Replays seed files through a fuzz target's entry point without libFuzzer, so that the
// test suite runs every corpus under its own sanitizers:
//   <target>_replay DIR_OR_FILE ...
// Fails when an argument names nothing readable or no file at all.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// The suite's leak suppressions (libraries' own one-time allocations).
extern "C" const char* __lsan_default_options() { return "suppressions=" QM_SOURCE_DIR "/tests/lsan.supp"; }

namespace {

std::vector<std::filesystem::path> s_inputs(const char* arg) {
  std::vector<std::filesystem::path> files;
  const std::filesystem::path root(arg);
  if (std::filesystem::is_directory(root)) {
    for (const auto& entry : std::filesystem::directory_iterator(root))
      if (entry.is_regular_file()) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
  } else if (std::filesystem::is_regular_file(root)) {
    files.push_back(root);
  }
  return files;
}

bool s_replay(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return false;
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::printf("replay %s (%zu bytes)\n", file.c_str(), bytes.size());
  std::fflush(stdout);
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    const std::vector<std::filesystem::path> files = s_inputs(argv[i]);
    if (files.empty()) {
      std::fprintf(stderr, "no seed files in %s\n", argv[i]);
      return 1;
    }
    for (const auto& file : files) {
      if (!s_replay(file)) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return 1;
      }
      ++replayed;
    }
  }
  std::printf("%zu inputs replayed\n", replayed);
  return replayed > 0 ? 0 : 1;
}
