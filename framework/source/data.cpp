#include "kelvo/data.h"

#include <functional>
#include <sstream>

namespace kelvo {

Data::Data(DataDictionary v) : _v(std::make_shared<const DataDictionary>(std::move(v))) {}

const Id& Data::GetType() const {
  switch (_v.index()) {
  case 0: return datatypes::none;
  case 1: return datatypes::boolean;
  case 2: return datatypes::int32;
  case 3: return datatypes::int64;
  case 4: return datatypes::uint64;
  case 5: return datatypes::float64;
  case 6: return datatypes::string;
  case 7: return datatypes::id;
  case 8: return datatypes::url;
  case 9: return datatypes::datetime;
  case 10: return datatypes::blob;
  case 11: return datatypes::array;
  case 12: return datatypes::dictionary;
  default: return std::get<13>(_v)->GetType();
  }
}

bool operator==(const Data& a, const Data& b) {
  if (a._v.index() != b._v.index()) return false;
  return std::visit(
      [&](const auto& x) -> bool {
        using T = std::decay_t<decltype(x)>;
        const auto& y = std::get<T>(b._v);
        if constexpr (std::is_same_v<T, std::shared_ptr<const CustomDataBase>>)
          return x == y || (x && y && x->Equals(*y));
        else if constexpr (std::is_same_v<T, std::shared_ptr<const Blob>> ||
                           std::is_same_v<T, std::shared_ptr<const DataArray>> ||
                           std::is_same_v<T, std::shared_ptr<const DataDictionary>>)
          return x == y || (x && y && *x == *y);
        else
          return x == y;
      },
      a._v);
}

std::size_t Data::GetHashCode() const {
  const std::size_t typeHash = GetType().GetHashCode();
  const std::size_t valueHash = std::visit(
      [](const auto& x) -> std::size_t {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, std::monostate>) return 0;
        else if constexpr (std::is_same_v<T, Id>) return x.GetHashCode();
        else if constexpr (std::is_same_v<T, Url>) return std::hash<std::string>()(x.ToString());
        else if constexpr (std::is_same_v<T, UniversalDateTime>) return std::hash<std::uint64_t>()(x.GetValue());
        else if constexpr (std::is_same_v<T, std::shared_ptr<const CustomDataBase>>) return x ? x->Hash() : 0;
        else if constexpr (std::is_same_v<T, std::shared_ptr<const Blob>>)
          return std::hash<std::string_view>()(std::string_view(reinterpret_cast<const char*>(x->data()), x->size()));
        else if constexpr (std::is_same_v<T, std::shared_ptr<const DataArray>>) {
          std::size_t h = x->size();
          for (const Data& e : *x) h = CombineHash(h, e.GetHashCode());
          return h;
        } else if constexpr (std::is_same_v<T, std::shared_ptr<const DataDictionary>>) {
          std::size_t h = x->GetCount();
          for (const auto& [k, v] : *x) h = CombineHash(CombineHash(h, k.GetHashCode()), v.GetHashCode());
          return h;
        } else
          return std::hash<T>()(x);
      },
      _v);
  return CombineHash(typeHash, valueHash);
}

std::string Data::ToString() const {
  return std::visit(
      [this](const auto& x) -> std::string {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, std::monostate>) return "(empty)";
        else if constexpr (std::is_same_v<T, bool>) return x ? "true" : "false";
        else if constexpr (std::is_same_v<T, std::string>) return x;
        else if constexpr (std::is_same_v<T, Id> || std::is_same_v<T, Url> || std::is_same_v<T, UniversalDateTime>)
          return x.ToString();
        else if constexpr (std::is_same_v<T, double>) {
          std::ostringstream s;
          s << x;
          return s.str();
        } else if constexpr (std::is_arithmetic_v<T>) return std::to_string(x);
        // Built by appending: g++ 12 at -O2/-O3 warns (-Wrestrict) on "literal" + std::string.
        else if constexpr (std::is_same_v<T, std::shared_ptr<const Blob>>) {
          std::string s = "(";
          s += std::to_string(x->size());
          s += " bytes)";
          return s;
        } else if constexpr (std::is_same_v<T, std::shared_ptr<const DataArray>>) {
          std::string s = "[";
          for (std::size_t i = 0; i < x->size(); ++i) {
            if (i) s += ", ";
            s += (*x)[i].ToString();
          }
          return s + "]";
        } else if constexpr (std::is_same_v<T, std::shared_ptr<const DataDictionary>>) {
          std::string s = "{";
          bool first = true;
          for (const auto& [k, v] : *x) {
            if (!first) s += ", ";
            s += k.ToString();
            s += ": ";
            s += v.ToString();
            first = false;
          }
          return s + "}";
        } else {
          std::string s = "(";
          s += GetType().ToString();
          s += ')';
          return s;
        }
      },
      _v);
}

} // namespace kelvo
