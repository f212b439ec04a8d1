#include "kelvo/settings.h"

#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "kelvo/application.h"
#include "kelvo/log.h"

namespace kelvo {

namespace {

using Json = nlohmann::json;

struct Store {
  std::mutex lock;
  bool loaded = false;
  Url file; // the file `values` were read from
  DataDictionary values;
};

Store& GetStore() {
  static Store* store = new Store();
  return *store;
}

Url SettingsFile() { return Application::PrivateGetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR).Append("settings.json"); }

Result<Json> ToJson(const Data& value) {
  const Id& type = value.GetType();
  if (auto b = value.Get<bool>()) return Json(*b);
  if (auto i = value.Get<std::int32_t>()) return Json(static_cast<std::int64_t>(*i));
  if (auto i = value.Get<std::int64_t>()) return Json(*i);
  if (auto u = value.Get<std::uint64_t>()) return Json(*u);
  if (auto d = value.Get<double>()) {
    if (!std::isfinite(*d)) return UnsupportedArgumentError("Settings can't hold the number @.", *d);
    return Json(*d);
  }
  if (auto* s = value.GetPtr<std::string>()) return Json(*s);
  if (auto* array = value.GetPtr<DataArray>()) {
    Json out = Json::array();
    for (const Data& element : *array) {
      KELVO_ASSIGN_OR_RETURN(Json j, ToJson(element));
      out.push_back(std::move(j));
    }
    return out;
  }
  if (auto* dict = value.GetPtr<DataDictionary>()) {
    Json out = Json::object();
    for (const auto& [key, element] : *dict) {
      KELVO_ASSIGN_OR_RETURN(Json j, ToJson(element));
      out[key.GetString()] = std::move(j);
    }
    return out;
  }
  return UnsupportedArgumentError("Settings can't hold values of type @.", type);
}

// Null when the JSON value has no Data counterpart (null, binary).
std::optional<Data> FromJson(const Json& j) {
  switch (j.type()) {
  case Json::value_t::boolean:
    return Data(j.get<bool>());
  case Json::value_t::number_integer:
    return Data(j.get<std::int64_t>());
  case Json::value_t::number_unsigned: {
    const auto u = j.get<std::uint64_t>();
    if (u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
      return Data(static_cast<std::int64_t>(u));
    return Data(u);
  }
  case Json::value_t::number_float:
    return Data(j.get<double>());
  case Json::value_t::string:
    return Data(j.get<std::string>());
  case Json::value_t::array: {
    DataArray array;
    for (const Json& element : j) {
      auto d = FromJson(element);
      if (!d) return std::nullopt;
      array.push_back(std::move(*d));
    }
    return Data(std::move(array));
  }
  case Json::value_t::object: {
    DataDictionary dict;
    for (const auto& [key, element] : j.items()) {
      auto d = FromJson(element);
      if (!d) return std::nullopt;
      dict.SetData(Id(key), std::move(*d));
    }
    return Data(std::move(dict));
  }
  default:
    return std::nullopt;
  }
}

// REQUIRES: store.lock held.
void Load(Store& store, const Url& file) {
  store.values.Reset();
  store.file = file;
  store.loaded = true;
  if (file.IoDetect() == IODETECT::NONE) return;
  auto text = file.ReadAll();
  if (text.HasError()) {
    WarningOutput("Can't read the settings; starting with none: @", text.GetError());
    return;
  }
  const Json json = Json::parse(*text, nullptr, false);
  if (json.is_discarded() || !json.is_object()) {
    WarningOutput("The settings file @ is corrupt; starting with no settings.", file);
    return;
  }
  for (const auto& [key, element] : json.items()) {
    if (auto d = FromJson(element))
      store.values.SetData(Id(key), std::move(*d));
    else
      WarningOutput("Skipping the setting @ in @: its value has no supported type.", key, file);
  }
}

// Reads the file on first use and whenever the settings directory has changed.
// REQUIRES: store.lock held.
void EnsureLoaded(Store& store) {
  Url file = SettingsFile();
  if (!store.loaded || !(store.file == file)) Load(store, file);
}

} // namespace

Url Settings::GetFileUrl() { return SettingsFile(); }

Data Settings::Get(const Id& key) {
  try {
    auto& store = GetStore();
    std::lock_guard guard(store.lock);
    EnsureLoaded(store);
    return store.values.GetData(key);
  } catch (const std::exception& e) {
    CriticalOutput("Can't read the setting @: @", key, e.what());
    return Data();
  }
}

Result<void> Settings::Set(const Id& key, const Data& value) {
  if (key.IsEmpty()) return IllegalArgumentError("A setting needs a non-empty key.");
  try {
    if (!value.IsEmpty()) KELVO_RETURN_ON_ERROR(ToJson(value));
    auto& store = GetStore();
    std::lock_guard guard(store.lock);
    EnsureLoaded(store);
    DataDictionary updated = store.values;
    if (value.IsEmpty())
      updated.EraseData(key);
    else
      updated.SetData(key, value);
    KELVO_ASSIGN_OR_RETURN(Json json, ToJson(Data(updated)));
    std::string text;
    try {
      text = json.dump(2) + "\n";
    } catch (const Json::type_error& e) {
      return UnsupportedArgumentError("The setting @ holds text that is not UTF-8: @", key, e.what());
    }
    KELVO_RETURN_ON_ERROR(store.file.GetDirectory().IoCreateDirectory(true));
    KELVO_RETURN_ON_ERROR(store.file.WriteAll(text));
    store.values = std::move(updated);
    return {};
  } catch (const std::exception& e) {
    return UnexpectedError("Can't store the setting @: @", key, e.what());
  }
}

void Settings::Reload() {
  try {
    auto& store = GetStore();
    std::lock_guard guard(store.lock);
    Load(store, SettingsFile());
  } catch (const std::exception& e) {
    CriticalOutput("Can't reload the settings: @", e.what());
  }
}

} // namespace kelvo
