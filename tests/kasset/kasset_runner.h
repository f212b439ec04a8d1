#pragma once
// Runs the kasset binary as a subprocess, as a person or a script would, and reads back what it
// printed.

#include <gtest/gtest.h>

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

// A test with its own temporary directory root (made empty before the test, removed after it) in
// which kasset runs.
class KassetFixture : public ::testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;
  KassetRun Kasset(const std::vector<std::string>& args) { return RunKasset(root, args); }
  // The repository root/repo, and kasset run with it as the target repository.
  std::string Repo() const { return (root / "repo").string(); }
  KassetRun InRepo(std::vector<std::string> args) {
    args.insert(args.begin(), {"--repo", Repo()});
    return Kasset(args);
  }
  // Writes content to path, making its directories first.
  static void Write(const std::filesystem::path& path, const std::string& content);

  std::filesystem::path root;
};

} // namespace kelvo::testing
