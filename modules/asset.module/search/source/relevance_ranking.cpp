#include "asset/search/relevance_ranking.h"

#include <limits>

#include "asset/search/display_strings.h"
#include "asset/types/command_asset.h"

namespace kelvo {
namespace {

using CONTEXT = ASSETRELEVANCECONTEXT;

const Id kFileType{"net.kelvo.assettype.file"};
const Id kDefaultsPresetType{"net.kelvo.assettype.preset.defaults"};
constexpr std::string_view kPresetPrefix = "net.kelvo.assettype.preset.";
constexpr std::string_view kSubtypePrefix = "net.kelvo.asset.subtype.";
constexpr std::int64_t kNoTable = 1000;

bool IsAlnum(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

Id CommandType(std::string_view suffix) { return Id(commandids::typePrefix + std::string(suffix)); }
Id Scope(std::string_view suffix) { return Id("net.kelvo.asset.command.scope." + std::string(suffix)); }

// Scores of file assets by subtype: scene, object, material, media.
std::int64_t FileScore(CONTEXT context, const Id& subtype) {
  const std::string_view s = subtype.View();
  if (!s.starts_with(kSubtypePrefix)) return kNoTable;
  const std::string_view kind = s.substr(kSubtypePrefix.size());
  int column;
  if (kind == "scene") column = 0;
  else if (kind == "object") column = 1;
  else if (kind == "material") column = 2;
  else if (kind == "mediaimage" || kind == "mediamovie") column = 3;
  else return kNoTable;
  static constexpr std::int64_t kTable[][4] = {
      {13, 6, 8, 12}, // OBJECT_OM, OBJECT_VP
      {13, 4, 6, 9},  // MESH
      {8, 3, 5, 6},   // SPLINE
      {10, 7, 3, 4},  // MATERIAL
      {12, 9, 7, 6},  // UV_EDITOR, UV_VP
      {10, 7, 6, 5},  // NODE
      {13, 7, 6, 11}, // OTHER
  };
  int row;
  switch (context) {
  case CONTEXT::OBJECT_OM:
  case CONTEXT::OBJECT_VP: row = 0; break;
  case CONTEXT::MESH: row = 1; break;
  case CONTEXT::SPLINE: row = 2; break;
  case CONTEXT::MATERIAL: row = 3; break;
  case CONTEXT::UV_EDITOR:
  case CONTEXT::UV_VP: row = 4; break;
  case CONTEXT::NODE: row = 5; break;
  case CONTEXT::OTHER: row = 6; break;
  default: return kNoTable;
  }
  return kTable[row][column];
}

std::int64_t NodeTemplateScore(CONTEXT context, bool objectNode, bool isOperator) {
  switch (context) {
  case CONTEXT::OBJECT_OM:
  case CONTEXT::OBJECT_VP: return objectNode ? 2 : isOperator ? 10 : 9;
  case CONTEXT::MESH: return objectNode ? 1 : isOperator ? 11 : 10;
  case CONTEXT::SPLINE: return objectNode ? 1 : 7;
  case CONTEXT::MATERIAL: return 1;
  case CONTEXT::UV_EDITOR:
  case CONTEXT::UV_VP: return isOperator ? 8 : 11;
  case CONTEXT::NODE: return isOperator ? 1 : 2;
  case CONTEXT::OTHER: return objectNode ? 2 : 12;
  default: return kNoTable;
  }
}

bool IsHiddenPresetType(const Id& type) {
  static const char* const kHidden[] = {"iconchooser", "capsandbevel", "colorswatch", "gradient",
                                        "sketch",      "spline",       "exchangesettings"};
  const std::string_view t = type.View();
  for (const char* hidden : kHidden)
    if (t.substr(kPresetPrefix.size()) == hidden) return true;
  return false;
}

Result<std::int64_t> PresetScore(CONTEXT context, const AssetFacts& facts, const RelevanceInputs& inputs) {
  const bool objects = context == CONTEXT::OBJECT_OM || context == CONTEXT::OBJECT_VP;
  if (facts.typeId == kDefaultsPresetType && (objects || context == CONTEXT::MESH)) {
    if (!inputs.defaultPresetPluginType) return kNoTable;
    KELVO_ASSIGN_OR_RETURN(std::int64_t r, inputs.defaultPresetPluginType(facts.asset));
    if (objects) return r == 5 || r == 6 ? 3 : 11;
    return r == 5 || r == 9 ? 5 : 12;
  }
  const bool hidden = IsHiddenPresetType(facts.typeId);
  switch (context) {
  case CONTEXT::OBJECT_OM:
  case CONTEXT::OBJECT_VP: return hidden ? 4000 : 11;
  case CONTEXT::MESH: return hidden ? 4000 : 12;
  case CONTEXT::SPLINE: return hidden ? 4000 : 4;
  case CONTEXT::MATERIAL: return 8;
  case CONTEXT::UV_EDITOR:
  case CONTEXT::UV_VP: return hidden ? 4000 : 10;
  case CONTEXT::NODE: return hidden ? 4000 : 8;
  case CONTEXT::OTHER: return hidden ? 4000 : 10;
  default: return kNoTable;
  }
}

Result<std::int64_t> CommandScore(CONTEXT context, const AssetFacts& facts, const RelevanceInputs& inputs) {
  const AssetDescription& asset = facts.asset;
  KELVO_ASSIGN_OR_RETURN(COMMAND_ASSET_STATE state, CommandAssetInterface::QueryState(asset));
  const bool enabled = (state & ENABLED) != 0;
  if (context == CONTEXT::OTHER && inputs.commandRestrictionManager) {
    KELVO_ASSIGN_OR_RETURN(std::int64_t manager, inputs.commandRestrictionManager(asset));
    if (manager != 0 && manager == inputs.activeManager) return enabled ? 1 : 2999;
  }
  if (!enabled) return 3000;
  KELVO_ASSIGN_OR_RETURN(Id type, CommandAssetInterface::GetCommandType(asset));
  const auto is = [&](std::string_view suffix) { return type == CommandType(suffix); };
  const auto scope = [&](std::string_view suffix) { return CommandAssetInterface::ContainsCommandScope(asset, Scope(suffix)); };
  const bool objectType = CommandAssetInterface::IsObjectCommandType(type);
  const bool toolOrCommand = is("tool") || is("command");
  const bool tagOrManager = is("tag") || is("manager");
  switch (context) {
  case CONTEXT::OBJECT_OM:
  case CONTEXT::OBJECT_VP: {
    if (is("object.primitive")) return 1;
    if (is("tag") || objectType) return 2;
    KELVO_ASSIGN_OR_RETURN(bool has, scope(context == CONTEXT::OBJECT_OM ? "objects" : "viewport"));
    if (has) return context == CONTEXT::OBJECT_OM ? 5 : 4;
    return 7;
  }
  case CONTEXT::MESH: {
    KELVO_ASSIGN_OR_RETURN(std::vector<Id> scopes, CommandAssetInterface::GetCommandScopes(asset));
    if (scopes.empty()) return 8;
    for (const Id& s : scopes)
      if (s == Scope("mesh") || s == Scope("model")) return 1;
    if (scopes.size() == 1 && scopes[0] == Scope("viewport")) return 7;
    return 8;
  }
  case CONTEXT::SPLINE: {
    KELVO_ASSIGN_OR_RETURN(bool has, scope("spline"));
    return has ? 1 : 2;
  }
  case CONTEXT::MATERIAL: {
    KELVO_ASSIGN_OR_RETURN(bool has, scope("materials"));
    if (toolOrCommand) return has ? 1 : 5;
    if (tagOrManager) return has ? 2 : 5;
    if (is("mode") || objectType) return 6;
    return 5;
  }
  case CONTEXT::UV_EDITOR:
  case CONTEXT::UV_VP: {
    KELVO_ASSIGN_OR_RETURN(bool uvs, scope("uvs"));
    if (uvs && toolOrCommand) return 1;
    if (uvs && tagOrManager) return 2;
    if (context == CONTEXT::UV_VP) {
      KELVO_ASSIGN_OR_RETURN(bool viewport, scope("viewport"));
      if (viewport) return 3;
    }
    if (is("mode") || objectType) return 5;
    return 4;
  }
  case CONTEXT::NODE: {
    KELVO_ASSIGN_OR_RETURN(bool nodes, scope("nodes"));
    return nodes ? 4 : 9;
  }
  case CONTEXT::OTHER:
    if (toolOrCommand) return 3;
    if (is("mode")) return 4;
    if (is("manager")) return 5;
    if (is("object.primitive") || is("object.scene") || objectType) return 2;
    if (is("tag")) return 8;
    return 9;
  default: return kNoTable;
  }
}

} // namespace

void ComputeWordHit(std::string_view upperName, const std::vector<std::string>& searchWords, std::int64_t& noHit,
                    std::int64_t& wordPosition) {
  noHit = 1;
  wordPosition = std::numeric_limits<std::int64_t>::max();
  if (searchWords.empty() || searchWords.front().empty()) return;
  const std::string& word = searchWords.front();
  std::int64_t index = 0;
  for (std::size_t start = 0; start <= upperName.size(); ++index) {
    std::size_t end = upperName.find(' ', start);
    if (end == std::string_view::npos) end = upperName.size();
    const std::string_view nameWord = upperName.substr(start, end - start);
    start = end + 1;
    if (nameWord.empty()) {
      if (end == upperName.size()) break;
      continue;
    }
    const std::size_t p = nameWord.find(word);
    if (p == std::string_view::npos) continue;
    if (p == 0 || (IsAlnum(nameWord[p]) && !IsAlnum(nameWord[p - 1]))) {
      noHit = 0;
      wordPosition = index;
      return;
    }
    if (noHit) {
      noHit = 0;
      wordPosition = index + 1000;
    }
  }
}

Result<std::int64_t> ComputeRelevanceScore(ASSETRELEVANCECONTEXT context, AssetFacts& facts, AssetFactsReader& reader,
                                           const RelevanceInputs& inputs) {
  KELVO_ASSIGN_OR_RETURN(bool valid, reader.Valid(facts));
  if (!valid) return 2000;
  if (context == CONTEXT::UNDEFINED) return kNoTable;
  if (facts.typeId == kFileType) return FileScore(context, facts.subtypeId);
  if (facts.typeId == displayids::nodetemplate) {
    const bool objectNode = inputs.isObjectNodeAsset && inputs.isObjectNodeAsset(facts.asset);
    return NodeTemplateScore(context, objectNode, facts.subtypeId == factids::operatorSubtype);
  }
  if (facts.typeId.View().starts_with(kPresetPrefix)) return PresetScore(context, facts, inputs);
  if (facts.typeId == CommandAssetInterface::TypeId()) return CommandScore(context, facts, inputs);
  return kNoTable;
}

Result<void> ComputeRelevanceKeys(const ConfigSort& config, BrowserEntry& entry, AssetFacts& facts,
                                  AssetFactsReader& reader, const RelevanceInputs& inputs,
                                  const std::vector<std::string>& searchWords) {
  std::int64_t noHit = 1, position = 0;
  ComputeWordHit(facts.upperName, searchWords, noHit, position);
  KELVO_ASSIGN_OR_RETURN(std::int64_t score, ComputeRelevanceScore(config.context, facts, reader, inputs));
  entry.sortKeys = {noHit, score, position, reader.Favourite(facts) ? 0 : 1,
                    HasLumoraDependencies(facts.asset) ? 0 : 1};
  entry.hasSortKeys = true;
  return {};
}

} // namespace kelvo
