// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Gives each kept input of a folder to a fuzz target: SUBJECT-replay FOLDER. Any compiler can build it.
#include "tests/fuzz/FuzzInput.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

namespace {

std::vector<std::uint8_t> readInput(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw std::runtime_error("cannot read " + path.string());
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::filesystem::path> inputsIn(const char* folder) {
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

void replay(const char* folder) {
  const std::vector<std::filesystem::path> paths = inputsIn(folder);
  if (paths.empty()) {
    throw std::runtime_error(std::string("no input in ") + folder);
  }
  for (const std::filesystem::path& path : paths) {
    // The last line before a finding names its input.
    (void)std::fprintf(stderr, "%s\n", path.c_str());
    const std::vector<std::uint8_t> input = readInput(path);
    (void)LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  (void)std::printf("%zu inputs\n", paths.size());
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc != 2) {
      throw std::runtime_error("usage: SUBJECT-replay FOLDER");
    }
    replay(argv[1]);
  } catch (const std::exception& failure) {
    (void)std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
  return 0;
}
