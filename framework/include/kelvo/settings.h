#pragma once
// User settings: a process-wide Id to Data map persisted as a JSON object in
// <GLOBALPREFS_DIR>/settings.json (see application.h).
//
// Values may be strings, bools, integers, float64s, and arrays and dictionaries of those (also
// nested). Integers are read back as int64 (as uint64 above the int64 range); float64s stay
// float64s. Other types are refused by Set. The file is read on first use and again whenever
// the settings directory changes; a missing file means no settings, an unreadable or corrupt one
// is reported as a warning and treated as empty. Safe for concurrent use by multiple threads.

#include "kelvo/data.h"
#include "kelvo/id.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

class Settings {
public:
  // The value under key; an empty Data when there is none.
  static Data Get(const Id& key);
  // Stores value under key and rewrites the file (via a temporary file and a rename, creating
  // the directory when needed); an empty Data removes the key. On failure nothing changes and
  // the result is an illegal argument error (empty key), an unsupported argument error (a type
  // the file can't hold, a non-finite number, text that is not UTF-8) or the I/O error.
  static Result<void> Set(const Id& key, const Data& value);
  // Drops what is in memory and reads the file again.
  static void Reload();
  // The file the settings live in.
  static Url GetFileUrl();
};

} // namespace kelvo
