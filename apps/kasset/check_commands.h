#pragma once
// "kasset check [--repair]": verifies the repository tree on disk. And the upkeep of the index: a
// kasset process that changed a repository leaves it with an up-to-date index.

#include <memory>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"

namespace kasset {

const std::vector<CommandSpec>& GetCheckCommands();
bool IsCheckCommand(const std::string& command);
int RunCheckCommand(const CommandLine& line, Session& session);

// Watches a repository for changes made by this process; Finish writes its index when there
// were any, so that the next command opens it without walking the tree. A failure to write the
// index is a note on stderr, not a failure of the command.
class IndexUpkeep {
public:
  explicit IndexUpkeep(const kelvo::AssetRepositoryRef& repository);
  ~IndexUpkeep();
  IndexUpkeep(const IndexUpkeep&) = delete;
  IndexUpkeep& operator=(const IndexUpkeep&) = delete;
  void Finish();
  // Whether the repository changed while this upkeep watched it (also after Finish).
  bool SawChanges() const;

private:
  struct State;
  std::shared_ptr<State> _state;
};

} // namespace kasset
