#pragma once
// Translated strings of an asset, kept per language in the metadata "strings_<language>": a
// DataDictionary from string key to a DataDictionary whose member
// net.kelvo.description.string.base.translatedstring holds the text.

#include <optional>
#include <string>

#include "asset/core/asset_description.h"

namespace kelvo {

inline const Id& kTranslatedStringMember = stringkeys::translatedString;

// The text of key in language or, failing that, in its fallback languages (the current language
// when language is null). Nothing when no language has a text. A read error is returned.
Result<std::optional<std::string>> FindTranslatedString(const AssetMetaDataInterface& meta, const Id& key,
                                                        const LanguageRef& language);

// The translated text of key, or fallback when no language has one.
Result<std::string> GetDefaultMetaString(const AssetDescription& description, const Id& key,
                                         const LanguageRef& language, const std::string& fallback);

// Writes the text of key for language through the description's repository, as plain persistent
// metadata. An empty value, or one equal to what the fallback languages show, removes the
// language's own entry instead.
Result<void> StoreDefaultMetaString(const AssetDescription& description, const Id& key, const std::string& value,
                                    const LanguageRef& language);

} // namespace kelvo
