#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "kelvo/application.h"
#include "kelvo/url.h"

using namespace kelvo;

namespace {

// Sets (or, with nullptr, unsets) an environment variable for a scope.
class ScopedEnv {
public:
  ScopedEnv(const char* name, const char* value) : _name(name) {
    if (const char* old = std::getenv(name)) _old = old;
    if (value)
      ::setenv(name, value, 1);
    else
      ::unsetenv(name);
  }
  ~ScopedEnv() {
    if (_old)
      ::setenv(_name, _old->c_str(), 1);
    else
      ::unsetenv(_name);
  }

private:
  const char* _name;
  std::optional<std::string> _old;
};

struct Kind {
  APPLICATION_URLTYPE type;
  const char* variable;
  const char* underHome;
};

const Kind kKinds[] = {
    {APPLICATION_URLTYPE::LIBRARY_DIR, "KELVO_LIBRARY_DIR", "/home/u/.local/share/kelvo/library"},
    {APPLICATION_URLTYPE::PREFS_DIR, "KELVO_PREFS_DIR", "/home/u/.config/kelvo/prefs"},
    {APPLICATION_URLTYPE::GLOBALPREFS_DIR, "KELVO_GLOBALPREFS_DIR", "/home/u/.config/kelvo"},
    {APPLICATION_URLTYPE::CURRENT_MODULE_RESOURCE_DIR, "KELVO_RESOURCE_DIR", "/home/u/.local/share/kelvo/resource"},
};

} // namespace

TEST(Application, DirectoriesFromHomeEnvironmentAndHost) {
  ScopedEnv home("HOME", "/home/u");
  for (const Kind& kind : kKinds) {
    SCOPED_TRACE(kind.variable);
    {
      ScopedEnv unset(kind.variable, nullptr);
      Url url = Application::PrivateGetUrl(kind.type);
      EXPECT_EQ(url.GetScheme(), "file");
      EXPECT_EQ(url.GetPath(), kind.underHome);
    }
    {
      ScopedEnv empty(kind.variable, "");
      EXPECT_EQ(Application::PrivateGetUrl(kind.type).GetPath(), kind.underHome);
    }
    ScopedEnv set(kind.variable, "/env/dir");
    EXPECT_EQ(Application::PrivateGetUrl(kind.type), Url::FromFile("/env/dir"));
    // The host's URL wins over the environment until it is removed again.
    Application::SetUrl(kind.type, Url::FromFile("/host/dir"));
    EXPECT_EQ(Application::PrivateGetUrl(kind.type), Url::FromFile("/host/dir"));
    Application::SetUrl(kind.type, Url());
    EXPECT_EQ(Application::PrivateGetUrl(kind.type), Url::FromFile("/env/dir"));
  }
}


