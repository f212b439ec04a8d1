// The subsystems of the asset module form layers: a source or header includes the published
// headers of its own subsystem and of those beneath it only, and the framework none of the
// module's. The build catches a wrong include only while the libraries' links stay right; this
// reads the includes themselves.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>

namespace {

namespace fs = std::filesystem;

// Each subsystem with the subsystems directly beneath it.
const std::map<std::string, std::set<std::string>> kBeneath{
    {"core", {}},
    {"storage", {"core"}},
    {"standard", {"storage"}},
    {"databases", {"standard"}},
    {"types", {"standard"}},
    {"downloads", {"databases", "types"}},
    {"watchfolder", {"databases"}},
    {"search", {"types", "watchfolder", "downloads"}},
    {"module", {"downloads", "search"}},
};

std::set<std::string> Visible(const std::string& subsystem) {
  std::set<std::string> visible{subsystem};
  for (const std::string& lower : kBeneath.at(subsystem)) visible.merge(Visible(lower));
  return visible;
}

// Every asset header that the C++ files below dir include, with "file:line" where.
std::map<std::string, std::string> AssetIncludes(const fs::path& dir) {
  static const std::regex include(R"(^\s*#\s*include\s*["<]asset/([a-z]+)/)");
  std::map<std::string, std::string> found;
  for (const auto& e : fs::recursive_directory_iterator(dir)) {
    const std::string ext = e.path().extension().string();
    if (!e.is_regular_file() || (ext != ".h" && ext != ".cpp")) continue;
    std::ifstream in(e.path());
    int number = 0;
    for (std::string line; std::getline(in, line);) {
      ++number;
      std::smatch m;
      if (std::regex_search(line, m, include)) found[e.path().string() + ":" + std::to_string(number)] = m[1];
      EXPECT_EQ(line.find("#include \"../"), std::string::npos) << e.path() << ":" << number << " reaches outside";
    }
  }
  return found;
}

TEST(ModuleLayers, NoSourceIncludesAHeaderOfAHigherSubsystem) {
  const fs::path module = fs::path(KELVO_SOURCE_DIR) / "modules" / "asset.module";
  std::set<std::string> folders;
  for (const auto& e : fs::directory_iterator(module))
    if (e.is_directory()) folders.insert(e.path().filename().string());
  for (const auto& [subsystem, beneath] : kBeneath) EXPECT_TRUE(folders.count(subsystem)) << subsystem;
  for (const std::string& folder : folders) {
    if (!kBeneath.count(folder)) {
      ADD_FAILURE() << "subsystem " << folder << " has no place among the layers";
      continue;
    }
    const std::set<std::string> visible = Visible(folder);
    for (const auto& [where, included] : AssetIncludes(module / folder))
      EXPECT_TRUE(visible.count(included)) << where << " includes a header of " << included;
  }
  for (const auto& [where, included] : AssetIncludes(fs::path(KELVO_SOURCE_DIR) / "framework"))
    ADD_FAILURE() << where << " includes a header of " << included;
}

} // namespace
