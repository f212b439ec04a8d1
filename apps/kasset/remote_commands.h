#pragma once
// The subcommands of kasset for remote databases: "get ID..." downloads assets with everything
// they depend on, and "cache size|clear|path [DIR]" acts on the local cache of remote databases.

#include <string>
#include <vector>

#include "args.h"
#include "commands.h"

namespace kasset {

const std::vector<CommandSpec>& GetRemoteCommands();
bool IsRemoteCommand(const std::string& command);
int RunRemoteCommand(const CommandLine& line, Session& session);

} // namespace kasset
