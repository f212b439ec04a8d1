#pragma once
// Data: a value with a run-time data type. DataDictionary: an Id to Data map.
//
// Built-in types are held inline; any other type T is held as an immutable shared value once
// DataTypeTraits<T> names its type Id. Values are immutable: copying a Data shares the payload.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include "kelvo/datetime.h"
#include "kelvo/id.h"
#include "kelvo/url.h"

namespace kelvo {

class Data;
class DataDictionary;
using DataArray = std::vector<Data>;
using Blob = std::vector<std::uint8_t>;

// Type Ids of the built-in data types.
namespace datatypes {
inline const Id none{"net.kelvo.datatype.none"};
inline const Id boolean{"net.kelvo.datatype.bool"};
inline const Id int32{"net.kelvo.datatype.int32"};
inline const Id int64{"net.kelvo.datatype.int64"};
inline const Id uint64{"net.kelvo.datatype.uint64"};
inline const Id float64{"net.kelvo.datatype.float64"};
inline const Id string{"net.kelvo.datatype.string"};
inline const Id id{"net.kelvo.datatype.id"};
inline const Id url{"net.kelvo.datatype.url"};
inline const Id datetime{"net.kelvo.datatype.universaldatetime"};
inline const Id blob{"net.kelvo.datatype.blob"};
inline const Id array{"net.kelvo.datatype.array"};
inline const Id dictionary{"net.kelvo.datatype.datadictionary"};
} // namespace datatypes

// Specialize for a type to be held in Data:
//   template <> struct DataTypeTraits<Foo> { static const Id& TypeId(); };
// Foo needs operator== and a free function `std::size_t HashValue(const Foo&)` found by ADL.
template <typename T> struct DataTypeTraits;

// The payload of a value of a non-built-in type.
class CustomDataBase {
public:
  virtual ~CustomDataBase() = default;
  virtual const Id& GetType() const = 0;
  virtual bool Equals(const CustomDataBase& other) const = 0;
  virtual std::size_t Hash() const = 0;
};

template <typename T> class CustomData final : public CustomDataBase {
public:
  explicit CustomData(T v) : value(std::move(v)) {}
  const Id& GetType() const override { return DataTypeTraits<T>::TypeId(); }
  bool Equals(const CustomDataBase& other) const override {
    auto* o = dynamic_cast<const CustomData<T>*>(&other);
    return o && o->value == value;
  }
  std::size_t Hash() const override { return HashValue(value); }
  const T value;
};

class Data {
public:
  Data() = default;
  Data(bool v) : _v(v) {}
  Data(std::int32_t v) : _v(v) {}
  Data(std::int64_t v) : _v(v) {}
  Data(std::uint64_t v) : _v(v) {}
  Data(double v) : _v(v) {}
  Data(std::string v) : _v(std::move(v)) {}
  Data(const char* v) : _v(std::string(v ? v : "")) {}
  Data(Id v) : _v(std::move(v)) {}
  Data(Url v) : _v(std::move(v)) {}
  Data(UniversalDateTime v) : _v(v) {}
  Data(Blob v) : _v(std::make_shared<const Blob>(std::move(v))) {}
  Data(DataArray v) : _v(std::make_shared<const DataArray>(std::move(v))) {}
  Data(DataDictionary v);
  template <typename T>
    requires requires { DataTypeTraits<std::decay_t<T>>::TypeId(); }
  Data(T&& v) : _v(std::shared_ptr<const CustomDataBase>(std::make_shared<const CustomData<std::decay_t<T>>>(std::forward<T>(v)))) {}

  bool IsEmpty() const { return _v.index() == 0; }
  // The Id of the value's data type; datatypes::none when empty.
  const Id& GetType() const;

  // The value when it is of type T; nothing on a type mismatch.
  template <typename T> std::optional<T> Get() const {
    if (const T* p = GetPtr<T>()) return *p;
    return std::nullopt;
  }
  // A pointer to the value when it is of type T, valid while this Data lives; null otherwise.
  template <typename T> const T* GetPtr() const {
    if constexpr (std::is_same_v<T, Blob> || std::is_same_v<T, DataArray> || std::is_same_v<T, DataDictionary>) {
      auto* p = std::get_if<std::shared_ptr<const T>>(&_v);
      return p ? p->get() : nullptr;
    } else if constexpr (IsInline<T>()) {
      return std::get_if<T>(&_v);
    } else {
      auto* p = std::get_if<std::shared_ptr<const CustomDataBase>>(&_v);
      if (!p) return nullptr;
      auto* c = dynamic_cast<const CustomData<T>*>(p->get());
      return c ? &c->value : nullptr;
    }
  }

  friend bool operator==(const Data& a, const Data& b);
  std::size_t GetHashCode() const;
  // A short human readable text of the value, for messages and logs.
  std::string ToString() const;

private:
  template <typename T> static constexpr bool IsInline() {
    return std::is_same_v<T, bool> || std::is_same_v<T, std::int32_t> || std::is_same_v<T, std::int64_t> ||
           std::is_same_v<T, std::uint64_t> || std::is_same_v<T, double> || std::is_same_v<T, std::string> ||
           std::is_same_v<T, Id> || std::is_same_v<T, Url> || std::is_same_v<T, UniversalDateTime>;
  }
  std::variant<std::monostate, bool, std::int32_t, std::int64_t, std::uint64_t, double, std::string, Id, Url,
               UniversalDateTime, std::shared_ptr<const Blob>, std::shared_ptr<const DataArray>,
               std::shared_ptr<const DataDictionary>, std::shared_ptr<const CustomDataBase>>
      _v;
};

inline std::string ToString(const Data& d) { return d.ToString(); }

// An Id to Data map, ordered by Id so that iteration and serialisation are deterministic.
// REQUIRES: external synchronization for concurrent writers.
class DataDictionary {
public:
  using Map = std::map<Id, Data>;
  void SetData(const Id& key, Data value) { _map[key] = std::move(value); }
  // The value under key; an empty Data when there is none.
  Data GetData(const Id& key) const {
    auto it = _map.find(key);
    return it == _map.end() ? Data() : it->second;
  }
  template <typename T> std::optional<T> Get(const Id& key) const {
    auto it = _map.find(key);
    return it == _map.end() ? std::nullopt : it->second.Get<T>();
  }
  bool Contains(const Id& key) const { return _map.count(key) != 0; }
  bool EraseData(const Id& key) { return _map.erase(key) != 0; }
  void Reset() { _map.clear(); }
  bool IsEmpty() const { return _map.empty(); }
  std::size_t GetCount() const { return _map.size(); }
  Map::const_iterator begin() const { return _map.begin(); }
  Map::const_iterator end() const { return _map.end(); }
  friend bool operator==(const DataDictionary& a, const DataDictionary& b) { return a._map == b._map; }

private:
  Map _map;
};

// Hash of a Data value, for use as a hash map key.
struct DataHash {
  std::size_t operator()(const Data& d) const noexcept { return d.GetHashCode(); }
};

// Combines two hashes into one.
inline std::size_t CombineHash(std::size_t first, std::size_t second) {
  return second + first * 0xbf58476d1ce4e5b9ull + 1;
}

} // namespace kelvo
