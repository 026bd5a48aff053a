// The property store: the brix stand-in on a U-Boot environment (a redundant pair of copies in a
// file, cross-checked with Debian's fw_printenv / fw_setenv) and the BRIX wrapper over it.
#include <brix.h>
#include <selvane/BRIX.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>

#include "BootEnvironment.h"
#include "ErrorText.h"
#include "Harness.h"

namespace {

using fixtures::BootEnvironment;
using fixtures::property;
using selvane::BRIX;
const unsigned kCopy = BootEnvironment::kCopySize;

class BrixStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SELVANE_REQUIRE_ROOT();  // libubootenv's lock file must land in the namespace's /run/lock
    env = std::make_unique<BootEnvironment>(storage, scratch.path());
  }

  // Overwrites one byte inside the data of copy 0 or 1.
  void damageCopy(int copy) {
    std::string bytes = harness::readFile(storage);
    bytes[copy * kCopy + 8] ^= 0x5A;
    harness::writeFile(storage, bytes);
  }

  // The copy (0 or 1) whose data holds text.
  int copyHolding(const std::string& text) {
    const size_t at = harness::readFile(storage).find(text);
    EXPECT_NE(at, std::string::npos) << text;
    return at < kCopy ? 0 : 1;
  }

  harness::ScratchDir scratch;
  const std::string storage = scratch / "uboot.env";
  std::unique_ptr<BootEnvironment> env;
};

TEST_F(BrixStoreTest, WritesReachTheBootLoaderAndAlternateBetweenTheCopies) {
  ASSERT_EQ(brix_set_property("boot.bootmode", "main-A"), BRIX_OK);
  ASSERT_EQ(brix_set_property("boot.bootmode", "main-B"), BRIX_OK);
  EXPECT_EQ(env->printenv("boot.bootmode"), "main-B");
  const int newer = copyHolding("boot.bootmode=main-B");
  EXPECT_EQ(copyHolding("boot.bootmode=main-A"), 1 - newer);

  // A damaged newer copy gives the older value; the next write goes over it.
  damageCopy(newer);
  EXPECT_EQ(property("boot.bootmode"), "main-A");
  EXPECT_EQ(env->printenv("boot.bootmode"), "main-A");
  ASSERT_EQ(brix_set_property("boot.bootmode", "main-B"), BRIX_OK);
  EXPECT_EQ(copyHolding("boot.bootmode=main-B"), newer);
  EXPECT_EQ(property("boot.bootmode"), "main-B");

  ASSERT_EQ(env->setenv("boot.knowngood", "main-A"), 0);
  EXPECT_EQ(property("boot.knowngood"), "main-A");
}

// A first boot: erased copies (or one erased and one cut off in its first write) start from the
// initial environment, which is read without writing anything.
TEST_F(BrixStoreTest, AFirstBootStartsFromTheInitialEnvironment) {
  harness::writeFile(env->initialEnv(), "bootdelay=3\nboot.bootmode=main-A\n");
  const struct {
    char fill;
    bool damage1;
  } cases[] = {{'\0', false}, {'\xff', false}, {'\0', true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.fill) + (c.damage1 ? ", first write cut off" : ""));
    harness::writeFile(storage, std::string(2 * kCopy, c.fill));
    if (c.damage1) damageCopy(1);
    const std::string before = harness::readFile(storage);
    EXPECT_EQ(property("boot.bootmode"), "main-A");
    EXPECT_EQ(harness::readFile(storage), before);

    ASSERT_EQ(brix_set_property("boot.otaretrycount", "0"), BRIX_OK);
    EXPECT_EQ(env->printenv("bootdelay"), "3");
    EXPECT_EQ(env->printenv("boot.otaretrycount"), "0");
  }
}

TEST_F(BrixStoreTest, AnUnreadableEnvironmentIsNeverOverwritten) {
  ASSERT_EQ(brix_set_property("boot.bootmode", "main-B"), BRIX_OK);
  ASSERT_EQ(brix_set_property("boot.bootmode", "main-A"), BRIX_OK);
  harness::writeFile(env->initialEnv(), "boot.bootmode=main-B\n");
  damageCopy(0);
  damageCopy(1);
  const std::string before = harness::readFile(storage);
  EXPECT_EQ(property("boot.bootmode"), "<status 2>");
  EXPECT_EQ(brix_set_property("boot.bootmode", "main-B"), BRIX_ERR_UNREADABLE);
  EXPECT_EQ(harness::readFile(storage), before);
}

