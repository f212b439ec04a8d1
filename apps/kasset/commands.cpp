// The subcommands of kasset: each works through the module's public interfaces only, as a host
// application would.

#include "commands.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <map>
#include <set>

#include "asset/standard/assets.h"
#include "asset/storage/database_asset.h"
#include "asset/types/keyword_asset.h"
#include "check_commands.h"
#include "db_commands.h"
#include "browse_commands.h"
#include "find_commands.h"
#include "link_commands.h"
#include "watch_commands.h"
#include "types_commands.h"
#include "remote_commands.h"
#include "kelvo/application.h"
#include "output.h"

namespace kasset {

using namespace kelvo;
namespace fs = std::filesystem;

namespace {

std::string AssetIdToFileName(const std::string& aid) {
  std::string name = aid;
  for (char& c : name)
    if (c == '/' || c == '\\' || c == '\0') c = '_';
  return name;
}

std::string ErrorText(const Error& error) { return error.ToString(); }

LanguageRef CurrentLanguage() { return Language::GetCurrentLanguage(); }

} // namespace

std::string ShortVersion(const AssetDescription& d) {
  if (d->IsDeleted()) return "deleted";
  const std::string v = d->GetIdAndVersion().second.ToString();
  return v.size() > 12 ? v.substr(0, 12) : v;
}

std::string DateOf(const AssetDescription& d) {
  auto stamp = d->GetMetaData()->GetValue<UniversalDateTime>(metaids::timestamp);
  if (stamp.HasError() || !*stamp || (*stamp)->IsEmpty()) return "-";
  return (*stamp)->FormatLocal("%Y-%m-%d %H:%M");
}

std::string NameOf(const AssetDescription& d) {
  if (d->IsDeleted()) return "";
  auto name = d->GetMetaString(stringkeys::name, CurrentLanguage(), "");
  return name.HasValue() ? *name : d->GetIdAndVersion().first.ToString();
}

namespace {

std::vector<std::string> SplitList(const std::string& text) {
  std::vector<std::string> items;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(',', start);
    if (end == std::string::npos) end = text.size();
    std::string item = text.substr(start, end - start);
    item.erase(0, item.find_first_not_of(' '));
    item.erase(item.find_last_not_of(' ') + 1);
    if (!item.empty()) items.push_back(item);
    start = end + 1;
  }
  return items;
}

// Every version of aid in repo and its bases, deleted ones included, oldest first.
Result<std::vector<AssetDescription>> AllVersions(const AssetRepositoryRef& repo, const Id& aid, bool ownOnly) {
  std::vector<AssetDescription> versions;
  ASSET_FIND_MODE mode = ALL | WITH_DELETED;
  if (ownOnly) mode = mode | WITHOUT_BASES;
  KELVO_RETURN_ON_ERROR(repo->FindAssets(TypeArray{}, aid, Id(), mode, [&](const AssetDescription& d) -> Result<bool> {
    versions.push_back(d);
    return true;
  }));
  std::stable_sort(versions.begin(), versions.end(), [](const AssetDescription& a, const AssetDescription& b) {
    return a->GetKey() < b->GetKey();
  });
  return versions;
}

// The version whose Id is version or begins with it (at least 4 characters, and only one may).
// Sets code and prints the error when there is none.
AssetDescription PickVersion(const std::vector<AssetDescription>& versions, const std::string& aid,
                             const std::string& version, int& code) {
  AssetDescription pick;
  int matches = 0;
  for (const AssetDescription& d : versions) {
    const std::string v = d->GetIdAndVersion().second.ToString();
    if (v == version) return d;
    if (version.size() >= 4 && v.starts_with(version) && (!pick || pick->GetIdAndVersion().second.ToString() != v)) {
      pick = d;
      ++matches;
    }
  }
  if (matches == 1) return pick;
  code = matches > 1 ? Fail(EXIT_USAGE, "version '" + version + "' of " + aid + " is ambiguous; give more characters")
                     : Fail(EXIT_NOT_FOUND, "asset " + aid + " has no version '" + version + "'");
  return nullptr;
}

// The latest live version of aid, or the one --version names. Prints the error when there is none.
AssetDescription FindAssetForRead(const Session& session, const std::string& aid,
                                  const std::optional<std::string>& version, int& code) {
  if (version) {
    auto versions = AllVersions(session.repository, Id(aid), false);
    if (versions.HasError()) {
      code = Fail(EXIT_FAILED, ErrorText(versions.GetError()));
      return nullptr;
    }
    if (versions->empty()) {
      code = Fail(EXIT_NOT_FOUND, "no asset " + aid);
      return nullptr;
    }
    AssetDescription d = PickVersion(*versions, aid, *version, code);
    if (d && d->IsDeleted()) {
      code = Fail(EXIT_NOT_FOUND, "version " + *version + " of " + aid + " is a deletion mark, it has no content");
      return nullptr;
    }
    return d;
  }
  auto latest = session.repository->FindLatestAsset(Id(), Id(aid), Id(), NONE);
  if (latest.HasError()) {
    code = Fail(EXIT_FAILED, ErrorText(latest.GetError()));
    return nullptr;
  }
  if (!*latest) {
    code = Fail(EXIT_NOT_FOUND, "no asset " + aid);
    return nullptr;
  }
  return *latest;
}

// The "asset" URL of a version, scoped to the session's repository so that it resolves there.
Result<Url> ScopedAssetUrl(const Session& session, const AssetDescription& d, bool pinVersion) {
  Url url("asset", d->GetIdAndVersion().first.ToString());
  if (pinVersion) url.SetQuery("rev=" + d->GetIdAndVersion().second.ToString());
  return AssetInterface::AddRepositoryScope(url, session.repository);
}

// The name a file gets on export: the asset's name without path separators, with the content's
// suffix when the name has none.
std::string ExportFileName(const AssetDescription& d, const Url& content) {
  std::string name = NameOf(d);
  for (char& c : name)
    if (c == '/' || c == '\0' || c == '\\') c = '_';
  if (name.empty() || name == "." || name == "..") name = AssetIdToFileName(d->GetIdAndVersion().first.ToString());
  const std::string suffix = content.GetSuffix();
  if (!suffix.empty() && Url::FromFile(name).GetSuffix().empty()) name += "." + suffix;
  return name;
}


std::string KindText(std::uint32_t kind) {
  std::string text;
  auto add = [&](std::uint32_t flag, const char* name) {
    if (kind & flag) text += (text.empty() ? "" : ",") + std::string(name);
  };
  add(AssetMetaData::READ_ONLY, "read-only");
  add(AssetMetaData::PERSISTENT, "persistent");
  add(AssetMetaData::VERSION, "version");
  add(AssetMetaData::DERIVED, "derived");
  add(AssetMetaData::USER, "user");
  return text.empty() ? "computed" : text;
}

std::string ValueText(const Data& value) {
  if (auto t = value.GetPtr<UniversalDateTime>()) return t->FormatLocal("%Y-%m-%d %H:%M:%S");
  // Translated strings: "name=text" per string key, the key without its dotted prefix.
  if (auto strings = value.GetPtr<DataDictionary>()) {
    std::string text;
    bool allStrings = !strings->IsEmpty();
    for (const auto& [key, entry] : *strings) {
      const auto* member = entry.GetPtr<DataDictionary>();
      const auto translated =
          member ? member->Get<std::string>(stringkeys::translatedString) : std::nullopt;
      if (!translated) {
        allStrings = false;
        break;
      }
      const std::string& k = key.GetString();
      text += (text.empty() ? "" : ", ") + k.substr(k.rfind('.') + 1) + "=" + *translated;
    }
    if (allStrings) return text;
  }
  std::string text = value.ToString();
  if (text.size() > 120) text = text.substr(0, 117) + "...";
  return text;
}

// ---- commands -------------------------------------------------------------------------------------

int CmdInit(const CommandLine& line, Session& session) {
  std::string dir = !line.args.empty() ? line.args[0] : (!session.repositoryPath.empty() ? session.repositoryPath : ".");
  dir = AbsolutePath(dir);
  std::error_code ec;
  if (fs::exists(dir, ec) && !fs::is_directory(dir, ec)) return Fail(EXIT_FAILED, dir + " exists and is no directory");
  if (fs::is_regular_file(fs::path(dir) / "databaseid", ec)) {
    AssetRepositoryRef repo;
    if (int code = OpenRepositoryDirectory(dir, true, repo)) return code;
    std::cout << "Asset repository " << repo->GetId().ToString() << " already exists in " << dir << "\n";
    return EXIT_OK;
  }
  if (auto r = Url::FromFile(dir).IoCreateDirectory(true); r.HasError()) return Fail(EXIT_FAILED, ErrorText(r.GetError()));
  AssetRepositoryRef repo;
  if (int code = OpenRepositoryDirectory(dir, true, repo, false)) return code;
  std::cout << "Initialized asset repository " << repo->GetId().ToString() << " in " << dir << "\n";
  return EXIT_OK;
}

int CmdAdd(const CommandLine& line, Session& session) {
  const auto name = line.Get("name");
  const auto id = line.Get("id");
  const std::vector<std::string> keywords = SplitList(line.Get("keywords").value_or(""));
  if (id && line.args.size() != 1) return Fail(EXIT_USAGE, "--id needs exactly one FILE");
  if (!session.repository->IsWritable()) return Fail(EXIT_FAILED, "the repository is read-only");
  Data dependencies;
  if (auto depends = line.Get("depends")) {
    int code = EXIT_OK;
    dependencies = MakeDependencyRecords(session, SplitList(*depends), code);
    if (code != EXIT_OK) return code;
  }

  // Everything is checked before the first store, so that a bad argument stores nothing.
  std::vector<std::string> paths;
  std::uint64_t totalBytes = 0;
  for (const std::string& arg : line.args) {
    const std::string path = AbsolutePath(arg);
    std::error_code ec;
    const fs::file_status status = fs::status(path, ec);
    if (ec || !fs::exists(status)) return Fail(EXIT_NOT_FOUND, "no such file: " + arg);
    if (fs::is_regular_file(status)) {
      totalBytes += fs::file_size(path, ec);
    } else if (!fs::is_directory(status)) {
      return Fail(EXIT_FAILED, arg + " is neither a file nor a directory");
    }
    paths.push_back(path);
  }
  // A new version of an existing asset inherits its persistent metadata (name, keywords).
  AssetMetaDataRef inherited;
  if (id) {
    auto existing = session.repository->FindLatestAsset(Id(), Id(*id), Id(), NONE);
    if (existing.HasError()) return Fail(EXIT_FAILED, ErrorText(existing.GetError()));
    if (*existing && (*existing)->GetRepository() != session.repository)
      return Fail(EXIT_FAILED, "asset " + *id + " belongs to the repository " +
                                   (*existing)->GetRepositoryId().ToString() + "; it can't get versions here");
    if (*existing) inherited = (*existing)->GetMetaData();
  }

  Progress progress("storing", totalBytes, paths.size());
  for (const std::string& path : paths) {
    Id aid;
    if (id) {
      aid = Id(*id);
    } else {
      // The long form: hexadecimal digits only, so that the Id needs no quoting in a shell.
      auto made = AssetInterface::MakeUuid("file", false);
      if (made.HasError()) return Fail(EXIT_FAILED, ErrorText(made.GetError()));
      aid = *made;
    }
    const Url source = Url::FromFile(path);
    progress.Begin(source.GetName());
    auto stored = session.repository->StoreAsset(aid, FileAssetInterface::Create(source), inherited);
    if (stored.HasError()) {
      progress.Finish();
      return Fail(EXIT_FAILED, "can't store " + path + ": " + ErrorText(stored.GetError()));
    }
    const AssetDescription& d = *stored;
    const std::string assetName = name.value_or(source.GetName());
    if (auto r = inherited && !name ? Result<void>()
                                    : d->StoreMetaString(stringkeys::name, assetName, Language::GetDefaultLanguage());
        r.HasError()) {
      progress.Finish();
      return Fail(EXIT_FAILED, "stored " + aid.ToString() + " but can't set its name: " + ErrorText(r.GetError()));
    }
    if (!dependencies.IsEmpty()) {
      if (auto r = session.repository->StoreMetaData(d, metaids::dependencies, dependencies, AssetMetaData::PERSISTENT);
          r.HasError()) {
        progress.Finish();
        return Fail(EXIT_FAILED, "stored " + aid.ToString() + " but can't record its dependencies: " + ErrorText(r.GetError()));
      }
    }
    if (!keywords.empty()) {
      DataArray ids;
      for (const std::string& k : keywords) ids.push_back(Data(Id(k)));
      if (auto r = session.repository->StoreMetaData(d, keywordids::keywords, Data(std::move(ids)), AssetMetaData::PERSISTENT);
          r.HasError()) {
        progress.Finish();
        return Fail(EXIT_FAILED, "stored " + aid.ToString() + " but can't set its keywords: " + ErrorText(r.GetError()));
      }
    }
    std::error_code ec;
    progress.Advance(fs::is_regular_file(path, ec) ? fs::file_size(path, ec) : 0, source.GetName());
    std::cout << aid.ToString() << "\n" << std::flush;
  }
  progress.Finish();
  return EXIT_OK;
}

int CmdShow(const CommandLine& line, Session& session) {
  const std::string aid = line.args[0];
  auto versions = AllVersions(session.repository, Id(aid), false);
  if (versions.HasError()) return Fail(EXIT_FAILED, ErrorText(versions.GetError()));
  if (versions->empty()) return Fail(EXIT_NOT_FOUND, "no asset " + aid);

  AssetDescription latest;
  for (const AssetDescription& d : *versions)
    if (!latest || latest->GetKey() < d->GetKey()) latest = d;
  AssetDescription shown = latest;
  int code = EXIT_OK;
  if (auto v = line.Get("version")) {
    shown = PickVersion(*versions, aid, *v, code);
    if (!shown) return code;
  }
  std::set<Id> repositories;
  for (const AssetDescription& d : *versions) repositories.insert(d->GetRepositoryId());

  Table head;
  head.AddRow({"id:", aid});
  head.AddRow({"type:", shown->GetTypeId().ToString()});
  head.AddRow({"name:", latest->IsDeleted() ? "(deleted)" : NameOf(latest)});
  if (!latest->IsDeleted()) {
    if (auto url = AssetInterface::GetAssetUrl(latest, true); url.HasValue()) head.AddRow({"url:", url->ToString()});
  }
  head.AddRow({"repository:", latest->GetRepositoryId().ToString()});
  for (auto& row : TypedAssetRows(shown, session)) head.AddRow(std::move(row));
  std::cout << head.Format() << "\nversions:\n";
  Table table;
  std::size_t number = 0;
  for (const AssetDescription& d : *versions) {
    std::vector<std::string> row{"  " + std::to_string(++number), d->IsDeleted() ? "deleted" : d->GetIdAndVersion().second.ToString(),
                                 DateOf(d)};
    if (repositories.size() > 1) row.push_back(d->GetRepositoryId().ToString());
    std::string marks;
    if (d == latest) marks = d->IsDeleted() ? "(latest: deleted)" : "(latest)";
    if (d == shown && line.Has("version")) marks += marks.empty() ? "(shown)" : " (shown)";
    row.push_back(marks);
    table.AddRow(std::move(row));
  }
  std::cout << table.Format();

  auto entries = shown->GetMetaData()->GetExistingEntries();
  if (entries.HasError()) return Fail(EXIT_FAILED, ErrorText(entries.GetError()));
  std::sort(entries->begin(), entries->end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::cout << "\nmetadata" << (shown->IsDeleted() ? "" : " of version " + ShortVersion(shown)) << ":\n";
  Table meta;
  for (const auto& [metaId, kind] : *entries) {
    auto value = shown->GetMetaData()->Get(metaId);
    std::string text = value.HasError() ? "(unreadable: " + ErrorText(value.GetError()) + ")"
                       : !*value       ? "(none)"
                                       : ValueText(**value);
    meta.AddRow({"  " + metaId.ToString(), "[" + KindText(kind) + "]", text});
  }
  std::cout << (meta.IsEmpty() ? "  (none)\n" : meta.Format());
  return EXIT_OK;
}

int CmdCat(const CommandLine& line, Session& session) {
  int code = EXIT_OK;
  AssetDescription d = FindAssetForRead(session, line.args[0], line.Get("version"), code);
  if (!d) return code;
  auto url = ScopedAssetUrl(session, d, line.Has("version"));
  if (url.HasError()) return Fail(EXIT_FAILED, ErrorText(url.GetError()));
  auto content = d->GetUrl();
  if (content.HasValue() && content->IoDetect() == IODETECT::DIRECTORY)
    return Fail(EXIT_FAILED, line.args[0] + " is a directory asset; use 'kasset export'");
  auto in = url->OpenInputStream();
  if (in.HasError()) return Fail(EXIT_FAILED, ErrorText(in.GetError()));
  char buffer[65536];
  for (;;) {
    auto n = (*in)->Read(buffer, sizeof(buffer));
    if (n.HasError()) return Fail(EXIT_FAILED, ErrorText(n.GetError()));
    if (*n == 0) break;
    std::cout.write(buffer, static_cast<std::streamsize>(*n));
    if (!std::cout) return Fail(EXIT_FAILED, "can't write to the standard output");
  }
  std::cout.flush();
  return EXIT_OK;
}

int CmdExport(const CommandLine& line, Session& session) {
  int code = EXIT_OK;
  AssetDescription d = FindAssetForRead(session, line.args[0], line.Get("version"), code);
  if (!d) return code;
  const std::string dir = AbsolutePath(line.args[1]);
  std::error_code ec;
  if (fs::exists(dir, ec) && !fs::is_directory(dir, ec)) return Fail(EXIT_FAILED, line.args[1] + " is no directory");
  auto url = ScopedAssetUrl(session, d, line.Has("version"));
  if (url.HasError()) return Fail(EXIT_FAILED, ErrorText(url.GetError()));
  auto connection = AssetConnection::Open(*url, session.repository);
  if (connection.HasError()) return Fail(EXIT_FAILED, ErrorText(connection.GetError()));
  const Url& resolved = connection->GetResolvedUrl();
  const std::string fileName = line.Get("as").value_or(ExportFileName(d, resolved));
  if (fileName.empty() || fileName.find('/') != std::string::npos || fileName == "." || fileName == "..")
    return Fail(EXIT_USAGE, "--as needs a plain file name");
  const fs::path target = fs::path(dir) / fileName;
  if (fs::exists(fs::symlink_status(target, ec)) && !line.Has("force"))
    return Fail(EXIT_FAILED, target.string() + " exists; use --force to replace it");

  if (auto r = Url::FromFile(dir).IoCreateDirectory(true); r.HasError()) return Fail(EXIT_FAILED, ErrorText(r.GetError()));
  const Url to = Url::FromFile(target.string());
  // --force replaces what stands there, a link included: the link goes, its target stays untouched.
  if (line.Has("force") && fs::exists(fs::symlink_status(target, ec))) {
    if (auto r = to.IoDelete(!fs::is_symlink(fs::symlink_status(target, ec))); r.HasError())
      return Fail(EXIT_FAILED, ErrorText(r.GetError()));
  }
  if (resolved.IoDetect() == IODETECT::DIRECTORY) {
    if (auto r = CopyContent(resolved, to); r.HasError()) return Fail(EXIT_FAILED, ErrorText(r.GetError()));
  } else {
    // Read through the asset URL, as any other component would.
    auto in = url->OpenInputStream();
    if (in.HasError()) return Fail(EXIT_FAILED, ErrorText(in.GetError()));
    auto out = to.OpenOutputStream();
    if (out.HasError()) return Fail(EXIT_FAILED, ErrorText(out.GetError()));
    auto copied = CopyStream(**in, **out);
    if (copied.HasError()) return Fail(EXIT_FAILED, ErrorText(copied.GetError()));
    if (auto r = (*out)->Close(); r.HasError()) return Fail(EXIT_FAILED, ErrorText(r.GetError()));
  }
  std::cout << target.string() << "\n";
  return EXIT_OK;
}

int CmdRm(const CommandLine& line, Session& session) {
  const std::string aid = line.args[0];
  auto own = session.repository->FindLatestAsset(Id(), Id(aid), Id(), WITHOUT_BASES);
  if (own.HasError()) return Fail(EXIT_FAILED, ErrorText(own.GetError()));
  if (!*own) {
    auto anywhere = session.repository->FindLatestAsset(Id(), Id(aid), Id(), NONE);
    if (anywhere.HasValue() && *anywhere)
      return Fail(EXIT_FAILED, "asset " + aid + " belongs to the repository " + (*anywhere)->GetRepositoryId().ToString() +
                                   ", which this command doesn't change");
    return Fail(EXIT_NOT_FOUND, "no asset " + aid);
  }
  auto deleted = session.repository->DeleteAsset(Id(aid));
  if (deleted.HasError()) return Fail(EXIT_FAILED, ErrorText(deleted.GetError()));
  std::cout << "deleted " << aid << " (earlier versions stay until 'kasset erase')\n";
  return EXIT_OK;
}

int CmdErase(const CommandLine& line, Session& session) {
  const std::string aid = line.args[0];
  auto versions = AllVersions(session.repository, Id(aid), true);
  if (versions.HasError()) return Fail(EXIT_FAILED, ErrorText(versions.GetError()));
  if (versions->empty()) return Fail(EXIT_NOT_FOUND, "no asset " + aid + " in this repository");
  std::vector<AssetDescription> targets = *versions;
  if (auto v = line.Get("version")) {
    int code = EXIT_OK;
    AssetDescription d = PickVersion(*versions, aid, *v, code);
    if (!d) return code;
    targets = {d};
  }
  // Newest first, so that an interruption leaves the older history intact.
  std::reverse(targets.begin(), targets.end());
  for (const AssetDescription& d : targets) {
    if (auto r = session.repository->EraseAsset(d); r.HasError()) return Fail(EXIT_FAILED, ErrorText(r.GetError()));
    std::cout << "erased " << aid << " " << (d->IsDeleted() ? "(deletion mark)" : d->GetIdAndVersion().second.ToString())
              << "\n";
  }
  return EXIT_OK;
}

int CmdMount(const CommandLine& line, Session& session) {
  const std::string dir = AbsolutePath(line.args[0]);
  AssetRepositoryRef mounted;
  if (int code = OpenRepositoryDirectory(dir, false, mounted)) return code;
  if (auto r = session.repository->AddBase(mounted); r.HasError()) return Fail(EXIT_FAILED, ErrorText(r.GetError()));
  std::size_t count = 0;
  auto r = mounted->FindAssets(TypeArray{}, Id(), Id(), LATEST | WITHOUT_BASES, [&](const AssetDescription& d) -> Result<bool> {
    if (d->GetTypeId() != g_databaseAssetTypeId) ++count;
    return true;
  });
  if (r.HasError()) return Fail(EXIT_FAILED, ErrorText(r.GetError()));
  std::cout << "mounted " << mounted->GetId().ToString() << " from " << dir << " (" << count << " assets) under "
            << session.repository->GetId().ToString() << " for this invocation\n";
  return EXIT_OK;
}

} // namespace

std::string AbsolutePath(const std::string& path) {
  std::error_code ec;
  fs::path p = fs::absolute(path, ec);
  if (ec) return path;
  std::string text = p.lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

int OpenRepositoryDirectory(const std::string& dir, bool writable, AssetRepositoryRef& repository, bool mustExist) {
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) return Fail(EXIT_NOT_FOUND, "no repository at " + dir + " (no such directory)");
  const bool exists = fs::is_regular_file(fs::path(dir) / "databaseid", ec);
  if (!exists && mustExist)
    return Fail(EXIT_NOT_FOUND, "no repository at " + dir + " (create one with 'kasset init " + dir + "')");
  auto repo = AssetInterface::CreateRepositoryFromUrl(Id(), repositorytypes::database,
                                                      {AssetInterface::GetBuiltinRepository()}, Url::FromFile(dir),
                                                      writable, !writable, false);
  if (repo.HasError()) return Fail(EXIT_FAILED, "can't open the repository at " + dir + ": " + ErrorText(repo.GetError()));
  repository = *repo;
  return EXIT_OK;
}

bool NeedsRepository(const std::string& command) { return command != "init"; }

const std::vector<OptionSpec>& GetGlobalOptions() {
  static const std::vector<OptionSpec> options{
      {"repo", "DIR", "work on the repository in DIR instead of the user repository"},
      {"prefs", "DIR", "the preferences directory (default: $KELVO_PREFS_DIR, else ~/.config/kelvo/prefs)"},
      {"globalprefs", "DIR", "the global preferences directory (default: $KELVO_GLOBALPREFS_DIR, else ~/.config/kelvo)"},
      {"library", "DIR", "the library directory (default: $KELVO_LIBRARY_DIR, else ~/.local/share/kelvo/library)"},
      {"mount", "DIR", "search the repository in DIR as well, for this invocation only (repeatable)", true},
      {"help", "", "show this help, or a command's help after the command (also -h)"},
  };
  return options;
}

const std::vector<CommandSpec>& GetCommands() {
  static const std::vector<CommandSpec> commands{
      {"init", "[DIR]", 0, 1, "Create an asset repository in DIR (default: --repo, else the current directory).",
       "DIR is created when missing. Running init on an existing repository changes nothing.", {}},
      {"add", "FILE...", 1, SIZE_MAX, "Store files or directories as new file assets and print their Ids.",
       "Each FILE becomes a new asset with a generated Id, printed one per line in the order of the\n"
       "files. With --id the file becomes a new version of that asset instead. Nothing is stored when\n"
       "any FILE is missing.",
       {{"name", "NAME", "the asset's name (default: the file's name)"},
        {"keywords", "A,B", "keywords stored with the asset, separated by commas"},
        {"id", "ID", "store under this asset Id (one FILE only); an existing asset gets a new version"},
        {"depends", "A,B", "record that the asset depends on the latest versions of these assets"}}},
      {"show", "ID", 1, 1, "Show an asset: its versions and the metadata of its latest version.",
       "A VERSION may be abbreviated to its first characters (at least 4) when that is unambiguous.",
       {{"version", "VERSION", "show the metadata of this version"}}},
      {"cat", "ID", 1, 1, "Write the content of an asset to the standard output.",
       "The content is read through the asset's \"asset:///ID\" URL.",
       {{"version", "VERSION", "this version instead of the latest one"}}},
      {"export", "ID DIR", 2, 2, "Copy the content of an asset into DIR under the asset's name and print the path.",
       "DIR is created when missing. The content is read through the asset's \"asset:///ID\" URL.",
       {{"version", "VERSION", "this version instead of the latest one"},
        {"as", "NAME", "the file name in DIR (default: the asset's name)"},
        {"force", "", "replace an existing file"}}},
      {"rm", "ID", 1, 1, "Delete an asset: store a deletion mark as its newest version.",
       "Earlier versions stay and can still be read with --version until they are erased.", {}},
      {"erase", "ID", 1, 1, "Erase stored versions of an asset for good.",
       "Without --version every version of the asset in the repository is erased, deletion marks\n"
       "included.",
       {{"version", "VERSION", "erase only this version"}}},
      {"mount", "DIR", 1, 1, "Check that DIR holds a repository and show what mounting it adds.",
       "Mounting is per invocation: the repository in DIR is opened read-only and searched after the\n"
       "target repository for the rest of the command. To use a mounted repository with another\n"
       "command, give --mount DIR to that command, e.g. 'kasset --mount DIR ls'.",
       {}},
  };
  static const std::vector<CommandSpec> all = [] {
    std::vector<CommandSpec> v = commands;
    v.insert(v.begin() + 2, GetFindCommands().begin(), GetFindCommands().end());
    v.insert(v.begin() + 2 + GetFindCommands().size(), GetBrowseCommands().begin(), GetBrowseCommands().end());
    v.insert(v.end(), GetDbCommands().begin(), GetDbCommands().end());
    v.insert(v.end(), GetWatchCommands().begin(), GetWatchCommands().end());
    v.insert(v.end(), GetTypesCommands().begin(), GetTypesCommands().end());
    v.insert(v.end(), GetLinkCommands().begin(), GetLinkCommands().end());
    v.insert(v.end(), GetCheckCommands().begin(), GetCheckCommands().end());
    v.insert(v.end(), GetRemoteCommands().begin(), GetRemoteCommands().end());
    return v;
  }();
  return all;
}

std::string GlobalHelp() {
  std::string text =
      "usage: kasset [GLOBAL OPTIONS] COMMAND [OPTIONS] [ARGUMENTS]\n"
      "\n"
      "Store, version, describe, find and export assets in asset repositories.\n"
      "\n"
      "Without --repo, commands work on the user repository (<PREFS>/userrepository), whose searches\n"
      "also reach the application repository (<LIBRARY>/assets/application, when it exists) and the\n"
      "built-in assets.\n"
      "\n"
      "Commands:\n";
  Table table;
  for (const CommandSpec& c : GetCommands()) table.AddRow({"  " + c.name + (c.arguments.empty() ? "" : " " + c.arguments), c.summary});
  text += table.Format();
  text += "\nGlobal options:\n" + OptionsHelp(GetGlobalOptions());
  text +=
      "\nExit codes:\n"
      "  0  success\n"
      "  1  the operation failed\n"
      "  2  usage error (unknown command or option, missing argument)\n"
      "  3  not found: an asset, version, file or repository named on the command line doesn't exist\n"
      "\nErrors are printed as one line on stderr, beginning with \"kasset: error: \".\n"
      "Run 'kasset COMMAND --help' for the options of a command.\n";
  return text;
}

int RunCommand(const CommandLine& line, Session& session) {
  const std::string& c = line.command;
  if (c == "init") return CmdInit(line, session);
  if (c == "add") return CmdAdd(line, session);
  if (IsFindCommand(c)) return RunFindCommand(line, session);
  if (IsBrowseCommand(c)) return RunBrowseCommand(line, session);
  if (c == "show") return CmdShow(line, session);
  if (c == "cat") return CmdCat(line, session);
  if (c == "export") return CmdExport(line, session);
  if (c == "rm") return CmdRm(line, session);
  if (c == "erase") return CmdErase(line, session);
  if (c == "mount") return CmdMount(line, session);
  if (IsDbCommand(c)) return RunDbCommand(line, session);
  if (IsWatchCommand(c)) return RunWatchCommand(line, session);
  if (IsTypesCommand(c)) return RunTypesCommand(line, session);
  if (IsLinkCommand(c)) return RunLinkCommand(line, session);
  if (IsCheckCommand(c)) return RunCheckCommand(line, session);
  if (IsRemoteCommand(c)) return RunRemoteCommand(line, session);
  return Fail(EXIT_USAGE, "unknown command '" + c + "'");
}

} // namespace kasset
