#pragma once
// The content digest of an asset and the copy of its content: one file, or a directory tree.
// Stores and rescans of every back end go through these functions, so that one content always
// gets one version Id.

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "kelvo/hash.h"
#include "kelvo/id.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

// A SHA-256 digest: the version Id of a stored content is its hex form.
using Digest = std::array<std::uint8_t, 32>;

// Copies one file in place of the plain byte copy (a repository's encryption, say).
using FileCopier = std::function<Result<void>(const Url& from, const Url& to)>;

// Copies source to destination, unless destination is empty, and returns the digest of source:
// for a file the SHA-256 of its bytes; for a directory the SHA-256 of its listing, one line per
// entry in letter order ("a" < "B" < "b"): hex digest, two blanks, name as it is, LF. Hidden
// entries count; symbolic links are neither followed nor copied, so a tree can neither lead out
// of itself nor loop. Errors: source missing or not a file or directory, destination inside
// source, I/O errors (a partial copy stays for the caller to remove). Any thread.
Result<Digest> HashContent(const Url& source, const Url& destination);
// The same copy without the digest; copier, when set, copies each file.
Result<void> CopyContent(const Url& source, const Url& destination, const FileCopier& copier = nullptr);
// The SHA-256 of one file, copied to destination at the same time unless that is empty. Local
// files are read once and copied inside the kernel; other URLs go through streams.
Result<Digest> HashAndCopyFile(const Url& source, const Url& destination);
std::string DigestToHex(const Digest& digest);

// Content of a remote database, read from the mirror of its RAM disk ("ramdisk" URLs; others
// pass), is checked against its version Id before its first use in a process: a download cut
// short by a crash may have left it torn, and a server may have served something else. A copy
// that fails is removed, so the next read fetches it again, and the error says so. A content
// directory, or a version Id that is no SHA-256, is left to the download's own check.
Result<void> CheckMirroredContent(const Url& content, const Id& versionId);

} // namespace kelvo