TEST_F(BrixStoreTest, FailuresHaveDistinctStatusesWithTheConfigurationFromTheEnvironment) {
  ASSERT_EQ(brix_set_property("boot.bootmode", "main-A"), BRIX_OK);  // fw_setenv needs a valid copy
  ASSERT_EQ(env->setenv("long", "0123456789"), 0);
  ASSERT_EQ(env->setenv("k", "old"), 0);
  const std::string readOnly = scratch / "ro";  // the storage through a read-only bind mount
  ASSERT_EQ(mkdir(readOnly.c_str(), 0755), 0);
  ASSERT_EQ(mount(scratch.path().c_str(), readOnly.c_str(), nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, readOnly.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr),
            0);
  const struct {
    const char* name;
    std::string config;       // the configuration's text, "" for the test's own, "-" for none
    const char *key, *value;  // set the value, or get the key when it is null
    int size;                 // the buffer size of a get
    int status;
  } cases[] = {
      {"unset key", "", "boot.nothing", nullptr, 32, BRIX_ERR_KEY},
      {"empty key", "", "", nullptr, 32, BRIX_ERR_KEY},
      {"key with =", "", "boot=mode", "x", 0, BRIX_ERR_KEY},
      {"value of 33 bytes", "", "k", "123456789012345678901234567890123", 0, BRIX_ERR_TOO_LONG},
      {"value longer than the buffer", "", "long", nullptr, 9, BRIX_ERR_TOO_LONG},
      {"buffer size 0", "", "k", nullptr, 0, BRIX_ERR_ARGUMENT},
      {"configuration without a copy", "# nothing here\n", "k", nullptr, 32, BRIX_ERR_NO_CONFIG},
      {"missing copy", scratch / "gone.env 0x0 0x4000\n", "k", nullptr, 32, BRIX_ERR_UNREADABLE},
      {"read-only storage",
       readOnly + "/uboot.env 0x0 0x4000\n" + readOnly + "/uboot.env 0x4000 0x4000\n", "k", "new",
       0, BRIX_ERR_WRITE},
      {"no configuration file", "-", "k", "v", 0, BRIX_ERR_NO_CONFIG},
  };
  brix_set_config(nullptr, nullptr);  // each case names its configuration in the environment
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string config = c.config.empty()  ? env->config()
                               : c.config == "-" ? scratch / "missing.config"
                                                 : scratch / "case.config";
    if (c.config.size() > 1) harness::writeFile(config, c.config);
    ASSERT_EQ(setenv("BRIX_FW_ENV_CONFIG", config.c_str(), 1), 0);
    if (c.value != nullptr) {
      EXPECT_EQ(brix_set_property(c.key, c.value), c.status);
    } else {
      EXPECT_EQ(property(c.key, c.size), "<status " + std::to_string(c.status) + ">");
    }
  }
  // A configuration set in the process wins; the failed write left the old value.
  brix_set_config(env->config().c_str(), nullptr);
  EXPECT_EQ(property("k"), "old");
  unsetenv("BRIX_FW_ENV_CONFIG");
  umount(readOnly.c_str());
  char buffer[1];
  EXPECT_EQ(brix_get_property(nullptr, buffer, 1), BRIX_ERR_ARGUMENT);
  EXPECT_EQ(brix_set_property("k", nullptr), BRIX_ERR_ARGUMENT);
}

// ---- the BRIX wrapper -----------------------------------------------------------------------

TEST_F(BrixStoreTest, BRIXCutsAtTheFirstHighByteAndReportsFailures) {
  const std::string full = "0123456789abcdefghijklmnopqrstuv";  // 32 bytes
  EXPECT_TRUE(BRIX::setProperty("full", full));
  EXPECT_EQ(BRIX::getProperty("full"), full);
  ASSERT_EQ(env->setenv("accented", std::string("ab\xc3") + "cd"), 0);
  EXPECT_EQ(BRIX::getProperty("accented"), "ab");
  ASSERT_EQ(env->setenv("high", "\xffx"), 0);
  EXPECT_EQ(BRIX::getProperty("high"), "");

  harness::LogCapture log;
  EXPECT_EQ(fixtures::errorText([] { BRIX::getProperty("boot.nothing"); }),
            "Failed to read brix property for key: boot.nothing");
  EXPECT_FALSE(BRIX::setProperty("boot=mode", "main-A"));
  EXPECT_FALSE(BRIX::setProperty("boot.bootmode", std::string(33, 'x')));
  EXPECT_EQ(log.texts(), (std::vector<std::string>{
                             "E selvane:getBRIX:key=boot.nothing,status=5:"
                             "Failed to get brix property",
                             "E selvane:setBRIX:key=boot=mode,val=main-A,status=5:"
                             "Failed to set brix property",
                             "E selvane:setBRIX:key=boot.bootmode,val=" + std::string(33, 'x') +
                                 ",status=3:Failed to set brix property"}));
  EXPECT_EQ(property("boot.bootmode"), "<status 5>");
}

}  // namespace
