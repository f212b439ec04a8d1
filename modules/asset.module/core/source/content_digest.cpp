// The content of an asset and its digest: a file, or a directory tree walked without links.

#include "asset/core/content_digest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <vector>

#include "kelvo/ramdisk.h"

namespace kelvo {

std::string DigestToHex(const Digest& digest) { return ToHex(digest.data(), digest.size()); }

namespace {

// Closes a descriptor when it goes.
struct FileGuard {
  int fd = -1;
  ~FileGuard() {
    if (fd >= 0) ::close(fd);
  }
};

// The local fast path: each chunk is read once for the hash and copied inside the kernel (no
// copy through this process). Nothing when it doesn't apply, so the caller takes the streams.
std::optional<Result<Digest>> HashAndCopyLocalFile(const Url& source, const Url& destination) {
  if (source.GetScheme() != "file" || (!destination.IsEmpty() && destination.GetScheme() != "file")) return std::nullopt;
  FileGuard in;
  // O_NONBLOCK: a FIFO is refused below instead of waiting for a writer.
  in.fd = ::open(source.GetPath().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (in.fd < 0) return std::nullopt;
  struct stat st{};
  if (::fstat(in.fd, &st) != 0) return std::nullopt;
  if (!S_ISREG(st.st_mode)) return Result<Digest>(IoError("Can't read @: it is no regular file.", source));
  FileGuard out;
  if (!destination.IsEmpty()) {
    out.fd = ::open(destination.GetPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out.fd < 0) return Result<Digest>(IoError("Can't open @ for writing: @", destination, std::strerror(errno)));
  }
  constexpr std::size_t kChunk = 4 << 20;
  const std::uint64_t size = static_cast<std::uint64_t>(st.st_size);
  if (size > kChunk) ::posix_fadvise(in.fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  Sha256 hash;
  // A small file is read by one call into a buffer one byte larger than it: the short read at the
  // size from fstat ends the loop without a further call (a file that grew is read on).
  std::vector<std::uint8_t> buffer(static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, size + 1)));
  bool kernelCopy = true;
  loff_t inOffset = 0, outOffset = 0;
  for (;;) {
    const ssize_t n = ::pread(in.fd, buffer.data(), buffer.size(), inOffset);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Result<Digest>(IoError("Can't read @: @", source, std::strerror(errno)));
    if (n == 0) break;
    hash.Update(buffer.data(), static_cast<std::size_t>(n));
    const bool last = static_cast<std::size_t>(n) < buffer.size() && static_cast<std::uint64_t>(inOffset + n) >= size;
    if (out.fd < 0) {
      inOffset += n;
      if (last) break;
      continue;
    }
    std::size_t done = 0;
    while (done < static_cast<std::size_t>(n)) {
      ssize_t copied;
      if (kernelCopy) {
        loff_t from = inOffset + static_cast<loff_t>(done);
        copied = ::copy_file_range(in.fd, &from, out.fd, &outOffset, static_cast<std::size_t>(n) - done, 0);
        if (copied < 0 && outOffset == 0 &&
            (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP)) {
          kernelCopy = false; // not between these files: write what was read
          continue;
        }
      } else {
        copied = ::write(out.fd, buffer.data() + done, static_cast<std::size_t>(n) - done);
        if (copied > 0) outOffset += copied;
      }
      if (copied < 0 && errno == EINTR) continue;
      if (copied <= 0) return Result<Digest>(IoError("Can't write @: @", destination, std::strerror(errno)));
      done += static_cast<std::size_t>(copied);
    }
    inOffset += n;
    if (last) break;
  }
  if (out.fd >= 0) {
    const int fd = out.fd;
    out.fd = -1;
    if (::close(fd) != 0) return Result<Digest>(IoError("Can't close @: @", destination, std::strerror(errno)));
  }
  return Result<Digest>(hash.Finish());
}

} // namespace

Result<Digest> HashAndCopyFile(const Url& source, const Url& destination) {
  if (auto fast = HashAndCopyLocalFile(source, destination)) return std::move(*fast);
  KELVO_ASSIGN_OR_RETURN(std::unique_ptr<InputStream> in, source.OpenInputStream());
  std::unique_ptr<OutputStream> out;
  if (destination.IsEmpty()) {
    out = NewNullOutputStream();
  } else {
    KELVO_ASSIGN_OR_RETURN(out, destination.OpenOutputStream());
  }
  OutputStreamHasher hasher(std::move(out));
  KELVO_RETURN_ON_ERROR(CopyStream(*in, hasher));
  KELVO_RETURN_ON_ERROR(hasher.Close());
  return hasher.GetDigest();
}

namespace {

// Orders names as letters first: case-insensitively by ASCII letter, then by the bytes, so that
// "a" sorts before "B" and "A" before "a". Bytes beyond ASCII compare by value, which for UTF-8
// is code point order.
bool LetterOrderLess(const std::string& a, const std::string& b) {
  auto fold = [](unsigned char c) { return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + 32) : c; };
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    const unsigned char x = fold(static_cast<unsigned char>(a[i]));
    const unsigned char y = fold(static_cast<unsigned char>(b[i]));
    if (x != y) return x < y;
  }
  if (a.size() != b.size()) return a.size() < b.size();
  return a < b;
}

