#pragma once
// Identifiers: immutable strings with a cached hash, and interned identifiers compared by identity.

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kelvo {

// An immutable string with its hash computed once. Equal when the characters are equal. The empty
// Id is valid and costs no allocation. Copies share one representation, so copying is cheap.
// Safe for concurrent use by multiple threads (it is immutable).
class Id {
public:
  Id() = default;
  Id(std::string_view text);
  Id(const char* text) : Id(std::string_view(text ? text : "")) {}
  Id(const std::string& text) : Id(std::string_view(text)) {}

  bool IsEmpty() const { return !_rep; }
  std::string_view View() const { return _rep ? std::string_view(_rep->text) : std::string_view(); }
  const std::string& GetString() const;
  std::string ToString() const { return std::string(View()); }
  std::size_t GetHashCode() const { return _rep ? _rep->hash : 0; }
  std::size_t size() const { return View().size(); }

  friend bool operator==(const Id& a, const Id& b) {
    if (a._rep == b._rep) return true;
    if (!a._rep || !b._rep) return false;
    return a._rep->hash == b._rep->hash && a._rep->text == b._rep->text;
  }
  friend bool operator<(const Id& a, const Id& b) { return a.View() < b.View(); }

private:
  struct Rep {
    std::string text;
    std::size_t hash;
  };
  std::shared_ptr<const Rep> _rep;
};

// One shared instance per text for the life of the process; equality is pointer identity.
// Interning takes a global lock once per call; comparing and hashing never lock.
class InternedId {
public:
  InternedId() = default;
  explicit InternedId(std::string_view text);
  explicit InternedId(const std::string& text) : InternedId(std::string_view(text)) {}
  InternedId(const Id& id) : InternedId(id.View()) {}
  InternedId(const char* text) : InternedId(std::string_view(text ? text : "")) {}

  bool IsEmpty() const { return _text == nullptr || _text->empty(); }
  std::string_view View() const { return _text ? std::string_view(*_text) : std::string_view(); }
  std::string ToString() const { return std::string(View()); }
  Id ToId() const { return Id(View()); }
  std::size_t GetHashCode() const { return std::hash<const void*>()(_text); }

  friend bool operator==(const InternedId& a, const InternedId& b) { return a._text == b._text; }
  friend bool operator<(const InternedId& a, const InternedId& b) { return a.View() < b.View(); }

private:
  const std::string* _text = nullptr;
};

inline std::string ToString(const Id& id) { return id.ToString(); }
inline std::string ToString(const InternedId& id) { return id.ToString(); }

} // namespace kelvo

// Deliberately not noexcept: standard hash tables then keep each node's hash, so a lookup or a
// rehash compares stored hashes instead of reaching into every Id's representation.
template <> struct std::hash<kelvo::Id> {
  std::size_t operator()(const kelvo::Id& id) const { return id.GetHashCode(); }
};
template <> struct std::hash<kelvo::InternedId> {
  std::size_t operator()(const kelvo::InternedId& id) const noexcept { return id.GetHashCode(); }
};
