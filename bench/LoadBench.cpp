// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What loading the libraries costs a fresh process. LoadBench LIBRARY... loads one after the other, so that a later one
// counts only with what the earlier ones have not loaded. This program is linked with none of them.

#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

// Returns the resident memory of the process in bytes.
long residentBytes() {
  std::FILE* const file = std::fopen("/proc/self/statm", "r");
  char line[128];
  if (file == nullptr || std::fgets(line, sizeof line, file) == nullptr) {
    std::perror("/proc/self/statm");
    std::exit(EXIT_FAILURE);
  }
  (void)std::fclose(file);
  char* resident = nullptr;
  (void)std::strtol(line, &resident, 10);  // the first number is the size of the address space
  return std::strtol(resident, nullptr, 10) * sysconf(_SC_PAGESIZE);
}

bool load(const char* library) {
  const long before = residentBytes();
  const auto start = std::chrono::steady_clock::now();
  if (dlopen(library, RTLD_NOW) == nullptr) {
    (void)std::fprintf(stderr, "%s\n", dlerror());
    return false;
  }
  const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
  const char* name = library;
  for (const char* at = library; *at != '\0'; ++at) {
    name = *at == '/' ? at + 1 : name;
  }
  std::printf("load,%s,time,us,%.6g\n", name, time.count());
  std::printf("load,%s,resident memory,bytes,%ld\n", name, residentBytes() - before);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  (void)residentBytes();  // loads what reading itself needs
  for (int i = 1; i < argc; ++i) {
    if (!load(argv[i])) {
      return EXIT_FAILURE;
    }
  }
  return EXIT_SUCCESS;
}
