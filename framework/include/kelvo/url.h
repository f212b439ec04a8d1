#pragma once
// Url: a scheme and a path, with attached data, and I/O through the handler registered for the
// scheme ("file" is built in; other components register theirs with RegisterIoHandler).
//
// Text form: "scheme://" + path for paths that begin with "/" ("file:///tmp/a"), otherwise
// "scheme:///" + path ("asset:///myid~.png"); a query after "?" is kept as attached data under
// the key "net.kelvo.url.query". A text without "://" is a plain file path.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/id.h"
#include "kelvo/result.h"

namespace kelvo {

class Data;
class DataDictionary;
class InputStream;
class OutputStream;

namespace urlkeys {
inline const Id query{"net.kelvo.url.query"};
}

enum class IODETECT { NONE, FILE, DIRECTORY };

class Url {
public:
  Url() = default;
  // Parses the text form above.
  explicit Url(std::string_view text);
  Url(std::string scheme, std::string path);
  static Url FromFile(std::string_view path);

  bool IsEmpty() const { return _scheme.empty() && _path.empty(); }
  const std::string& GetScheme() const { return _scheme; }
  const std::string& GetPath() const { return _path; }
  void SetScheme(std::string scheme) { _scheme = std::move(scheme); }
  void SetPath(std::string path) { _path = std::move(path); }
  // The last path component.
  std::string GetName() const;
  void SetName(std::string_view name);
  // The text after the last "." of the name; empty when there is none.
  std::string GetSuffix() const;
  void SetSuffix(std::string_view suffix);
  // This URL with the last component removed. A scheme's handler may give its paths a form of
  // their own (IoHandler::RemoveUrl and AppendUrl).
  Url GetDirectory() const;
  // Joins a relative path ("a/b") with "/".
  Url Append(std::string_view relative) const;
  void AppendInPlace(std::string_view relative);
  // The plain path operations, whatever the scheme's handler does.
  Url GetDirectoryPlain() const;
  void AppendPlainInPlace(std::string_view relative);
  // Scheme, path and query; other attached data does not take part.
  std::string ToString() const;
  // Compares scheme and path (and query), case sensitively. <0, 0, >0.
  int Compare(const Url& other) const;
  friend bool operator==(const Url& a, const Url& b) { return a.Compare(b) == 0; }

  // Attached data, carried with the URL and shared by its copies until changed.
  Data GetData(const Id& key) const;
  void SetData(const Id& key, const Data& value);
  void EraseData(const Id& key);
  std::string GetQuery() const;
  void SetQuery(std::string_view query);

  // I/O through the scheme's handler. Each returns an io error when the handler fails and an
  // unsupported operation error when no handler is registered for the scheme.
  IODETECT IoDetect() const;
  Result<void> IoCreateDirectory(bool recursive = true) const;
  // Deletes a file or, with recursive, a directory tree. A missing target is not an error.
  Result<void> IoDelete(bool recursive = false) const;
  // The children of a directory as URLs, in no particular order.
  Result<std::vector<Url>> IoBrowse() const;
  Result<void> IoRename(const Url& to) const;
  Result<std::unique_ptr<InputStream>> OpenInputStream() const;
  Result<std::unique_ptr<OutputStream>> OpenOutputStream() const;
  Result<std::string> ReadAll() const;
  // Writes the whole content. "file" URLs go through a hidden temporary name in the same directory
  // and a rename, so a reader sees the old or the new content, never a part; other schemes write
  // in place. Errors: I/O errors, with the temporary file removed.
  Result<void> WriteAll(std::string_view content) const;
  // The physical URL behind this one: itself for "file", the resolved target for others.
  Result<Url> Normalize() const;
  // The text a user interface shows for this URL (the handler's; by default ToString()). The
  // meaning of flags belongs to each scheme.
  Result<std::string> ConvertToUiName(std::uint32_t flags = 0) const;

private:
  std::string _scheme;
  std::string _path;
  std::shared_ptr<const DataDictionary> _data;
};

inline std::string ToString(const Url& u) { return u.ToString(); }

// Byte streams. REQUIRES: external synchronization.
class InputStream {
public:
  virtual ~InputStream() = default;
  // Reads up to size bytes; 0 at the end.
  virtual Result<std::size_t> Read(void* buffer, std::size_t size) = 0;
  virtual Result<std::uint64_t> GetSize() = 0;
};

class OutputStream {
public:
  virtual ~OutputStream() = default;
  virtual Result<void> Write(const void* data, std::size_t size) = 0;
  // Flushes and closes; the content is complete only after a successful Close.
  virtual Result<void> Close() = 0;
};

// An output stream that drops what it is given.
std::unique_ptr<OutputStream> NewNullOutputStream();

// text with every byte except letters, digits, "-._~" and the bytes in keep written as "%XX".
std::string PercentEncode(std::string_view text, std::string_view keep = {});

// Copies all of in to out in one pass. Does not close out.
Result<std::uint64_t> CopyStream(InputStream& in, OutputStream& out);

// The operations of one URL scheme. Handlers are registered once and live for the process.
class IoHandler {
public:
  virtual ~IoHandler() = default;
  virtual std::string GetUrlScheme() const = 0;
  virtual IODETECT IoDetect(const Url& url) const = 0;
  virtual Result<void> IoCreateDirectory(const Url& url, bool recursive) const;
  virtual Result<void> IoDelete(const Url& url, bool recursive) const;
  virtual Result<std::vector<Url>> IoBrowse(const Url& url) const;
  virtual Result<void> IoRename(const Url& from, const Url& to) const;
  virtual Result<std::unique_ptr<InputStream>> OpenInputStream(const Url& url) const = 0;
  virtual Result<std::unique_ptr<OutputStream>> OpenOutputStream(const Url& url) const;
  virtual Result<Url> Normalize(const Url& url) const { return url; }
  // The path operations of Url::Append and Url::GetDirectory for this scheme; by default the
  // plain ones.
  virtual Url AppendUrl(const Url& url, std::string_view relative) const;
  virtual Url RemoveUrl(const Url& url) const { return url.GetDirectoryPlain(); }
  virtual Result<std::string> ConvertToUiName(const Url& url, std::uint32_t) const { return url.ToString(); }
};

// Registers a handler under its scheme, replacing any earlier one. Thread safe.
void RegisterIoHandler(std::shared_ptr<const IoHandler> handler);
void UnregisterIoHandler(std::string_view scheme);
std::shared_ptr<const IoHandler> FindIoHandler(std::string_view scheme);

} // namespace kelvo
