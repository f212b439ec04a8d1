// The text of a database link file in the assets directory, as a mount pass reads it. Aborts when
// a relative target lands outside the link file's directory tree by name, or an absolute file
// target loses its path.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "database_collection.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string content(reinterpret_cast<const char*>(data), size);
  const kelvo::Url link = kelvo::Url::FromFile("/library/assets/link.dat");
  const kelvo::Url target = kelvo::LinkFileTarget(content, link);
  if (target.IsEmpty()) return 0;
  const std::string text = target.ToString();
  Check(!text.empty());
  if (target.GetScheme() == "file" && content.find("://") == std::string::npos &&
      content.find_first_not_of(" \t\r\n\xef\xbb\xbf") != std::string::npos &&
      content[content.find_first_not_of(" \t\r\n\xef\xbb\xbf")] != '/')
    Check(target.GetPath().starts_with("/library/assets/"));
  (void)target.GetName();
  (void)target.GetDirectory().ToString();
  return 0;
}
