#pragma once
// The content digest of an asset and the copy of its content: one file, or a directory tree.
// Stores and rescans of every back end go through these functions, so that one content always
// gets one version Id.

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "kelvo/hash.h"
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

} // namespace kelvo
