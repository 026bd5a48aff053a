// Facts about the board the software runs on.
#ifndef UTIL_BOARDINFO_H
#define UTIL_BOARDINFO_H

namespace util {

class BoardInfo {
 public:
  // True when the board keeps its storage on eMMC flash: the kernel shows a block device under
  // /sys/block whose card type is "MMC" (SD cards say "SD"). A board without that kernel view, such
  // as a simulator, declares itself with the environment variable MARVIX_BOARD_FLASH: "emmc" means
  // eMMC, any other non-empty value means none.
  static bool EMMCFlashPresent();
};

}  // namespace util

#endif
