#include "util/BoardInfo.h"

#include <dirent.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

namespace util {
namespace {

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

bool isEMMC(const std::string& blockDevice) {
  std::ifstream type("/sys/block/" + blockDevice + "/device/type");
  std::string value;
  return std::getline(type, value) && value == "MMC";
}

}  // namespace

bool BoardInfo::EMMCFlashPresent() {
  const char* declared = std::getenv("MARVIX_BOARD_FLASH");
  if (declared != nullptr && *declared != '\0') return std::strcmp(declared, "emmc") == 0;
  std::unique_ptr<DIR, DirCloser> blocks(opendir("/sys/block"));
  if (!blocks) return false;
  while (const dirent* entry = readdir(blocks.get())) {
    if (std::strncmp(entry->d_name, "mmcblk", 6) == 0 && isEMMC(entry->d_name)) return true;
  }
  return false;
}

}  // namespace util
