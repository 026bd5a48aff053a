// What selvane-pack reports: every failure is a ToolError whose text is printed after the
// program's name, and the program exits with status 1.
#ifndef SELVANE_PACK_ERROR_H
#define SELVANE_PACK_ERROR_H

#include <stdexcept>
#include <string>

namespace pack {

class ToolError : public std::runtime_error {
 public:
  explicit ToolError(const std::string& what) : std::runtime_error(what) {}
};

// "what: strerror(error)".
[[noreturn]] void throwSystemError(const std::string& what, int error);

}  // namespace pack

#endif
