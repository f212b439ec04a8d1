#pragma once
// The database subcommands of kasset: "db list|add|remove|activate|deactivate" on the user's list
// of asset databases, and "graph", which writes the repository graph file.

#include <string>
#include <vector>

#include "args.h"
#include "commands.h"

namespace kasset {

const std::vector<CommandSpec>& GetDbCommands();
bool IsDbCommand(const std::string& command);
int RunDbCommand(const CommandLine& line, Session& session);

} // namespace kasset
