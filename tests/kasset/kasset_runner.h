#pragma once
// Runs the kasset binary as a subprocess, as a person or a script would, and reads back what it
// printed.

#include <filesystem>
#include <string>
#include <vector>

namespace kelvo::testing {

struct KassetRun {
  int code = -1; // the exit code, -1 when kasset didn't exit normally
  std::string out;
  std::string err;
};

// The whole content of the file at path, empty when it can't be read.
std::string ReadFile(const std::filesystem::path& path);

// Runs kasset with args in root, with its preference, global preference and library directories
// under root. The output is captured in files under root that are removed again, so that the tree
// holds only what kasset itself wrote.
KassetRun RunKasset(const std::filesystem::path& root, const std::vector<std::string>& args);

} // namespace kelvo::testing
