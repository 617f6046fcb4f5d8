// replay_main.cpp -- runs the device fuzzer's inputs once each, without
// libFuzzer: the ctest that replays the seed corpus (and any crash file) in
// every build, also one made with a compiler that has no libFuzzer.
//
// Usage: lus_device_fuzz_replay FILE_OR_DIR...   (directories: every regular file in them)
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
   namespace fs = std::filesystem;
   std::vector<fs::path> inputs;
   for (int i = 1; i < argc; i++) {
      fs::path p(argv[i]);
      if (fs::is_directory(p)) {
         for (const auto &e : fs::directory_iterator(p)) {
            if (e.is_regular_file()) inputs.push_back(e.path());
         }
      } else {
         inputs.push_back(p);
      }
   }
   if (inputs.empty()) {
      fprintf(stderr, "lus_device_fuzz_replay: no inputs given\n");
      return 2;
   }
   std::sort(inputs.begin(), inputs.end());
   for (const auto &p : inputs) {
      std::ifstream in(p, std::ios::binary);
      std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      if (!in.good() && !in.eof()) {
         fprintf(stderr, "lus_device_fuzz_replay: cannot read %s\n", p.c_str());
         return 2;
      }
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
   }
   printf("replayed %zu inputs\n", inputs.size());
   return 0;
}
