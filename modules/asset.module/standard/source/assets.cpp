// Module start and end: the process-wide values (UUID salt, derived-data stamp, the three
// standard repositories), the module's registries and configuration variables, and the making of
// repositories from a URL.

#include <chrono>
#include <mutex>

#include "asset/standard/assets.h"
#include "asset/storage/database_asset.h"
#include "builtin_repository.h"
#include "kelvo/application.h"
#include "kelvo/log.h"
#include "asset/core/standard_asset_types.h"
#include "repository_factory.h"

namespace kelvo {


const Id g_assetRepositoryTypesRegistryId{"net.kelvo.registry.assetrepositorytypes"};
const Id g_builtinAssetLoaders2RegistryId{"net.kelvo.registry.builtinassetloaders2"};
const Id g_builtinAssetLoadersRegistryId{"net.kelvo.registry.builtinassetloaders"};

namespace {

// The build of this module, the second half of the derived-data stamp: derived values written by
// another build of the same application version are computed again.
constexpr const char* kModuleBuild = "kelvo.asset.1";

struct ModuleState {
  std::mutex lock;
  bool started = false;
  AssetRepositoryRef builtin;
  AssetRepositoryRef application;
  AssetRepositoryRef user;
};

ModuleState& State() {
  // Never destroyed: repositories may be asked for during static destruction of other units.
  static ModuleState* state = new ModuleState();
  return *state;
}

// A copy of one field of the module state, taken under the module lock.
template <class T>
T ReadState(T ModuleState::*field) {
  ModuleState& state = State();
  std::lock_guard guard(state.lock);
  return state.*field;
}

// Seconds of a monotonic clock, the source of the UUID salt.
double CustomTimer() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Result<void> RegisterModuleRegistries() {
  KELVO_RETURN_ON_ERROR(GetBuiltinAssetLoaders2());
  KELVO_RETURN_ON_ERROR(GetBuiltinAssetLoaders());
  KELVO_ASSIGN_OR_RETURN(auto types, GetRegistry<AssetRepositoryTypeInfo>(g_assetRepositoryTypesRegistryId));
  types->InsertEntry(repositorytypes::database,
                     AssetRepositoryTypeInfo{repositorytypes::database, "A repository in a directory tree.", {}});
  // The factory of this type comes from its own subsystem, which registers it after this start.
  if (!types->FindEntryValue(repositorytypes::watchfolder))
    types->InsertEntry(repositorytypes::watchfolder,
                       AssetRepositoryTypeInfo{repositorytypes::watchfolder, "A watched plain folder of files.", {}});
  return {};
}

// Releases everything that start made. REQUIRES: State().lock is held.
void ReleaseLocked(ModuleState& state) {
  state.user.reset();
  state.application.reset();
  state.builtin.reset();
  SetDerivedStamp({});
  state.started = false;
}

Result<void> StartLocked(ModuleState& state) {
  SetUuidSalt(ComputeUuidSalt(CustomTimer()));
  SetDerivedStamp(FormatString("@_@", Application::GetVersion(), kModuleBuild));
  KELVO_RETURN_ON_ERROR(RegisterModuleRegistries());
  KELVO_RETURN_ON_ERROR(RegisterStandardAssetTypes());
  RegisterDataBaseAssetType();
  RegisterAssetIoHandlers();

  state.builtin = BuiltinRepository::Create();

  const Url applicationDir = Application::PrivateGetUrl(APPLICATION_URLTYPE::LIBRARY_DIR).Append("assets/application");
  if (applicationDir.IoDetect() == IODETECT::DIRECTORY) {
    KELVO_ASSIGN_OR_RETURN(state.application,
                           AssetInterface::CreateRepositoryFromUrl(
                               repositoryids::application, repositorytypes::database, {state.builtin},
                               applicationDir, g_applicationRepositoryWritable.Get(), true, false));
  } else {
    DiagnosticOutput("applicationRepoDir not found: @", applicationDir);
  }

  const Url userDir = Application::PrivateGetUrl(APPLICATION_URLTYPE::PREFS_DIR).Append("userrepository");
  KELVO_RETURN_ON_ERROR(userDir.IoCreateDirectory(true));
  const AssetRepositoryRef userBase = state.application ? state.application : state.builtin;
  KELVO_ASSIGN_OR_RETURN(state.user, AssetInterface::CreateRepositoryFromUrl(repositoryids::userprefs,
                                                                             repositorytypes::database, {userBase},
                                                                             userDir, true, false, false));
  state.started = true;
  return {};
}

} // namespace

Result<std::shared_ptr<Registry<BuiltinAssetLoader2>>> GetBuiltinAssetLoaders2() {
  return GetRegistry<BuiltinAssetLoader2>(g_builtinAssetLoaders2RegistryId);
}

Result<std::shared_ptr<Registry<BuiltinAssetLoader>>> GetBuiltinAssetLoaders() {
  return GetRegistry<BuiltinAssetLoader>(g_builtinAssetLoadersRegistryId);
}

Result<void> PrivateStartStandardRepositories() {
  ModuleState& state = State();
  std::lock_guard guard(state.lock);
  if (state.started) return {};
  Result<void> r = StartLocked(state);
  if (r.HasError()) {
    ReleaseLocked(state);
    UnregisterAssetIoHandlers();
  }
  return r;
}

void PrivateEndStandardRepositories() {
  ModuleState& state = State();
  AssetRepositoryRef builtin, application, user;
  {
    std::lock_guard guard(state.lock);
    if (!state.started) return;
    // Moved out, so that the repositories go away without the module lock held.
    builtin = std::move(state.builtin);
    application = std::move(state.application);
    user = std::move(state.user);
    ReleaseLocked(state);
  }
  UnregisterAssetIoHandlers();
}

bool PrivateStandardRepositoriesStarted() { return ReadState(&ModuleState::started); }


AssetRepositoryRef AssetInterface::GetBuiltinRepository() { return ReadState(&ModuleState::builtin); }

AssetRepositoryRef AssetInterface::GetApplicationRepository() { return ReadState(&ModuleState::application); }

AssetRepositoryRef AssetInterface::GetUserPrefsRepository() { return ReadState(&ModuleState::user); }

Result<AssetRepositoryRef> AssetInterface::CreateRepositoryFromUrl(const Id& rid, const Id& repoType,
                                                                   const std::vector<AssetRepositoryRef>& bases,
                                                                   const Url& url, const RepositoryOptions& options) {
  if (repoType == repositorytypes::database) return OpenUrlRepository(rid, bases, url, options);
  KELVO_ASSIGN_OR_RETURN(auto types, GetRegistry<AssetRepositoryTypeInfo>(g_assetRepositoryTypesRegistryId));
  const std::optional<AssetRepositoryTypeInfo> info = types->FindEntryValue(repoType);
  if (!info) return IllegalArgumentError("Undefined repository type for url: @", url);
  if (!info->create)
    return UnsupportedOperationError("Repositories of type @ are not available in this build: can't open @.", repoType,
                                     url);
  return info->create(rid, bases, url, options.writable, options.derivedInPrefs, options.tempRepository);
}

} // namespace kelvo
