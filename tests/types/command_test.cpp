// Command assets: execution and state through delegates, scopes stored on disk, types, and the
// legacy tables.

#include "asset/types/command_asset.h"
#include "asset/types/marker_assets.h"
#include "types_fixture.h"

namespace kelvo::testing {
namespace {

class CommandTest : public TypesTest {
protected:
  // Puts delegates into the command's metadata as the host does: in memory only (kind NONE).
  void Attach(const AssetDescription& command, COMMAND_ASSET_STATE state) {
    _state = state;
    auto query = std::make_shared<const std::function<Result<COMMAND_ASSET_STATE>()>>(
        [this]() -> Result<COMMAND_ASSET_STATE> { return _state; });
    auto execute = std::make_shared<const std::function<Result<void>(bool)>>([this](bool withOptions) -> Result<void> {
      _calls.push_back(withOptions);
      return {};
    });
    auto repo = command->GetRepository();
    ASSERT_TRUE(repo->StoreMetaData(command, commandids::querystate, Data(CommandQueryStateDelegate{query}), 0).HasValue());
    ASSERT_TRUE(repo->StoreMetaData(command, commandids::execute, Data(CommandExecuteDelegate{execute}), 0).HasValue());
  }
  COMMAND_ASSET_STATE _state = COMMAND_NONE;
  std::vector<bool> _calls;
};

TEST_F(CommandTest, ExecuteFollowsTheStateTheHostReports) {
  auto repo = Open();
  AssetDescription command = Store(repo, "extrude", CommandAssetInterface::Create(), "Extrude");
  // Without delegates: clear errors.
  auto noQuery = CommandAssetInterface::QueryState(command);
  ASSERT_TRUE(noQuery.HasError());
  EXPECT_EQ(noQuery.GetError().GetMessage(), "Command asset error: no query delegate");
  EXPECT_TRUE(CommandAssetInterface::Execute(command, false).HasError());

  Attach(command, COMMAND_NONE);
  // Disabled: success, and nothing runs.
  ASSERT_TRUE(CommandAssetInterface::Execute(command, true).HasValue());
  EXPECT_TRUE(_calls.empty());
  _state = ENABLED;
  ASSERT_TRUE(CommandAssetInterface::Execute(command, true).HasValue());
  _state = COMMAND_ASSET_STATE(ENABLED | HAS_OPTIONS);
  ASSERT_TRUE(CommandAssetInterface::Execute(command, true).HasValue());
  ASSERT_TRUE(CommandAssetInterface::Execute(command, false).HasValue());
  EXPECT_EQ(_calls, (std::vector<bool>{false, true, false}));
  EXPECT_EQ(CommandAssetInterface::QueryState(command).GetValue(), ENABLED | HAS_OPTIONS);

  // The delegates are found through a fresh description of the same repository object.
  EXPECT_EQ(CommandAssetInterface::QueryState(Latest(repo, "extrude")).GetValue(), ENABLED | HAS_OPTIONS);
  // Nothing of them reaches the disk.
  EXPECT_FALSE(HasFileNamed(Dir("main"), "querystate"));

  AssetDescription text = Store(repo, "text", MakeText("t"));
  auto wrongType = CommandAssetInterface::Execute(text, false);
  ASSERT_TRUE(wrongType.HasError());
  EXPECT_EQ(wrongType.GetError().GetMessage(), "Asset input argument must be of type: 'net.kelvo.assettype.command'");
  EXPECT_TRUE(CommandAssetInterface::QueryState(nullptr).HasError());
}

TEST_F(CommandTest, ScopesAndTypesAreStoredAndNamed) {
  auto repo = Open();
  AssetDescription command = Store(repo, "cube", CommandAssetInterface::Create(), "Cube");
  EXPECT_EQ(CommandAssetInterface::GetCommandScopeNames(command).GetValue(), std::vector<std::string>{"Other"});
  EXPECT_EQ(CommandAssetInterface::GetLegacyId(command).GetValue(), -1);

  std::vector<Id> scopes;
  EXPECT_TRUE(CommandAssetInterface::AddCommandScope(Id("net.kelvo.asset.command.scope.viewport"), scopes));
  EXPECT_TRUE(CommandAssetInterface::AddCommandScope(Id("net.kelvo.asset.command.scope.model"), scopes));
  EXPECT_TRUE(CommandAssetInterface::AddCommandScope(Id("custom.one"), scopes));
  EXPECT_TRUE(CommandAssetInterface::AddCommandScope(Id("custom.two"), scopes));
  EXPECT_FALSE(CommandAssetInterface::AddCommandScope(Id("custom.two"), scopes));
  EXPECT_FALSE(CommandAssetInterface::EraseCommandScope(Id("custom.three"), scopes));
  ASSERT_TRUE(CommandAssetInterface::StoreCommandScopes(command, scopes).HasValue());
  ASSERT_TRUE(repo->StoreMetaData(command, commandids::legacyscope, Data(std::string("mode 10")),
                                  AssetMetaData::PERSISTENT).HasValue());
  ASSERT_TRUE(repo->StoreMetaData(command, commandids::legacyid, Data(std::int64_t(5159)),
                                  AssetMetaData::PERSISTENT).HasValue());
  ASSERT_TRUE(SubTypeAssetInterface::SetSubType(command, Id("net.kelvo.asset.command.type.object.primitive")).HasValue());
  Store(repo, "net.kelvo.asset.command.type.object.primitive", SubTypeAssetInterface::Create(), "Primitive");

  repo.reset();
  repo = Open();
  AssetDescription cube = Latest(repo, "cube");
  EXPECT_EQ(CommandAssetInterface::GetCommandScopes(cube).GetValue(), scopes);
  EXPECT_TRUE(CommandAssetInterface::ContainsCommandScope(cube, Id("custom.one")).GetValue());
  EXPECT_FALSE(CommandAssetInterface::ContainsCommandScope(cube, Id("net.kelvo.asset.command.scope.mesh")).GetValue());
  // Unknown scopes are "Other" each; the legacy scope joins; numbers sort by value.
  EXPECT_EQ(CommandAssetInterface::GetCommandScopeNames(cube).GetValue(),
            (std::vector<std::string>{"mode 10", "Model", "Other", "Other", "Viewport"}));
  EXPECT_EQ(CommandAssetInterface::GetLegacyId(cube).GetValue(), 5159);
  const Id type = CommandAssetInterface::GetCommandType(cube).GetValue();
  EXPECT_TRUE(CommandAssetInterface::AssetIsObjectCommandType(cube).GetValue());
  EXPECT_EQ(CommandAssetInterface::GetCommandTypeName(type, repo).GetValue(), "Primitive");
  EXPECT_EQ(CommandAssetInterface::GetCommandTypeName(Id("net.kelvo.asset.command.type.tool"), repo).GetValue(),
            "net.kelvo.asset.command.type.tool");
  EXPECT_FALSE(CommandAssetInterface::IsObjectCommandType(Id("net.kelvo.asset.command.type.object")));
}

TEST_F(CommandTest, LegacyTablesReplaceEntriesAndEmptyAtTheEnd) {
  CommandAssetInterface::RegisterLegacyCommandScopes(100, {Id("a")});
  CommandAssetInterface::RegisterLegacyCommandScopes(100, {Id("b"), Id("c")});
  CommandAssetInterface::RegisterLegacyCommandType(-7, Id("net.kelvo.asset.command.type.tag"));
  EXPECT_EQ(CommandAssetInterface::GetRegisteredLegacyCommandScopes(100), (std::vector<Id>{Id("b"), Id("c")}));
  EXPECT_TRUE(CommandAssetInterface::GetRegisteredLegacyCommandScopes(101).empty());
  EXPECT_EQ(CommandAssetInterface::GetRegisteredLegacyCommandType(-7), Id("net.kelvo.asset.command.type.tag"));
  CommandAssetInterface::PrivateClearLegacyTables();
  EXPECT_TRUE(CommandAssetInterface::GetRegisteredLegacyCommandScopes(100).empty());
  EXPECT_TRUE(CommandAssetInterface::GetRegisteredLegacyCommandType(-7).IsEmpty());
}

} // namespace
} // namespace kelvo::testing
