#pragma once
// The application's directories and version.
//
// Each directory comes from, in order of precedence: a URL set by the host with SetUrl (from its
// command-line options), an environment variable, or a default under the user's home:
//   LIBRARY_DIR                  KELVO_LIBRARY_DIR      $HOME/.local/share/kelvo/library
//   PREFS_DIR                    KELVO_PREFS_DIR        $HOME/.config/kelvo/prefs
//   GLOBALPREFS_DIR              KELVO_GLOBALPREFS_DIR  $HOME/.config/kelvo
//   CURRENT_MODULE_RESOURCE_DIR  KELVO_RESOURCE_DIR     $HOME/.local/share/kelvo/resource
//   TEMP_DIR                     KELVO_TEMP_DIR         $TMPDIR, or /tmp
// Empty variables count as unset. The environment is read on every call, so changes apply at
// once. The directories are not created here; their users create them when they write.

namespace kelvo {

class Url;

enum class APPLICATION_URLTYPE { LIBRARY_DIR, PREFS_DIR, GLOBALPREFS_DIR, CURRENT_MODULE_RESOURCE_DIR, TEMP_DIR };

class Application {
public:
  // The file URL of a directory, resolved as above; an empty URL for an unknown kind. Any
  // thread.
  static Url PrivateGetUrl(APPLICATION_URLTYPE kind);
  // Overrides a directory for the rest of the process; an empty URL removes the override.
  // Any thread.
  static void SetUrl(APPLICATION_URLTYPE kind, const Url& url);
  // The application's version number, 1.0 unless set. Any thread.
  static double GetVersion();
  static void SetVersion(double version);
};

} // namespace kelvo
