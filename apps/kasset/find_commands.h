#pragma once
// The listing subcommands of kasset, "ls" and "find": assets selected by type, Id or prefix, and
// by a filter text in the browser's search language, over the target repository and everything
// mounted beneath it.

#include <string>
#include <vector>

#include "args.h"
#include "commands.h"

namespace kasset {

const std::vector<CommandSpec>& GetFindCommands();
bool IsFindCommand(const std::string& command);
int RunFindCommand(const CommandLine& line, Session& session);

} // namespace kasset
