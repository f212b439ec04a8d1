#pragma once
// Registries: named Id to value maps that components fill and others search at run time.
// Iteration is in insertion order. Safe for concurrent use by multiple threads.

#include <any>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <typeinfo>
#include <utility>
#include <vector>

#include "kelvo/id.h"
#include "kelvo/result.h"

namespace kelvo {

template <typename T> class Registry {
public:
  explicit Registry(Id id) : _id(std::move(id)) {}
  const Id& GetId() const { return _id; }

  // Inserts or replaces the entry of key.
  void InsertEntry(const Id& key, T value) {
    std::unique_lock guard(_lock);
    for (auto& e : _entries)
      if (e.first == key) {
        e.second = std::move(value);
        return;
      }
    _entries.emplace_back(key, std::move(value));
  }
  bool EraseEntry(const Id& key) {
    std::unique_lock guard(_lock);
    return std::erase_if(_entries, [&](const auto& e) { return e.first == key; }) != 0;
  }
  std::optional<T> FindEntryValue(const Id& key) const {
    std::shared_lock guard(_lock);
    for (const auto& e : _entries)
      if (e.first == key) return e.second;
    return std::nullopt;
  }
  // A snapshot of the entries, in insertion order.
  std::vector<std::pair<Id, T>> GetEntries() const {
    std::shared_lock guard(_lock);
    return _entries;
  }
  std::size_t GetCount() const {
    std::shared_lock guard(_lock);
    return _entries.size();
  }

private:
  Id _id;
  mutable std::shared_mutex _lock;
  std::vector<std::pair<Id, T>> _entries;
};

namespace detail {
// The process-wide table of registries by Id. Fails when the Id is registered with another type.
Result<std::any> FindOrCreateRegistry(const Id& id, const std::type_info& type, std::any (*create)(const Id&));
} // namespace detail

// The registry of Id with values of type T, made on first use. Every caller that names the same
// Id and T gets the same registry; naming it with another T is an illegal argument error.
template <typename T> Result<std::shared_ptr<Registry<T>>> GetRegistry(const Id& id) {
  auto any = detail::FindOrCreateRegistry(id, typeid(T), [](const Id& rid) -> std::any {
    return std::make_shared<Registry<T>>(rid);
  });
  if (any.HasError()) return any.GetError();
  return std::any_cast<std::shared_ptr<Registry<T>>>(*any);
}

} // namespace kelvo
