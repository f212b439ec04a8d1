#include "kasset_runner.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace kelvo::testing {

namespace fs = std::filesystem;

namespace {

// text quoted for the shell.
std::string Quote(const std::string& text) {
  std::string q = "'";
  for (char c : text) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

} // namespace

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

KassetRun RunKasset(const fs::path& root, const std::vector<std::string>& args) {
  std::string command = "cd " + Quote(root.string()) + " && KELVO_PREFS_DIR=" + Quote((root / "prefs").string()) +
                        " KELVO_GLOBALPREFS_DIR=" + Quote((root / "gprefs").string()) +
                        " KELVO_LIBRARY_DIR=" + Quote((root / "library").string()) + " " + Quote(KASSET_BINARY);
  for (const std::string& a : args) command += " " + Quote(a);
  command += " >" + Quote((root / ".out").string()) + " 2>" + Quote((root / ".err").string());
  KassetRun run;
  const int status = std::system(command.c_str());
  run.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = ReadFile(root / ".out");
  run.err = ReadFile(root / ".err");
  fs::remove(root / ".out");
  fs::remove(root / ".err");
  return run;
}

void KassetFixture::SetUp() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  root = fs::temp_directory_path() / ("kasset_" + std::string(info->test_suite_name()) + "_" + info->name() + "_" +
                                      std::to_string(::getpid()));
  fs::remove_all(root);
  fs::create_directories(root);
}

void KassetFixture::TearDown() {
  std::error_code ec;
  fs::remove_all(root, ec);
}

void KassetFixture::Write(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

} // namespace kelvo::testing
