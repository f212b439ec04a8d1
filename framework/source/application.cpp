#include "kelvo/application.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "kelvo/url.h"

namespace kelvo {

namespace {

struct Directory {
  const char* variable;
  const char* underHome; // null for TEMP_DIR
};

constexpr std::array<Directory, 5> kDirectories{{
    {"KELVO_LIBRARY_DIR", ".local/share/kelvo/library"},
    {"KELVO_PREFS_DIR", ".config/kelvo/prefs"},
    {"KELVO_GLOBALPREFS_DIR", ".config/kelvo"},
    {"KELVO_RESOURCE_DIR", ".local/share/kelvo/resource"},
    {"KELVO_TEMP_DIR", nullptr},
}};

struct Overrides {
  std::mutex lock;
  std::array<Url, kDirectories.size()> urls;
};

Overrides& GetOverrides() {
  static Overrides* overrides = new Overrides();
  return *overrides;
}

std::atomic<double> g_version{1.0};

const char* NonEmptyEnv(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? value : nullptr;
}

// $HOME, else the password database's home of the user, else /tmp.
std::string HomeDirectory() {
  if (const char* home = NonEmptyEnv("HOME")) return home;
  std::vector<char> buffer(16384);
  struct passwd entry{};
  struct passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_dir &&
      *found->pw_dir)
    return found->pw_dir;
  return "/tmp";
}

} // namespace

Url Application::PrivateGetUrl(APPLICATION_URLTYPE kind) {
  const auto index = static_cast<std::size_t>(kind);
  if (index >= kDirectories.size()) return Url();
  {
    auto& overrides = GetOverrides();
    std::lock_guard guard(overrides.lock);
    if (!overrides.urls[index].IsEmpty()) return overrides.urls[index];
  }
  const Directory& dir = kDirectories[index];
  if (const char* value = NonEmptyEnv(dir.variable)) return Url::FromFile(value);
  if (!dir.underHome) {
    const char* tmp = NonEmptyEnv("TMPDIR");
    return Url::FromFile(tmp ? tmp : "/tmp");
  }
  return Url::FromFile(HomeDirectory()).Append(dir.underHome);
}

void Application::SetUrl(APPLICATION_URLTYPE kind, const Url& url) {
  const auto index = static_cast<std::size_t>(kind);
  if (index >= kDirectories.size()) return;
  auto& overrides = GetOverrides();
  std::lock_guard guard(overrides.lock);
  overrides.urls[index] = url;
}

double Application::GetVersion() { return g_version.load(); }

void Application::SetVersion(double version) { g_version.store(version); }

} // namespace kelvo
