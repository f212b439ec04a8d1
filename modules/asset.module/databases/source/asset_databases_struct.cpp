// The database record, its data type and its settings form.

#include <functional>

#include "asset/databases/asset_databases.h"

namespace kelvo {

namespace {

const Id kUrlKey{"_dbUrl"};
const Id kActiveKey{"_active"};
const Id kExportKey{"_exportOnSaveProject"};
const Id kQueryKey{"query"};

// The repository type a URL names, as text; empty when none.
std::string UrlTypeText(const Url& url) {
  const Data type = url.GetData(assetdatabasekeys::assetdatabasetype);
  if (auto id = type.Get<Id>()) return id->ToString();
  if (auto text = type.Get<std::string>()) return *text;
  return std::string();
}

// "scheme://path": the query is kept apart, so that a path with "?" in it survives.
std::string UrlText(const Url& url) { return url.GetScheme() + "://" + url.GetPath(); }

Url UrlFromText(const std::string& text) {
  const auto sep = text.find("://");
  if (sep == std::string::npos) return Url(text);
  return Url(text.substr(0, sep), text.substr(sep + 3));
}

Result<AssetDatabaseStruct> FromDictionary(const DataDictionary& dict, std::size_t index) {
  const auto text = dict.Get<std::string>(kUrlKey);
  if (!text || text->empty())
    return FileFormatError("Entry @ of @ has no database URL.", index, assetdatabasekeys::userpaths);
  AssetDatabaseStruct db;
  db._dbUrl = UrlFromText(*text);
  if (auto query = dict.Get<std::string>(kQueryKey); query && !query->empty()) db._dbUrl.SetQuery(*query);
  if (auto type = dict.Get<std::string>(assetdatabasekeys::assetdatabasetype); type && !type->empty())
    db._dbUrl.SetData(assetdatabasekeys::assetdatabasetype, Data(Id(*type)));
  db._active = dict.Get<bool>(kActiveKey).value_or(true);
  db._exportOnSaveProject = dict.Get<bool>(kExportKey).value_or(true);
  return db;
}

} // namespace

bool operator==(const AssetDatabaseStruct& a, const AssetDatabaseStruct& b) {
  return a._dbUrl == b._dbUrl && UrlTypeText(a._dbUrl) == UrlTypeText(b._dbUrl) && a._active == b._active &&
         a._exportOnSaveProject == b._exportOnSaveProject;
}

std::size_t HashValue(const AssetDatabaseStruct& db) {
  std::size_t h = std::hash<std::string>()(db._dbUrl.ToString());
  h = CombineHash(h, std::hash<std::string>()(UrlTypeText(db._dbUrl)));
  h = CombineHash(h, (db._active ? 1u : 0u) | (db._exportOnSaveProject ? 2u : 0u));
  return h;
}

const Id& DataTypeTraits<AssetDatabaseStruct>::TypeId() {
  static const Id id{"net.kelvo.datatype.assetdatabasestruct"};
  return id;
}

Data AssetDatabasesToSettingsData(const std::vector<AssetDatabaseStruct>& databases) {
  DataArray array;
  array.reserve(databases.size());
  for (const AssetDatabaseStruct& db : databases) {
    DataDictionary dict;
    dict.SetData(kUrlKey, Data(UrlText(db._dbUrl)));
    const std::string query = db._dbUrl.GetQuery();
    if (!query.empty()) dict.SetData(kQueryKey, Data(query));
    const std::string type = UrlTypeText(db._dbUrl);
    if (!type.empty()) dict.SetData(assetdatabasekeys::assetdatabasetype, Data(type));
    dict.SetData(kActiveKey, Data(db._active));
    dict.SetData(kExportKey, Data(db._exportOnSaveProject));
    array.push_back(Data(std::move(dict)));
  }
  return Data(std::move(array));
}

Result<std::vector<AssetDatabaseStruct>> AssetDatabasesFromSettingsData(const Data& data) {
  std::vector<AssetDatabaseStruct> databases;
  if (data.IsEmpty()) return databases;
  const DataArray* array = data.GetPtr<DataArray>();
  if (!array) return FileFormatError("The setting @ is no list of databases.", assetdatabasekeys::userpaths);
  databases.reserve(array->size());
  for (std::size_t i = 0; i < array->size(); ++i) {
    const Data& element = (*array)[i];
    if (const AssetDatabaseStruct* db = element.GetPtr<AssetDatabaseStruct>()) {
      databases.push_back(*db);
    } else if (const DataDictionary* dict = element.GetPtr<DataDictionary>()) {
      KELVO_ASSIGN_OR_RETURN(AssetDatabaseStruct db, FromDictionary(*dict, i));
      databases.push_back(std::move(db));
    } else {
      return FileFormatError("Entry @ of @ is no database record.", i, assetdatabasekeys::userpaths);
    }
  }
  return databases;
}

} // namespace kelvo