struct Child {
  std::string name;
  Url url;
};

// The entries of a directory in letter order, symbolic links left out. For "file" URLs the link
// test comes from the listing itself and never follows the link.
Result<std::vector<Child>> ListChildren(const Url& dir) {
  std::vector<Child> children;
  if (dir.GetScheme() == "file") {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::directory_iterator it(dir.GetPath(), ec), end;
    if (ec) return IoError("Can't list @: @", dir, ec.message());
    for (; it != end; it.increment(ec)) {
      if (ec) return IoError("Can't list @: @", dir, ec.message());
      std::error_code linkError;
      if (it->is_symlink(linkError) || linkError) continue;
      std::string name = it->path().filename().string();
      Url url = dir.Append(name);
      children.push_back(Child{std::move(name), std::move(url)});
    }
  } else {
    KELVO_ASSIGN_OR_RETURN(std::vector<Url> urls, dir.IoBrowse());
    for (Url& url : urls) children.push_back(Child{url.GetName(), std::move(url)});
  }
  std::sort(children.begin(), children.end(), [](const Child& a, const Child& b) { return LetterOrderLess(a.name, b.name); });
  return children;
}

bool IsInside(const Url& inner, const Url& outer) {
  if (inner.GetScheme() != "file" || outer.GetScheme() != "file") return false;
  std::error_code ec;
  const auto a = std::filesystem::weakly_canonical(inner.GetPath(), ec);
  if (ec) return false;
  const auto b = std::filesystem::weakly_canonical(outer.GetPath(), ec);
  if (ec) return false;
  auto [end, _] = std::mismatch(b.begin(), b.end(), a.begin(), a.end());
  return end == b.end();
}

Result<void> CopyFile(const Url& from, const Url& to) {
  KELVO_ASSIGN_OR_RETURN(std::unique_ptr<InputStream> in, from.OpenInputStream());
  KELVO_ASSIGN_OR_RETURN(std::unique_ptr<OutputStream> out, to.OpenOutputStream());
  KELVO_RETURN_ON_ERROR(CopyStream(*in, *out));
  return out->Close();
}

// One walk for both entry points: digest is null when nobody wants it.
Result<void> WalkContent(const Url& source, const Url& destination, const FileCopier& copier, Digest* digest) {
  switch (source.IoDetect()) {
  case IODETECT::FILE:
    if (digest) {
      KELVO_ASSIGN_OR_RETURN(*digest, HashAndCopyFile(source, destination));
      return {};
    }
    if (destination.IsEmpty()) return {};
    return copier ? copier(source, destination) : CopyFile(source, destination);
  case IODETECT::DIRECTORY: {
    if (!destination.IsEmpty() && IsInside(destination, source))
      return IllegalArgumentError("Can't copy @ into itself (@).", source, destination);
    if (!destination.IsEmpty()) KELVO_RETURN_ON_ERROR(destination.IoCreateDirectory(true));
    KELVO_ASSIGN_OR_RETURN(std::vector<Child> children, ListChildren(source));
    OutputStreamHasher listing(NewNullOutputStream());
    for (const Child& child : children) {
      Digest childDigest{};
      KELVO_RETURN_ON_ERROR(WalkContent(child.url, destination.IsEmpty() ? Url() : destination.Append(child.name),
                                        copier, digest ? &childDigest : nullptr));
      if (!digest) continue;
      const std::string line = DigestToHex(childDigest) + "  " + child.name + "\n";
      KELVO_RETURN_ON_ERROR(listing.Write(line.data(), line.size()));
    }
    if (!digest) return {};
    KELVO_RETURN_ON_ERROR(listing.Close());
    *digest = listing.GetDigest();
    return {};
  }
  case IODETECT::NONE: break;
  }
  return IoError("Can't read @: there is no file or directory.", source);
}

} // namespace

Result<Digest> HashContent(const Url& source, const Url& destination) {
  Digest digest{};
  KELVO_RETURN_ON_ERROR(WalkContent(source, destination, nullptr, &digest));
  return digest;
}

Result<void> CopyContent(const Url& source, const Url& destination, const FileCopier& copier) {
  return WalkContent(source, destination, copier, nullptr);
}

Result<void> CheckMirroredContent(const Url& content, const Id& versionId) {
  if (content.GetScheme() != kRamDiskScheme || versionId.View().size() != 2 * sizeof(Digest) ||
      content.IoDetect() != IODETECT::FILE)
    return {};
  return RamDiskService::CheckMirroredFile(content, [&](const Url&, const Url& mirrored) -> Result<void> {
    KELVO_ASSIGN_OR_RETURN(const Digest digest, HashContent(mirrored, Url()));
    const std::string actual = DigestToHex(digest);
    if (actual == versionId.View()) return {};
    return FileFormatError("The content of @ does not match its version Id @ (its SHA-256 is @); it was not kept.",
                           content, versionId, actual);
  });
}

} // namespace kelvo
