#include "FileChunks.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "Error.h"

namespace pack {

void readFileInChunks(const std::string& path,
                      const std::function<void(const unsigned char*, size_t)>& consume) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throwSystemError("cannot read " + path, errno);
  std::vector<unsigned char> chunk(65536);
  for (;;) {
    const ssize_t count = read(fd, chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      const int error = errno;
      close(fd);
      throwSystemError("cannot read " + path, error);
    }
    if (count == 0) break;
    consume(chunk.data(), static_cast<size_t>(count));
  }
  close(fd);
}

}  // namespace pack
