// Typed asset subcommands of kasset. Keywords and categories are named on the command line by
// their asset Id or by their name; a name must be unambiguous.

#include "types_commands.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <map>

#include "asset/types/category_asset.h"
#include "asset/types/category_tree.h"
#include "asset/types/color_category_asset.h"
#include "asset/types/keyword_asset.h"
#include "asset/types/metadata_asset_type.h"
#include "output.h"

namespace kasset {

using namespace kelvo;

namespace {

std::string NameOrId(const AssetDescription& d) {
  auto name = d->GetMetaString(stringkeys::name, nullptr, std::string());
  return name.HasValue() && !name->empty() ? *name : d->GetIdAndVersion().first.ToString();
}

// The latest asset aid; prints the error and sets code when there is none.
AssetDescription FindTarget(const Session& session, const std::string& aid, int& code) {
  auto found = session.repository->FindLatestAsset(Id(), Id(aid), Id(), NONE);
  if (found.HasError()) {
    code = Fail(EXIT_FAILED, found.GetError().ToString());
    return nullptr;
  }
  if (!*found) code = Fail(EXIT_NOT_FOUND, "no asset " + aid);
  return *found;
}

// The asset of type with the Id text, else the only one named text; null with code set when
// there is none (code stays EXIT_OK then) or the name is ambiguous.
AssetDescription FindTyped(const Session& session, const Id& type, const std::string& text, const char* what,
                           int& code) {
  auto byId = session.repository->FindLatestAsset(type, Id(text), Id(), NONE);
  if (byId.HasError()) {
    code = Fail(EXIT_FAILED, byId.GetError().ToString());
    return nullptr;
  }
  if (*byId) return *byId;
  std::vector<AssetDescription> named;
  auto search = session.repository->FindAssets(TypeArray{type}, Id(), Id(), LATEST, [&](const AssetDescription& d) -> Result<bool> {
    auto name = d->GetMetaString(stringkeys::name, nullptr, std::string());
    if (name.HasValue() && *name == text) named.push_back(d);
    return true;
  });
  if (search.HasError()) {
    code = Fail(EXIT_FAILED, search.GetError().ToString());
    return nullptr;
  }
  if (named.size() > 1) {
    std::string ids;
    for (const AssetDescription& d : named) ids += " " + d->GetIdAndVersion().first.ToString();
    std::string message = "more than one ";
    message.append(what).append(" is named '").append(text).append("':").append(ids).append("; give its Id");
    code = Fail(EXIT_USAGE, message);
    return nullptr;
  }
  return named.empty() ? nullptr : named.front();
}

// The keyword Id for tagging: an existing keyword, or with --new one made under the text as
// Id and name.
int ResolveKeyword(const CommandLine& line, Session& session, const std::string& text, Id& keyword) {
  int code = EXIT_OK;
  AssetDescription found = FindTyped(session, KeywordAssetInterface::TypeId(), text, "keyword", code);
  if (code != EXIT_OK) return code;
  if (found) {
    keyword = found->GetIdAndVersion().first;
    return EXIT_OK;
  }
  if (!line.Has("new"))
    return Fail(EXIT_NOT_FOUND, "no keyword '" + text + "' (give --new to make it)");
  auto stored = session.repository->StoreAsset(Id(text), KeywordAssetInterface::Create(), nullptr);
  if (stored.HasError()) return Fail(EXIT_FAILED, "can't make keyword '" + text + "': " + stored.GetError().ToString());
  if (auto named = (*stored)->StoreMetaString(stringkeys::name, text, Language::GetDefaultLanguage()); named.HasError())
    return Fail(EXIT_FAILED, "can't name keyword '" + text + "': " + named.GetError().ToString());
  keyword = Id(text);
  return EXIT_OK;
}

int ChangeKeyword(const Session& session, const std::string& aid, const Id& keyword, bool user, bool add) {
  int code = EXIT_OK;
  AssetDescription target = FindTarget(session, aid, code);
  if (!target) return code;
  auto changed = add ? KeywordAssetInterface::AddKeyword(target, keyword, user, true)
                     : KeywordAssetInterface::RemoveKeyword(target, keyword, user);
  if (changed.HasError()) return Fail(EXIT_FAILED, changed.GetError().ToString());
  if (!*changed) {
    if (add) {
      auto where = KeywordAssetInterface::HasKeyword(target, keyword);
      const bool userHas = where.HasValue() && *where == Id(keywordids::userkeywords.View());
      Note(aid + " already has " + keyword.ToString() + (userHas ? " (as the user's keyword)" : ""));
    } else {
      Note(aid + " has no " + std::string(user ? "user " : "") + "keyword " + keyword.ToString());
    }
  }
  return EXIT_OK;
}

int CmdTag(const CommandLine& line, Session& session, bool add) {
  Id keyword;
  if (add) {
    if (int code = ResolveKeyword(line, session, line.args[1], keyword); code != EXIT_OK) return code;
  } else {
    // Untagging also takes keyword Ids without keyword asset, as "add --keywords" stores them.
    int code = EXIT_OK;
    AssetDescription found = FindTyped(session, KeywordAssetInterface::TypeId(), line.args[1], "keyword", code);
    if (code != EXIT_OK) return code;
    keyword = found ? found->GetIdAndVersion().first : Id(line.args[1]);
  }
  return ChangeKeyword(session, line.args[0], keyword, line.Has("user"), add);
}

int CmdKeywords(Session& session) {
  std::map<Id, std::size_t> counts;
  auto search = session.repository->FindAssets(TypeArray{}, Id(), Id(), LATEST, [&](const AssetDescription& d) -> Result<bool> {
    KELVO_ASSIGN_OR_RETURN(std::vector<Id> keywords, GetAssetKeywords(d));
    for (const Id& k : keywords) ++counts[k];
    return true;
  });
  if (search.HasError()) return Fail(EXIT_FAILED, search.GetError().ToString());
  // Keyword assets that no asset uses yet.
  auto keywordAssets = session.repository->FindAssets(TypeArray{KeywordAssetInterface::TypeId()}, Id(), Id(), LATEST,
                                                      [&](const AssetDescription& d) -> Result<bool> {
                                                        counts.emplace(d->GetIdAndVersion().first, 0);
                                                        return true;
                                                      });
  if (keywordAssets.HasError()) return Fail(EXIT_FAILED, keywordAssets.GetError().ToString());
  std::vector<std::vector<std::string>> rows;
  for (const auto& [keyword, count] : counts) {
    std::string name = keyword == keywordids::favourite ? "(favourites)" : keyword.ToString();
    auto found = session.repository->FindLatestAsset(KeywordAssetInterface::TypeId(), keyword, Id(), NONE);
    if (found.HasValue() && *found) name = NameOrId(*found);
    rows.push_back({name, keyword.ToString(), std::to_string(count)});
  }
  std::sort(rows.begin(), rows.end());
  Table table;
  table.AddRow({"KEYWORD", "ID", "ASSETS"});
  for (auto& row : rows) table.AddRow(std::move(row));
  std::cout << table.Format();
  return EXIT_OK;
}

// The category Id that CAT names: "-" for the top level.
int ResolveCategory(Session& session, const std::string& text, Id& category) {
  if (text == "-") {
    category = Id();
    return EXIT_OK;
  }
  int code = EXIT_OK;
  AssetDescription found = FindTyped(session, CategoryAssetInterface::TypeId(), text, "category", code);
  if (code != EXIT_OK) return code;
  if (!found) return Fail(EXIT_NOT_FOUND, "no category '" + text + "'");
  category = found->GetIdAndVersion().first;
  return EXIT_OK;
}

int CmdCategory(const CommandLine& line, Session& session) {
  const std::string& sub = line.args[0];
  if (sub == "tree") {
    if (line.args.size() != 1) return Fail(EXIT_USAGE, "'category tree' takes no arguments");
    auto tree = BuildCategoryTree(session.repository, nullptr);
    if (tree.HasError()) return Fail(EXIT_FAILED, tree.GetError().ToString());
    const std::string text = FormatCategoryTree(*tree);
    std::cout << (text.empty() ? "(no categories, no assets)\n" : text);
    return EXIT_OK;
  }
  if (sub == "new") {
    if (line.args.size() != 2) return Fail(EXIT_USAGE, "'category new' needs a NAME");
    Id parent;
    if (auto given = line.Get("parent"))
      if (int code = ResolveCategory(session, *given, parent); code != EXIT_OK) return code;
    auto aid = AssetInterface::MakeUuid("category", false);
    if (aid.HasError()) return Fail(EXIT_FAILED, aid.GetError().ToString());
    auto meta = std::make_shared<AssetMetaDataImpl>();
    if (!parent.IsEmpty()) meta->AddEntry(categoryids::parent, AssetMetaData::PERSISTENT, Data(parent));
    auto stored = session.repository->StoreAsset(*aid, CategoryAssetInterface::Create(), meta);
    if (stored.HasError()) return Fail(EXIT_FAILED, "can't make the category: " + stored.GetError().ToString());
    if (auto named = (*stored)->StoreMetaString(stringkeys::name, line.args[1], Language::GetDefaultLanguage());
        named.HasError())
      return Fail(EXIT_FAILED, "made " + aid->ToString() + " but can't name it: " + named.GetError().ToString());
    std::cout << aid->ToString() << "\n";
    return EXIT_OK;
  }
  if (sub == "move") {
    if (line.args.size() != 3) return Fail(EXIT_USAGE, "'category move' needs an ID and a CAT");
    int code = EXIT_OK;
    AssetDescription target = FindTarget(session, line.args[1], code);
    if (!target) return code;
    Id category;
    if (code = ResolveCategory(session, line.args[2], category); code != EXIT_OK) return code;
    if (auto moved = CategoryAssetInterface::MoveToCategory(target, category, session.repository); moved.HasError())
      return Fail(EXIT_FAILED, "can't move " + line.args[1] + ": " + moved.GetError().GetMessage());
    return EXIT_OK;
  }
  return Fail(EXIT_USAGE, "unknown category subcommand '" + sub + "' (see 'kasset category --help')");
}

int CmdColor(const CommandLine& line, Session& session) {
  int code = EXIT_OK;
  AssetDescription target = FindTarget(session, line.args[0], code);
  if (!target) return code;
  Id category;
  if (line.args[1] != "none") {
    // Check the name before anything is stored.
    auto provided = ColorCategoryAssetInterface::ProvideStandardColorCategory(line.args[1], session.repository);
    if (provided.HasError()) return Fail(EXIT_USAGE, provided.GetError().GetMessage());
    category = (*provided)->GetIdAndVersion().first;
  }
  if (auto set = ColorCategoryAssetInterface::SetColorCategory(target, category); set.HasError())
    return Fail(EXIT_FAILED, set.GetError().ToString());
  return EXIT_OK;
}

std::string ColorText(const LinearColor& color) {
  char text[64];
  std::snprintf(text, sizeof(text), "%.3f %.3f %.3f", color[0], color[1], color[2]);
  return text;
}

} // namespace

std::vector<std::vector<std::string>> TypedAssetRows(const AssetDescription& asset, const Session& session) {
  std::vector<std::vector<std::string>> rows;
  if (!asset || asset->IsDeleted()) return rows;
  auto user = asset->GetMetaData()->GetValue<DataArray>(keywordids::userkeywords);
  auto shared = asset->GetMetaData()->GetValue<DataArray>(keywordids::keywords);
  std::string keywords;
  auto add = [&](const std::vector<Id>& ids, const char* mark) {
    for (const Id& id : ids) {
      auto found = session.repository->FindLatestAsset(KeywordAssetInterface::TypeId(), id, Id(), NONE);
      const std::string name = found.HasValue() && *found ? NameOrId(*found) : id.ToString();
      keywords += (keywords.empty() ? "" : ", ") + name + mark;
    }
  };
  if (user.HasValue()) add(IdsOf(*user), " (user)");
  if (shared.HasValue()) add(IdsOf(*shared), "");
  if (!keywords.empty()) rows.push_back({"keywords:", keywords});
  auto parent = CategoryAssetInterface::GetParentCategory(asset);
  if (parent.HasValue() && !parent->IsEmpty()) {
    auto crumbs = CategoryAssetInterface::GetAssetBreadcrumbString(asset, session.repository);
    std::string path;
    if (crumbs.HasValue())
      for (const std::string& c : *crumbs) path += (path.empty() ? "" : " > ") + c;
    rows.push_back({"category:", path.empty() ? parent->ToString() + " (not found)" : path});
  }
  const ColorCategoryTag color = ColorCategoryAssetInterface::GetColorCategory(asset, session.repository);
  if (!color.category.IsEmpty()) {
    auto found = session.repository->FindLatestAsset(ColorCategoryAssetInterface::TypeId(), color.category, Id(), NONE);
    const std::string name = found.HasValue() && *found ? NameOrId(*found) : color.category.ToString();
    rows.push_back({"color:", name + " (" + ColorText(color.color) + ")"});
  }
  return rows;
}

const std::vector<CommandSpec>& GetTypesCommands() {
  static const std::vector<OptionSpec> userOption{{"user", "", "the user's own keywords, kept out of the repository"}};
  static const std::vector<CommandSpec> commands{
      {"tag", "ID KEYWORD", 2, 2, "Tag an asset with a keyword (--user: as the user's own keyword).",
       "KEYWORD is the Id or the name of a keyword asset. With --new a keyword that doesn't exist\n"
       "is made, with KEYWORD as its Id and name. A keyword stands in one scope only: the\n"
       "repository's keywords, or with --user the user's, kept in <GLOBALPREFS>/_assets/user.db.",
       {{"user", "", "tag for this user only"}, {"new", "", "make the keyword when there is none"}}},
      {"untag", "ID KEYWORD", 2, 2, "Take a keyword off an asset (--user: one of the user's keywords).", "",
       userOption},
      {"favorite", "ID", 1, 1, "Mark an asset as one of the user's favourites.", "", {}},
      {"unfavorite", "ID", 1, 1, "Take an asset out of the user's favourites.", "", {}},
      {"keywords", "", 0, 0, "List every keyword with the number of assets that carry it.", "", {}},
      {"category", "new NAME | move ID CAT | tree", 1, 3, "Make categories, move assets into them, show the tree.",
       "'category new NAME' makes a category and prints its Id (--parent CAT puts it inside CAT).\n"
       "'category move ID CAT' puts the asset or category ID into CAT ('-': the top level); a\n"
       "category can't move into itself or into a category inside it. 'category tree' prints the\n"
       "categories indented by level, each with the number of assets in it and, where it has\n"
       "subcategories, in all. CAT is a category's Id or its name.",
       {{"parent", "CAT", "category new: the category to put the new one in"}}},
      {"color", "ID COLOR", 2, 2, "Tag an asset with a color: red, orange, yellow, green, blue, purple, gray, none.",
       "The color category asset is made in the repository on first use.", {}},
  };
  return commands;
}

bool IsTypesCommand(const std::string& command) {
  for (const CommandSpec& c : GetTypesCommands())
    if (c.name == command) return true;
  return false;
}

int RunTypesCommand(const CommandLine& line, Session& session) {
  const std::string& c = line.command;
  if (c == "tag") return CmdTag(line, session, true);
  if (c == "untag") return CmdTag(line, session, false);
  if (c == "favorite" || c == "unfavorite")
    return ChangeKeyword(session, line.args[0], keywordids::favourite, true, c == "favorite");
  if (c == "keywords") return CmdKeywords(session);
  if (c == "category") return CmdCategory(line, session);
  return CmdColor(line, session);
}

} // namespace kasset
