#include "kelvo/id.h"

#include <mutex>
#include <unordered_set>

namespace kelvo {

Id::Id(std::string_view text) {
  if (!text.empty())
    _rep = std::make_shared<const Rep>(Rep{std::string(text), std::hash<std::string_view>()(text)});
}

const std::string& Id::GetString() const {
  static const std::string empty;
  return _rep ? _rep->text : empty;
}

InternedId::InternedId(std::string_view text) {
  // Node-based set: element addresses stay stable for the life of the process.
  static std::mutex lock;
  static std::unordered_set<std::string>* table = new std::unordered_set<std::string>();
  std::lock_guard guard(lock);
  _text = &*table->emplace(text).first;
}

} // namespace kelvo
