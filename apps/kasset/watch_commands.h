#pragma once
// The watch folder subcommands of kasset: "watch add|remove|list" on the user's list of
// databases, and "watch DIR --follow", which prints the changes a watch folder picks up.

#include <string>
#include <vector>

#include "args.h"
#include "commands.h"

namespace kasset {

const std::vector<CommandSpec>& GetWatchCommands();
bool IsWatchCommand(const std::string& command);
int RunWatchCommand(const CommandLine& line, Session& session);

} // namespace kasset
