// Keeps a process and its children away from the reboot system call.
#ifndef SELVANE_TESTS_NOREBOOT_H
#define SELVANE_TESTS_NOREBOOT_H

namespace harness {

// Drops CAP_SYS_BOOT from the bounding, inheritable, permitted and effective sets; true once it is
// gone. Children inherit the reduced bounding set, so their reboot(2) fails with EPERM as well.
bool dropSysBoot();

}  // namespace harness

#endif
