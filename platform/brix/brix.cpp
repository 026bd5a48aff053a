// The property store on a U-Boot environment. See brix.h for the rules it follows.
#include "brix.h"

#include <stddef.h>  // before libuboot.h, which uses size_t without including its definition

#include <libuboot.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

std::mutex g_configMutex;
std::string g_config;      // set by brix_set_config(); empty: environment variable or default
std::string g_initialEnv;  // likewise

std::string setting(const std::string& configured, const char* variable, const char* fallback) {
  std::lock_guard<std::mutex> lock(g_configMutex);
  if (!configured.empty()) return configured;
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0' ? value : fallback;
}

std::string configPath() { return setting(g_config, "BRIX_FW_ENV_CONFIG", BRIX_DEFAULT_CONFIG); }

std::string initialEnvPath() {
  return setting(g_initialEnv, "BRIX_INITIAL_ENV", BRIX_DEFAULT_INITIAL_ENV);
}

// One copy of the environment: a region of a file or block device.
struct EnvCopy {
  std::string device;
  long long offset;
  size_t size;
};

// The copies a fw_env.config names, read the way libubootenv reads them: "device offset size",
// the offset in any C notation, the size in hexadecimal, '#' lines ignored.
std::vector<EnvCopy> readCopies(const std::string& config) {
  std::vector<EnvCopy> copies;
  std::ifstream in(config);
  std::string line;
  while (std::getline(in, line) && copies.size() < 2) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<char> device(line.size() + 1);
    EnvCopy copy{"", 0, 0};
    if (std::sscanf(line.c_str(), "%s %lli %zx", device.data(), &copy.offset, &copy.size) < 3)
      continue;
    copy.device = device.data();
    copies.push_back(copy);
  }
  return copies;
}

// True when the copy holds nothing but erased bytes (all 0x00 or all 0xFF); false when it holds
// anything else or cannot be read.
bool isBlank(const EnvCopy& copy) {
  const int fd = open(copy.device.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::vector<unsigned char> data(copy.size);
  const ssize_t got = pread64(fd, data.data(), data.size(), static_cast<off64_t>(copy.offset));
  close(fd);
  if (got < 0 || static_cast<size_t>(got) != data.size() || data.empty()) return false;
  const unsigned char fill = data[0];
  if (fill != 0x00 && fill != 0xFF) return false;
  for (unsigned char byte : data)
    if (byte != fill) return false;
  return true;
}

// One use of the environment. libubootenv takes its lock file when the environment is opened and
// releases it when it is closed, so the lock is held for as long as this object lives.
class Environment {
 public:
  Environment() = default;
  ~Environment() {
    if (opened) libuboot_close(ctx);
    if (ctx != nullptr) libuboot_exit(ctx);
  }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  // Opens the configured environment, applying the first-boot rule when no copy is valid.
  // Returns a BRIX status.
  int open() {
    const std::string config = configPath();
    const std::vector<EnvCopy> copies = readCopies(config);
    if (copies.empty()) return BRIX_ERR_NO_CONFIG;
    if (libuboot_initialize(&ctx, nullptr) < 0) {
      ctx = nullptr;
      return BRIX_ERR_UNREADABLE;
    }
    // The configuration parsed; a failure here means a copy's device cannot be used.
    if (libuboot_read_config(ctx, config.c_str()) < 0) return BRIX_ERR_UNREADABLE;
    opened = true;
    const int result = libuboot_open(ctx);
    if (result == 0) return BRIX_OK;
    if (result != -ENODATA) return BRIX_ERR_UNREADABLE;
    bool firstBoot = false;
    for (const EnvCopy& copy : copies) firstBoot = firstBoot || isBlank(copy);
    if (!firstBoot) return BRIX_ERR_UNREADABLE;
    const std::string initial = initialEnvPath();
    if (access(initial.c_str(), F_OK) == 0 && libuboot_load_file(ctx, initial.c_str()) < 0)
      return BRIX_ERR_UNREADABLE;
    return BRIX_OK;
  }

  uboot_ctx* get() const { return ctx; }

 private:
  uboot_ctx* ctx = nullptr;
  bool opened = false;
};

bool acceptableKey(const char* key) { return *key != '\0' && std::strchr(key, '=') == nullptr; }

}  // namespace

extern "C" int brix_get_property(const char* key, char* buffer, int size) {
  if (key == nullptr || buffer == nullptr || size < 1) return BRIX_ERR_ARGUMENT;
  if (!acceptableKey(key)) return BRIX_ERR_KEY;
  Environment env;
  const int status = env.open();
  if (status != BRIX_OK) return status;
  std::unique_ptr<char, decltype(&std::free)> value(libuboot_get_env(env.get(), key), &std::free);
  if (!value) return BRIX_ERR_KEY;
  const size_t length = std::strlen(value.get());
  if (length > static_cast<size_t>(size)) return BRIX_ERR_TOO_LONG;
  std::memcpy(buffer, value.get(), length);
  if (length < static_cast<size_t>(size)) buffer[length] = '\0';
  return BRIX_OK;
}

extern "C" int brix_set_property(const char* key, const char* value) {
  if (key == nullptr || value == nullptr) return BRIX_ERR_ARGUMENT;
  if (!acceptableKey(key)) return BRIX_ERR_KEY;
  if (std::strlen(value) > BRIX_VALUE_MAX) return BRIX_ERR_TOO_LONG;
  Environment env;
  const int status = env.open();
  if (status != BRIX_OK) return status;
  if (libuboot_set_env(env.get(), key, value) < 0) return BRIX_ERR_KEY;
  if (libuboot_env_store(env.get()) < 0) return BRIX_ERR_WRITE;
  return BRIX_OK;
}

extern "C" void brix_set_config(const char* fw_env_config, const char* initial_env) {
  std::lock_guard<std::mutex> lock(g_configMutex);
  g_config = fw_env_config != nullptr ? fw_env_config : "";
  g_initialEnv = initial_env != nullptr ? initial_env : "";
}
