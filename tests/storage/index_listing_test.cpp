// Index listings as another writer may leave them: assets out of order, an asset in two entries,
// an asset under two directories. Values and times must come out as from a compacted listing.

#include <algorithm>

#include "url_repository_fixture.h"

using namespace kelvo;
using namespace kelvo::testing;
namespace fs = std::filesystem;

namespace {

const InternedId kListingNote{"net.kelvo.test.listingnote"};

class IndexListingTest : public UrlRepositoryTest {
protected:
  // Asset Id -> version Id -> (time, note) as a repository reports them.
  using Seen = std::map<std::string, std::map<std::string, std::pair<std::uint64_t, std::string>>>;

  static Seen Look(const AssetRepositoryRef& repo) {
    Seen seen;
    auto r = repo->FindAssets(TypeArray{kTextType}, Id(), Id(), ALL | WITHOUT_BASES, [&](const AssetDescription& d) -> Result<bool> {
      std::string note;
      if (auto v = d->GetMetaData()->Get(kListingNote); v.HasValue() && *v)
        note = (*v)->Get<std::string>().value_or("");
      seen[d->GetIdAndVersion().first.ToString()][d->GetIdAndVersion().second.ToString()] = {d->GetKey().time, note};
      return true;
    });
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    return seen;
  }

  // Stores a few assets with notes, compacts, and returns what the repository shows.
  Seen MakeIndexed() {
    auto repo = Open();
    for (const char* aid : {"delta", "alpha", "charlie", "bravo"}) {
      for (int v = 1; v <= 2; ++v) {
        auto d = Store(repo, aid, std::string(aid) + std::to_string(v));
        EXPECT_TRUE(d && repo->StoreMetaData(d, kListingNote, Data(std::string(aid) + " note " + std::to_string(v)),
                                              AssetMetaData::PERSISTENT).HasValue());
      }
    }
    EXPECT_TRUE(repo->Compact().HasValue());
    return Look(repo);
  }

  // Removes the value files of every version, so that values can only come from the index.
  void RemoveValueFiles() const {
    std::vector<fs::path> files;
    for (auto it = fs::recursive_directory_iterator(Root()); it != fs::recursive_directory_iterator(); ++it) {
      if (it->path().filename() == "_index") it.disable_recursion_pending();
      const std::string ext = it->path().extension().string();
      if (it->is_regular_file() && (ext == ".meta" || ext == ".version")) files.push_back(it->path());
    }
    EXPECT_GE(files.size(), 16u);
    for (const fs::path& f : files) fs::remove(f);
  }

  // Installs listing in part, then opens the repository from the index and compares what it shows.
  void ExpectOpenedFromIndex(const fs::path& part, const std::string& listing, const Seen& expected) {
    WriteListing(part, listing);
    auto repo = Open();
    EXPECT_TRUE(repo->WasOpenedFromIndex());
    EXPECT_EQ(Look(repo), expected);
  }

  // The listing's entries: directory, asset Id and type lines, then the lines with a leading tab.
  static std::vector<std::string> Entries(const std::string& listing) {
    std::vector<std::string> entries;
    std::size_t start = 0;
    auto nextLine = [&listing](std::size_t at) {
      const std::size_t end = listing.find('\n', at);
      return end == std::string::npos ? listing.size() : end + 1;
    };
    while (start < listing.size()) {
      std::size_t end = nextLine(nextLine(nextLine(start)));
      while (end < listing.size() && listing[end] == '\t') end = nextLine(end);
      entries.push_back(listing.substr(start, end - start));
      start = end;
    }
    return entries;
  }

};

TEST_F(IndexListingTest, ListingInAnyOrderGivesTheSameAssetsTimesAndValues) {
  const Seen expected = MakeIndexed();
  ASSERT_EQ(expected.size(), 4u);
  RemoveValueFiles();
  const fs::path part = PartDir();
  const std::vector<std::string> sorted = Entries(ReadFile(part / "index"));
  ASSERT_GE(sorted.size(), 4u); // and the database information asset

  std::vector<std::string> reversed(sorted.rbegin(), sorted.rend());
  std::vector<std::string> shuffled = sorted;
  std::rotate(shuffled.begin(), shuffled.begin() + 2, shuffled.end());
  std::swap(shuffled[0], shuffled[3]);
  for (const auto& order : {reversed, shuffled}) {
    std::string listing;
    for (const std::string& e : order) listing += e;
    ExpectOpenedFromIndex(part, listing, expected);
  }
}

TEST_F(IndexListingTest, AnAssetSplitOverTwoEntriesIsOneAsset) {
  const Seen expected = MakeIndexed();
  RemoveValueFiles();
  const fs::path part = PartDir();
  std::vector<std::string> entries = Entries(ReadFile(part / "index"));
  // The first entry's versions as two entries, the second placed after all others.
  const std::string& first = entries[0];
  std::size_t header = 0;
  for (int i = 0; i < 3; ++i) header = first.find('\n', header) + 1;
  // The line of the second version number: a line with one tab and a digit.
  std::size_t at = header;
  int versionLines = 0;
  std::size_t cut = std::string::npos;
  while (at < first.size()) {
    const std::size_t end = first.find('\n', at) + 1;
    const std::string line = first.substr(at, end - at);
    if (line.size() > 1 && line[0] == '\t' && line[1] != '\t' && std::isdigit(static_cast<unsigned char>(line[1]))) {
      if (++versionLines == 2) {
        cut = at;
        break;
      }
    }
    at = end;
  }
  ASSERT_NE(cut, std::string::npos);
  const std::string head = first.substr(0, header);
  std::string listing = first.substr(0, cut);
  for (std::size_t i = 1; i < entries.size(); ++i) listing += entries[i];
  listing += head + first.substr(cut);
  ExpectOpenedFromIndex(part, listing, expected);
}

TEST_F(IndexListingTest, AnAssetUnderTwoDirectoriesMakesTheIndexUnusable) {
  const Seen expected = MakeIndexed();
  const fs::path part = PartDir();
  std::vector<std::string> entries = Entries(ReadFile(part / "index"));
  // The last entry again, out of order, naming another asset's directory.
  std::string again = entries.back();
  const std::string otherDirectory = entries.front().substr(0, entries.front().find('\n'));
  again.replace(0, again.find('\n'), otherDirectory);
  std::string listing;
  for (const std::string& e : entries) listing += e;
  WriteListing(part, listing + again);
  auto repo = Open();
  EXPECT_FALSE(repo->WasOpenedFromIndex());
  EXPECT_EQ(Look(repo), expected);
}

} // namespace
