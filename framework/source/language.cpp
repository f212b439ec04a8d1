#include "kelvo/language.h"

#include <map>
#include <mutex>

namespace kelvo {

namespace {
std::mutex g_languageLock;
LanguageRef g_current;
} // namespace

LanguageRef Language::GetDefaultLanguage() {
  static const LanguageRef language = std::make_shared<const Language>("en-US", nullptr);
  return language;
}

LanguageRef Language::Get(const std::string& identifier) {
  const LanguageRef fallback = GetDefaultLanguage();
  if (identifier == fallback->GetIdentifier()) return fallback;
  std::lock_guard guard(g_languageLock);
  static auto* languages = new std::map<std::string, LanguageRef>();
  auto& slot = (*languages)[identifier];
  if (!slot) slot = std::make_shared<const Language>(identifier, fallback);
  return slot;
}

LanguageRef Language::GetCurrentLanguage() {
  std::lock_guard guard(g_languageLock);
  return g_current ? g_current : GetDefaultLanguage();
}

void Language::SetCurrentLanguage(const LanguageRef& language) {
  std::lock_guard guard(g_languageLock);
  g_current = language;
}

} // namespace kelvo
