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

namespace {

// Looks strings up by string_view, so finding a known text allocates nothing.
struct TextHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};

} // namespace

InternedId::InternedId(std::string_view text) {
  // Node-based set: element addresses stay stable for the life of the process.
  static std::mutex lock;
  static auto* table = new std::unordered_set<std::string, TextHash, std::equal_to<>>();
  std::lock_guard guard(lock);
  auto it = table->find(text);
  if (it == table->end()) it = table->emplace(text).first;
  _text = &*it;
}

} // namespace kelvo
