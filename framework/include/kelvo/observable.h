#pragma once
// Observable<Args...>: one named channel of an event. Observers are called in no fixed order, on
// the notifying thread, with no lock of the observable held, so an observer may add or remove
// observers or notify again. Safe for concurrent use by multiple threads.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kelvo/id.h"

namespace kelvo {

template <typename... Args> class Observable {
public:
  using Observer = std::function<void(const Args&...)>;
  using Token = std::uint64_t;

  explicit Observable(Id name = Id()) : _name(std::move(name)) {}
  const Id& GetName() const { return _name; }

  Token AddObserver(Observer observer) {
    std::lock_guard guard(_lock);
    auto list = std::make_shared<List>(_list ? *_list : List());
    const Token token = ++_next;
    list->emplace_back(token, std::make_shared<Observer>(std::move(observer)));
    _list = std::move(list);
    return token;
  }

  bool RemoveObserver(Token token) {
    std::lock_guard guard(_lock);
    if (!_list) return false;
    auto list = std::make_shared<List>(*_list);
    const auto before = list->size();
    std::erase_if(*list, [&](const auto& e) { return e.first == token; });
    const bool removed = list->size() != before;
    _list = std::move(list);
    return removed;
  }

  std::size_t GetObserverCount() const {
    std::lock_guard guard(_lock);
    return _list ? _list->size() : 0;
  }

  void Notify(const Args&... args) const {
    std::shared_ptr<const List> list;
    {
      std::lock_guard guard(_lock);
      list = _list;
    }
    if (!list) return;
    for (const auto& [token, observer] : *list) (*observer)(args...);
  }

private:
  using List = std::vector<std::pair<Token, std::shared_ptr<Observer>>>;
  Id _name;
  mutable std::mutex _lock;
  std::shared_ptr<const List> _list;
  Token _next = 0;
};

} // namespace kelvo
