#pragma once
// "kasset deps", "kasset rdeps" and "kasset update": what an asset depends on, what depends on it,
// and bringing the assets that follow their links up to date.

#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "kelvo/data.h"

namespace kasset {

const std::vector<CommandSpec>& GetLinkCommands();
bool IsLinkCommand(const std::string& command);
int RunLinkCommand(const CommandLine& line, Session& session);

// The dependency records (net.kelvo.asset.dependencies.2) of a new asset that depends on the
// latest versions of ids. Prints the error and sets code when one of them doesn't exist.
kelvo::Data MakeDependencyRecords(const Session& session, const std::vector<std::string>& ids, int& code);

} // namespace kasset
