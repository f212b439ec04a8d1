// One index part as the opening of a repository reads it: the listing and compacted metadata
// documents, split from the input at the line "--document--". The first byte chooses the part's
// range. Aborts when an accepted part yields a version outside its range, a directory or file name
// that could leave the tree, or an asset that isn't an Id.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "asset/storage/url_layout.h"
#include "url_repository_index.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

constexpr std::string_view kSeparator = "\n--document--\n";

kelvo::IndexPartFiles SplitFiles(std::string_view input) {
  kelvo::IndexPartFiles files;
  std::size_t at = input.find(kSeparator);
  files.listing = std::string(input.substr(0, at));
  int n = 0;
  while (at != std::string_view::npos) {
    const std::size_t start = at + kSeparator.size();
    at = input.find(kSeparator, start);
    files.documents.emplace_back("net.kelvo.fuzz.meta" + std::to_string(n++),
                                 std::string(input.substr(start, at == std::string_view::npos ? at : at - start)));
  }
  return files;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::uint64_t lo = data[0] & 0x0f;
  const std::uint64_t hi = lo + (data[0] >> 4) * 3;
  const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);

  kelvo::UrlAssetRepositoryImpl::LoadedIndex index;
  std::uint64_t highest = 0;
  const kelvo::Url part = kelvo::Url::FromFile("/repository/_index/part");
  if (kelvo::ParseIndexPart(part, lo, hi, SplitFiles(input), index, highest).HasError()) return 0;
  Check(highest <= hi);
  for (const auto& asset : index.assets) {
    Check(kelvo::IsSafePathComponent(asset.directoryName) && asset.directoryName.front() != '.');
    Check(kelvo::IsValidIdText(asset.aid.View()) && kelvo::IsValidIdText(asset.type.View()));
    for (const auto& [number, version] : *asset.versions) {
      Check(number >= lo && number <= hi);
      Check(!version.names.empty());
      for (std::size_t i = 0; i < version.names.size(); ++i)
        Check((i == 0 && version.names[i].empty()) || kelvo::IsSafePathComponent(version.names[i]));
    }
    Check(index.Find(asset.aid) < index.assets.size());
  }
  // A second part over the same index: assets already there keep their one directory.
  std::uint64_t again = 0;
  (void)kelvo::ParseIndexPart(part, lo, hi, SplitFiles(input), index, again);
  return 0;
}
