#include "kelvo/config.h"

#include <cstdlib>
#include <map>
#include <mutex>

namespace kelvo {

namespace {
std::mutex& TableLock() {
  static std::mutex m;
  return m;
}
std::map<std::string, ConfigBool*>& Table() {
  static auto* t = new std::map<std::string, ConfigBool*>();
  return *t;
}
} // namespace

ConfigBool::ConfigBool(const char* name, bool defaultValue, int category, const char* help)
    : _name(name), _help(help ? help : ""), _default(defaultValue), _category(category), _value(defaultValue) {
  {
    std::lock_guard guard(TableLock());
    Table()[name] = this;
  }
  if (const char* env = std::getenv("KELVO_CONFIG")) {
    const std::string settings(env);
    const std::string key = std::string(name) + "=";
    const auto pos = settings.find(key);
    if (pos != std::string::npos && (pos == 0 || settings[pos - 1] == ',') && pos + key.size() < settings.size())
      _value = settings[pos + key.size()] == '1' || settings[pos + key.size()] == 't';
  }
}

ConfigBool* FindConfigBool(const std::string& name) {
  std::lock_guard guard(TableLock());
  auto it = Table().find(name);
  return it == Table().end() ? nullptr : it->second;
}

std::vector<ConfigBool*> GetConfigBools() {
  std::lock_guard guard(TableLock());
  std::vector<ConfigBool*> all;
  for (auto& [name, var] : Table()) all.push_back(var);
  return all;
}

std::vector<std::string> ApplyConfigSettings(const std::string& settings) {
  std::vector<std::string> unknown;
  std::size_t start = 0;
  while (start < settings.size()) {
    std::size_t end = settings.find(',', start);
    if (end == std::string::npos) end = settings.size();
    const std::string item = settings.substr(start, end - start);
    const auto eq = item.find('=');
    const std::string name = item.substr(0, eq);
    ConfigBool* var = name.empty() ? nullptr : FindConfigBool(name);
    if (!var)
      unknown.push_back(name);
    else
      var->Set(eq == std::string::npos || item.substr(eq + 1) == "1" || item.substr(eq + 1) == "true");
    start = end + 1;
  }
  return unknown;
}

} // namespace kelvo
