// The database registry's table of entries.

#include "database_registry.h"

namespace kelvo {

DatabasesState& State() {
  static DatabasesState* state = new DatabasesState();
  return *state;
}

std::string UrlKey(const Url& url) { return url.GetScheme() + '\n' + url.GetPath() + '\n' + url.GetQuery(); }

RepositoryEntryRef FindEntry(const Url& url) {
  DatabasesState& s = State();
  std::lock_guard guard(s.tableLock);
  auto it = s.table.find(UrlKey(url));
  return it == s.table.end() ? nullptr : it->second;
}

RepositoryEntryRef FindOrCreateEntry(const Url& url) {
  DatabasesState& s = State();
  std::lock_guard guard(s.tableLock);
  RepositoryEntryRef& slot = s.table[UrlKey(url)];
  if (!slot) {
    slot = std::make_shared<RepositoryEntry>();
    slot->url = url;
  }
  return slot;
}

std::vector<RepositoryEntryRef> AllEntries() {
  DatabasesState& s = State();
  std::lock_guard guard(s.tableLock);
  std::vector<RepositoryEntryRef> entries;
  entries.reserve(s.table.size());
  for (const auto& [key, entry] : s.table) entries.push_back(entry);
  return entries;
}

void Unload(RepositoryEntry& entry) {
  AssetRepositoryRef repository = entry.TakeRepository();
  if (repository) repository->RequestUnloadRepository();
}

} // namespace kelvo
