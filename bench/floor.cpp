// The benchmark's floor: the time libplist alone takes to parse a machine's recorded tool
// outputs, with nothing of the scanner around it.
//
// Usage: tarn_bench_floor ITERATIONS FILE...
// Prints the median over the iterations, in milliseconds, of parsing every file once (files
// are read into memory first; freeing the trees is not timed).
#include <plist/plist.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string ReadFile(const char* path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// Parses every document once; the time taken, in milliseconds.
double ParseAll(const std::vector<std::string>& documents) {
  std::vector<plist_t> roots;
  roots.reserve(documents.size());
  const auto start = std::chrono::steady_clock::now();
  for (const std::string& document : documents) {
    plist_t root = nullptr;
    const auto length = static_cast<std::uint32_t>(document.size());
    if (document.compare(0, 8, "bplist00") == 0) {
      plist_from_bin(document.data(), length, &root);
    } else {
      plist_from_xml(document.data(), length, &root);
    }
    roots.push_back(root);
  }
  const auto end = std::chrono::steady_clock::now();
  for (plist_t root : roots) {
    if (root != nullptr) plist_free(root);
  }
  return std::chrono::duration<double, std::milli>(end - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s ITERATIONS FILE...\n", argv[0]);
    return 2;
  }
  const int iterations = std::max(1, std::atoi(argv[1]));
  std::vector<std::string> documents;
  for (int i = 2; i < argc; ++i) documents.push_back(ReadFile(argv[i]));
  std::vector<double> times;
  for (int i = 0; i < iterations; ++i) times.push_back(ParseAll(documents));
  std::sort(times.begin(), times.end());
  std::printf("%.3f\n", times[times.size() / 2]);
  return 0;
}
