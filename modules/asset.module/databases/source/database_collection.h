#pragma once
// What a mount pass collects besides the user's list: the folders, archives and link files of the
// assets directory and the URLs that observers add.

#include <string>
#include <vector>

#include "database_registry.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

std::string ToLowerAscii(std::string text);

// The URL that the text of a link file names: the whole text without a byte order mark, trimmed;
// a relative path counts from the directory of the link file. Empty when the text is blank.
Url LinkFileTarget(const std::string& content, const Url& linkFile);

// Appends the standard databases to items, each with its priority band. Problems that concern one
// database only go to notes; an unreadable assets directory is an error. REQUIRES: registryLock held.
Result<void> CollectStandardDatabases(std::vector<DatabaseMountItem>& items, std::vector<std::string>& notes);

} // namespace kelvo
