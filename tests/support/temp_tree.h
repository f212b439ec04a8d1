#pragma once
// A fresh directory for each test, named after it and removed with its content at its end, and
// the whole-file reads and writes that tests do in it.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace kelvo::testing {

// The content of the file at path; empty when it can't be read.
inline std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Writes content to path, making the directories above it first.
inline void WriteFile(const std::filesystem::path& path, const std::string& content) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

// _dir is an empty directory at the start of each test and gone after it.
class TempTreeTest : public ::testing::Test {
protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info->test_suite_name()) + "_" + info->name();
    std::replace(name.begin(), name.end(), '/', '_');
    _dir = std::filesystem::temp_directory_path() / ("kelvo_" + name + "_" + std::to_string(::getpid()));
    std::filesystem::remove_all(_dir);
    std::filesystem::create_directories(_dir);
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(_dir, ec);
  }

  std::filesystem::path _dir;
};

} // namespace kelvo::testing
