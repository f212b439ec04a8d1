#pragma once
// Languages of translated strings: an identifier ("en-US") and the language to fall back to.

#include <memory>
#include <string>

namespace kelvo {

class Language;
using LanguageRef = std::shared_ptr<const Language>;

class Language {
public:
  // The language of identifier, made once per identifier; its fallback is the default language
  // (none for the default language itself).
  static LanguageRef Get(const std::string& identifier);
  // "en-US".
  static LanguageRef GetDefaultLanguage();
  // The user's language: set by SetCurrentLanguage, else the default language.
  static LanguageRef GetCurrentLanguage();
  static void SetCurrentLanguage(const LanguageRef& language);

  const std::string& GetIdentifier() const { return _identifier; }
  LanguageRef GetFallbackLanguage() const { return _fallback; }

  Language(std::string identifier, LanguageRef fallback) : _identifier(std::move(identifier)), _fallback(std::move(fallback)) {}

private:
  std::string _identifier;
  LanguageRef _fallback;
};

} // namespace kelvo
