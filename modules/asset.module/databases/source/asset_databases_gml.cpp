// The repository graph as a GML file: one node per repository, one edge per base.

#include <cstdint>

#include "asset/databases/asset_databases.h"
#include "asset_databases_gml.h"
#include "asset/standard/assets.h"
#include "kelvo/application.h"
#include "kelvo/gml_writer.h"
#include "kelvo/language.h"
#include "kelvo/log.h"

namespace kelvo {

namespace {

class AssetRepositoryGmlGraph final : public GmlGraphInterface<AssetRepositoryRef> {
public:
  Result<void> GetTargets(const AssetRepositoryRef& node, const TargetReceiver& receiver) const override {
    if (!node) return {};
    RepositoryArrayRef bases = node->GetBases();
    if (!bases) return {};
    for (const AssetRepositoryRef& base : *bases) {
      if (!base) continue;
      KELVO_ASSIGN_OR_RETURN(bool more, receiver(base, GmlEdgeTarget{}));
      if (!more) break;
    }
    return {};
  }
  std::optional<AssetRepositoryRef> GetParent(const AssetRepositoryRef&) const override { return std::nullopt; }
  GmlNodeAttribs GetNodeAttribs(const AssetRepositoryRef& node) const override { return RepositoryGmlAttribs(node); }
};

// Adds repository and, depth first, every repository derived from it.
Result<void> AddWithDerived(GmlWriter<AssetRepositoryRef>& writer, const AssetRepositoryRef& repository) {
  const std::size_t before = writer.GetCount();
  writer.Add(repository);
  if (writer.GetCount() == before) return {};
  std::vector<AssetRepositoryRef> derived;
  KELVO_RETURN_ON_ERROR(repository->GetDerived([&](const AssetRepositoryRef& d) -> Result<bool> {
    derived.push_back(d);
    return true;
  }));
  for (const AssetRepositoryRef& d : derived) KELVO_RETURN_ON_ERROR(AddWithDerived(writer, d));
  return {};
}

} // namespace

std::uint32_t RepositoryGmlColor(bool skipInSearch, bool writable) {
  return (skipInSearch ? 0xff7f7fu : 0xffffffu) & (writable ? 0xffffffu : 0xeeeeeeu);
}

GmlNodeAttribs RepositoryGmlAttribs(const AssetRepositoryRef& repository) {
  GmlNodeAttribs attribs;
  if (!repository) return attribs;
  const Id id = repository->GetId();
  Result<std::string> name = repository->GetRepositoryName(Language::GetDefaultLanguage(), false);
  const bool writable = repository->IsWritable();
  const bool skip = repository->GetData(repositorykeys::skipinsearch).Get<bool>().value_or(false);
  const long refCount = repository.use_count();
  attribs.text = FormatString("Name: @\r\nId: @\r\nWritable: @, RefCnt: @\r\nSkipOnSearch: @\r\nPointer: @",
                              name.HasValue() ? *name : id.ToString(), id, writable, refCount, skip,
                              static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(repository.get())));
  attribs.color = RepositoryGmlColor(skip, writable);
  return attribs;
}

Result<void> AssetDataBases::WriteGmlDependencies() {
  if (!g_generateAssetRepositoryGml) return {};
  const AssetRepositoryRef user = AssetInterface::GetUserPrefsRepository();
  if (!user) return IllegalStateError("Illegal state: Condition userRepository != nullptr not fulfilled. ");
  AssetRepositoryGmlGraph graph;
  GmlWriter<AssetRepositoryRef> writer;
  KELVO_RETURN_ON_ERROR(AddWithDerived(writer, user));

  const Url prefs = Application::PrivateGetUrl(APPLICATION_URLTYPE::PREFS_DIR);
  const Url file = prefs.Append("assetrepository_deps.gml");
  KELVO_ASSIGN_OR_RETURN(GmlDocument document, writer.Build(graph));
  KELVO_RETURN_ON_ERROR(prefs.IoCreateDirectory(true));
  KELVO_RETURN_ON_ERROR(file.WriteAll(document.ToText()));
  DiagnosticOutput("Updated asset repository graph: @", file);
  return {};
}

} // namespace kelvo
