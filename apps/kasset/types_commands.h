#pragma once
// The subcommands of kasset on typed assets: tagging with keywords (tag, untag, favorite,
// unfavorite, keywords), the category tree (category new|move|tree) and color categories (color),
// and the lines that "show" adds for an asset's keywords, category path and color.

#include <string>
#include <vector>

#include "args.h"
#include "commands.h"

namespace kasset {

const std::vector<CommandSpec>& GetTypesCommands();
bool IsTypesCommand(const std::string& command);
int RunTypesCommand(const CommandLine& line, Session& session);

// Rows "keywords:", "category:" and "color:" for the head of "show", where the asset has them.
std::vector<std::vector<std::string>> TypedAssetRows(const kelvo::AssetDescription& asset, const Session& session);

} // namespace kasset
