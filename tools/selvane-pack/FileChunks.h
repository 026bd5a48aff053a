// Reading a whole file as a stream of chunks, for digests and signatures of files of any size.
#ifndef SELVANE_PACK_FILECHUNKS_H
#define SELVANE_PACK_FILECHUNKS_H

#include <cstddef>
#include <functional>
#include <string>

namespace pack {

// Hands every byte of the file at path to consume, in order, in chunks of at most 64 KiB.
// Throws ToolError ("cannot read PATH: reason").
void readFileInChunks(const std::string& path,
                      const std::function<void(const unsigned char*, size_t)>& consume);

}  // namespace pack

#endif
