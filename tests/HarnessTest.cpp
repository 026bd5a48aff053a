// The guards every test binary relies on.
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/reboot.h>
#include <unistd.h>

#include "Harness.h"

TEST(Harness, RebootIsInterposedAndTheCapabilityIsGone) {
  EXPECT_EQ(prctl(PR_CAPBSET_READ, CAP_SYS_BOOT, 0, 0, 0), 0);
  EXPECT_EQ(reboot(RB_POWER_OFF), -1);
  ASSERT_FALSE(harness::rebootRequests().empty());
  EXPECT_EQ(harness::rebootRequests().back(), RB_POWER_OFF);
}

TEST(Harness, LoopDevicesDetachWhenTheirOwnerGoes) {
  SELVANE_REQUIRE_ROOT();
  harness::ScratchDir dir;
  ASSERT_EQ(harness::shell("truncate -s 1M " + dir / "disk.img"), 0);
  std::string device;
  {
    harness::LoopDevice loop(dir / "disk.img");
    device = loop.path();
    std::string out;
    harness::shell("losetup -j " + dir / "disk.img", &out);
    EXPECT_NE(out.find(device), std::string::npos);
  }
  std::string out;
  harness::shell("losetup -j " + dir / "disk.img", &out);
  EXPECT_EQ(out, "");
}

TEST(Harness, HostPathsBecomeWritableOnlyInsideTheNamespace) {
  SELVANE_REQUIRE_ROOT();
  harness::makeHostPathWritable("/dev");
  ASSERT_EQ(mkdir("/dev/disk-harness-test", 0755), 0);
  EXPECT_EQ(access("/dev/null", W_OK), 0);
  EXPECT_FALSE(harness::mountsUnder("/dev/pts").empty());
  std::string out;
  // The host's own view, through PID 1's mount namespace, never sees the new name.
  harness::shell("nsenter -t 1 -m test -e /dev/disk-harness-test && echo leaked", &out);
  EXPECT_EQ(out, "");
}
