#include "NoReboot.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <initializer_list>

namespace harness {

bool dropSysBoot() {
  (void)prctl(PR_CAPBSET_DROP, CAP_SYS_BOOT, 0, 0, 0);  // EPERM for non-root: checked below
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2]{};
  const __u32 bit = 1u << CAP_SYS_BOOT;
  (void)syscall(SYS_capget, &header, data);
  for (__u32* set : {&data[0].effective, &data[0].permitted, &data[0].inheritable}) *set &= ~bit;
  (void)syscall(SYS_capset, &header, data);
  return syscall(SYS_capget, &header, data) == 0 &&
         !((data[0].effective | data[0].permitted) & bit) &&
         (geteuid() != 0 || prctl(PR_CAPBSET_READ, CAP_SYS_BOOT, 0, 0, 0) == 0);
}

}  // namespace harness
