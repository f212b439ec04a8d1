#pragma once
// A temporary directory tree for URL repository tests: the repository root and the two
// preference trees.

#include <map>
#include <string>

#include "kelvo/application.h"
#include "kelvo/hash.h"
#include "temp_tree.h"
#include "test_assets.h"
#include "asset/storage/url_layout.h"
#include "asset/storage/urlassetrepository.h"

namespace kelvo::testing {

// Metadata that the URL repository tests store: a value, and a URL whose file is copied in.
inline const InternedId kNote{"net.kelvo.test.note"};
inline const InternedId kPreview{"net.kelvo.test.preview"};

class UrlRepositoryTest : public TempTreeTest {
protected:
  void SetUp() override {
    RegisterTextAssetType();
    TempTreeTest::SetUp();
    std::filesystem::create_directories(_dir / "repo");
    std::filesystem::create_directories(_dir / "prefs");
    std::filesystem::create_directories(_dir / "globalprefs");
    Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url::FromFile((_dir / "prefs").string()));
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url::FromFile((_dir / "globalprefs").string()));
  }
  void TearDown() override {
    Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url());
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url());
    std::error_code ec;
    std::filesystem::permissions(_dir / "repo" / "databaseid", std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
    TempTreeTest::TearDown();
  }

  std::filesystem::path Root() const { return _dir / "repo"; }
  Url RootUrl() const { return Url::FromFile(Root().string()); }

  std::shared_ptr<UrlAssetRepository> Open(bool writable = true, const std::string& id = "test.repo") {
    auto r = CreateUrlAssetRepository(Id(id), {}, RootUrl(), writable, false, false);
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    return r.HasValue() ? *r : nullptr;
  }

  static AssetDescription Store(const std::shared_ptr<UrlAssetRepository>& repo, const std::string& aid,
                                const std::string& text, const AssetMetaDataRef& meta = nullptr) {
    auto r = repo->StoreAsset(Id(aid), MakeText(text), meta);
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    return r.HasValue() ? *r : nullptr;
  }

  // Every version of every asset of the given type: asset Id to the texts by version Id.
  static std::map<std::string, std::map<std::string, std::string>> Contents(const AssetRepositoryRef& repo,
                                                                            const Id& type = kTextType) {
    std::map<std::string, std::map<std::string, std::string>> out;
    auto r = repo->FindAssets(TypeArray{type}, Id(), Id(), ALL | WITHOUT_BASES, [&](const AssetDescription& d) -> Result<bool> {
      out[d->GetIdAndVersion().first.ToString()][d->GetIdAndVersion().second.ToString()] = LoadText(d);
      return true;
    });
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    return out;
  }

  static AssetDescription Latest(const AssetRepositoryRef& repo, const std::string& aid) {
    auto r = repo->FindLatestAsset(Id(), Id(aid), Id(), WITHOUT_BASES);
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    return r.HasValue() ? *r : nullptr;
  }

  // The directory of the (first) index part of the root.
  std::filesystem::path PartDir() const {
    for (const auto& e : std::filesystem::directory_iterator(Root() / "_index"))
      if (e.is_directory() && e.path().filename().string().find('.') == std::string::npos) return e.path();
    return {};
  }

  // Replaces the listing of an index part and its checksum line, so the part stays intact.
  static void WriteListing(const std::filesystem::path& part, const std::string& listing) {
    WriteFile(part / "index", listing);
    Sha256 h;
    h.Update(listing.data(), listing.size());
    const auto d = h.Finish();
    std::string sums = ReadFile(part / ".checksum");
    const auto line = sums.find("  index\n");
    ASSERT_NE(line, std::string::npos);
    sums.replace(line - HASH_LEN, HASH_LEN, ToHex(d.data(), d.size()));
    WriteFile(part / ".checksum", sums);
  }
};

} // namespace kelvo::testing
