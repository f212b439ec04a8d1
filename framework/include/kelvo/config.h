#pragma once
// Boolean configuration variables with a default and a help text. A variable is declared once as
// a global; the process-wide table finds it by name. Values may be set from the environment
// (KELVO_CONFIG="g_name=1,g_other=0") or by the host.

#include <atomic>
#include <string>
#include <vector>

namespace kelvo {

class ConfigBool {
public:
  ConfigBool(const char* name, bool defaultValue, int category, const char* help);
  ConfigBool(const ConfigBool&) = delete;
  ConfigBool& operator=(const ConfigBool&) = delete;

  bool Get() const { return _value.load(std::memory_order_relaxed); }
  operator bool() const { return Get(); }
  void Set(bool value) { _value.store(value, std::memory_order_relaxed); }
  const char* GetName() const { return _name; }
  const char* GetHelp() const { return _help; }
  bool GetDefault() const { return _default; }
  int GetCategory() const { return _category; }

private:
  const char* _name;
  const char* _help;
  bool _default;
  int _category;
  std::atomic<bool> _value;
};

// Looks a variable up by name; null when none is declared.
ConfigBool* FindConfigBool(const std::string& name);
std::vector<ConfigBool*> GetConfigBools();
// Applies "name=0|1" pairs separated by ",", as in the KELVO_CONFIG environment variable.
// Returns the names that were not found.
std::vector<std::string> ApplyConfigSettings(const std::string& settings);

// Sets a variable for the life of a scope (tests).
class ScopedConfig {
public:
  ScopedConfig(ConfigBool& var, bool value) : _var(var), _old(var.Get()) { var.Set(value); }
  ~ScopedConfig() { _var.Set(_old); }

private:
  ConfigBool& _var;
  bool _old;
};

} // namespace kelvo
