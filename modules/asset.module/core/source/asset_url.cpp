#include "asset/core/asset_url.h"

namespace kelvo {

const Id& DataTypeTraits<ResolveInfo>::TypeId() {
  static const Id id{"net.kelvo.datatype.local.asset.resolveinfo"};
  return id;
}

std::size_t HashValue(const ResolveInfo& info) {
  return CombineHash(std::hash<std::string>()(info.text), std::hash<const void*>()(info.description.get()));
}

std::string EscapeAssetIdForUrlPath(std::string_view id) {
  std::string out;
  out.reserve(id.size());
  for (char c : id) {
    if (c == '%')
      out += "%25";
    else if (c == '/')
      out += "%2F";
    else
      out += c;
  }
  return out;
}

std::string UnescapeAssetIdFromUrlPath(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && text.size() - i >= 3) {
      const std::string_view code = text.substr(i + 1, 2);
      if (code == "25") {
        out += '%';
        i += 2;
        continue;
      }
      if (code == "2F" || code == "2f") {
        out += '/';
        i += 2;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

} // namespace kelvo
