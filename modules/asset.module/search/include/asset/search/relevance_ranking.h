#pragma once
// Relevance ranking: five keys per asset, compared in order, lower first. How the first typed word
// hits the name, a score from a table chosen by the place the host browses for, favourites, and
// whether the asset needs the external renderer.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "asset/search/asset_facts.h"
#include "asset/search/browser_entry.h"

namespace kelvo {

// A host delegate that answers an integer for an asset.
using AssetIntDelegate = std::function<Result<std::int64_t>(const AssetDescription& asset)>;

// What the ranking asks beyond the asset.
struct RelevanceInputs {
  std::int32_t activeManager = 0;
  AssetIntDelegate commandRestrictionManager; // may be empty
  AssetIntDelegate defaultPresetPluginType;   // may be empty
  // The node library's test for node templates that make scene objects; empty counts as false.
  std::function<bool(const AssetDescription&)> isObjectNodeAsset;
};

namespace relevancekeys {
enum : std::size_t { NOHIT = 0, SCORE = 1, WORDPOSITION = 2, NOTFAVOURITE = 3, NOEXTERNALDEPENDENCY = 4 };
}

// The word hit of the first search word (upper case) in upperName: sets noHit (0 or 1) and
// wordPosition (the name word index, +1000 for a hit inside a word; the largest Int64 without hit).
void ComputeWordHit(std::string_view upperName, const std::vector<std::string>& searchWords, std::int64_t& noHit,
                    std::int64_t& wordPosition);

// The score of the asset in context; 1000 where no table has a row, 2000 for an asset that this
// application can't use. Errors of metadata reads and of the host's delegates are returned.
Result<std::int64_t> ComputeRelevanceScore(ASSETRELEVANCECONTEXT context, AssetFacts& facts, AssetFactsReader& reader,
                                           const RelevanceInputs& inputs);

// Fills entry's five sort keys. Errors are those of the score.
Result<void> ComputeRelevanceKeys(const ConfigSort& config, BrowserEntry& entry, AssetFacts& facts,
                                  AssetFactsReader& reader, const RelevanceInputs& inputs,
                                  const std::vector<std::string>& searchWords);

} // namespace kelvo
