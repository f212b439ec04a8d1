#pragma once
// The subcommands of kasset. Each returns an exit code (output.h).

#include <string>
#include <vector>

#include "args.h"
#include "asset/core/assetrepository.h"

namespace kasset {

// What a command works on: the target repository (the user repository, or the one of --repo).
struct Session {
  kelvo::AssetRepositoryRef repository;
  std::string repositoryPath; // the directory of --repo; empty for the user repository
};

// The subcommands with their options and help.
const std::vector<CommandSpec>& GetCommands();
// The global options.
const std::vector<OptionSpec>& GetGlobalOptions();
// The text of "kasset --help".
std::string GlobalHelp();

// True for commands that work on a repository that must exist (all but init).
bool NeedsRepository(const std::string& command);

// Runs line.command. For init, session.repository is null.
int RunCommand(const CommandLine& line, Session& session);

// Opens the repository in dir with the built-in repository as base; with mustExist, dir must
// hold one already (else a writable open makes a new one). writable false opens it read-only.
// Prints the error and returns its exit code on failure.
int OpenRepositoryDirectory(const std::string& dir, bool writable, kelvo::AssetRepositoryRef& repository,
                            bool mustExist = true);

// The columns of an asset listing: the first 12 characters of the version Id ("deleted" for a
// deletion mark), the local time of the version's time stamp ("-" without one), and the name.
std::string ShortVersion(const kelvo::AssetDescription& d);
std::string DateOf(const kelvo::AssetDescription& d);
std::string NameOf(const kelvo::AssetDescription& d);

// An absolute, normal form of a path given on the command line.
std::string AbsolutePath(const std::string& path);

} // namespace kasset
