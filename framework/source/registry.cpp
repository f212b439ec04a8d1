#include "kelvo/registry.h"

#include <unordered_map>

namespace kelvo::detail {

Result<std::any> FindOrCreateRegistry(const Id& id, const std::type_info& type, std::any (*create)(const Id&)) {
  struct Entry {
    const std::type_info* type;
    std::any registry;
  };
  static std::mutex lock;
  static auto* table = new std::unordered_map<Id, Entry>();
  std::lock_guard guard(lock);
  auto it = table->find(id);
  if (it == table->end()) it = table->emplace(id, Entry{&type, create(id)}).first;
  if (*it->second.type != type) return IllegalArgumentError("Registry @ holds values of another type.", id);
  return it->second.registry;
}

} // namespace kelvo::detail
