#pragma once
// "browse": the grouped and sorted result of a filter text as an asset panel shows it, printed as
// group headers and rows, as JSON lines, or updated on every keystroke on a terminal.

#include <string>
#include <vector>

#include "args.h"
#include "commands.h"

namespace kasset {

const std::vector<CommandSpec>& GetBrowseCommands();
bool IsBrowseCommand(const std::string& command);
int RunBrowseCommand(const CommandLine& line, Session& session);

} // namespace kasset
