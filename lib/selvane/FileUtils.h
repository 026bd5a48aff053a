// File sizes and SHA-256 checks of single files and of sha256sum-style lists.
//
// None of these throw for a bad file or bad data: GetFileSize answers -1 and the checks answer
// false, logging the reason. Files are hashed as a stream through one 32 KiB buffer.
#ifndef SELVANE_FILEUTILS_H
#define SELVANE_FILEUTILS_H

#include <selvane/Export.h>

#include <cstdint>
#include <string>

namespace selvane {

// The file's size in bytes, cut to its low 32 bits, or -1 when it cannot be had.
SELVANE_EXPORT int32_t GetFileSize(const std::string& path);

// True when the file's SHA-256 digest equals expectedHex (64 hex digits, any case).
SELVANE_EXPORT bool VerifySHA256Sum(const std::string& path, std::string expectedHex);

// True when every "digest  path" entry of sumsFile names a file below root whose digest matches.
// Each path is resolved inside root as the root's own system sees it (OpenInRoot): absolute links
// and ".." stay inside root, and anything but a regular file there counts as a mismatch, without
// being opened for reading. An empty root takes the listed paths as they stand.
SELVANE_EXPORT bool VerifySHA256SumsFile(const std::string& sumsFile, const std::string& root);

}  // namespace selvane

#endif
