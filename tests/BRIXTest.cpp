// The property store: the brix stand-in on a U-Boot environment (a redundant pair of copies in a
// file, cross-checked with Debian's fw_printenv / fw_setenv) and the BRIX wrapper over it.
#include <brix.h>
#include <selvane/BRIX.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>

#include "BootEnvironment.h"
#include "ErrorText.h"
#include "Harness.h"

namespace {

using fixtures::BootEnvironment;
using selvane::BRIX;

class BrixStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SELVANE_REQUIRE_ROOT();  // libubootenv's lock file must land in the namespace's /run/lock
    storage = scratch / "uboot.env";
    env = std::make_unique<BootEnvironment>(storage, scratch.path());
  }

  int get(const std::string& key, std::string& value, int size = BRIX_VALUE_MAX) {
    std::string buffer(static_cast<size_t>(size) + 1, '\0');
    const int status = brix_get_property(key.c_str(), &buffer[0], size);
    value = status == BRIX_OK ? buffer.c_str() : "";
    return status;
  }

  std::string get(const std::string& key) {
    std::string value;
    EXPECT_EQ(get(key, value), BRIX_OK) << key;
    return value;
  }

  // Overwrites one byte inside the data of copy 0 or 1.
  void damageCopy(int copy) {
    std::string bytes = harness::readFile(storage);
    bytes[copy * BootEnvironment::kCopySize + 8] ^= 0x5A;
    harness::writeFile(storage, bytes);
  }

  // The copy (0 or 1) whose data holds text.
  int copyHolding(const std::string& text) {
    const size_t at = harness::readFile(storage).find(text);
    EXPECT_NE(at, std::string::npos) << text;
    return at < BootEnvironment::kCopySize ? 0 : 1;
  }

  harness::ScratchDir scratch;
  std::string storage;
  std::unique_ptr<BootEnvironment> env;
};

TEST_F(BrixStoreTest, ValuesReachTheBootLoaderAndBack) {
  ASSERT_EQ(brix_set_property("boot.bootmode", "main-B"), BRIX_OK);
  ASSERT_EQ(brix_set_property("boot.otaretrycount", "3"), BRIX_OK);
  EXPECT_EQ(env->printenv("boot.bootmode"), "main-B");
  EXPECT_EQ(env->printenv("boot.otaretrycount"), "3");
  ASSERT_EQ(env->setenv("boot.knowngood", "main-A"), 0);
  EXPECT_EQ(get("boot.knowngood"), "main-A");
  EXPECT_EQ(get("boot.bootmode"), "main-B");
}

TEST_F(BrixStoreTest, WritesAlternateBetweenTheCopiesAndADamagedNewerCopyGivesTheOlderValue) {
  ASSERT_EQ(brix_set_property("boot.bootmode", "main-A"), BRIX_OK);
  ASSERT_EQ(brix_set_property("boot.bootmode", "main-B"), BRIX_OK);
  const int newer = copyHolding("boot.bootmode=main-B");
  EXPECT_EQ(copyHolding("boot.bootmode=main-A"), 1 - newer);

  damageCopy(newer);
  EXPECT_EQ(get("boot.bootmode"), "main-A");
  EXPECT_EQ(env->printenv("boot.bootmode"), "main-A");
  // The next write goes over the damaged copy; the intact one stays as it was.
  ASSERT_EQ(brix_set_property("boot.bootmode", "main-B"), BRIX_OK);
  EXPECT_EQ(copyHolding("boot.bootmode=main-B"), newer);
  EXPECT_EQ(get("boot.bootmode"), "main-B");
}

// A first boot: erased copies (or one erased and one cut off in its first write) start from the
// initial environment, which is read without writing anything.
TEST_F(BrixStoreTest, AFirstBootStartsFromTheInitialEnvironment) {
  struct Case {
    const char* name;
    char fill0, fill1;
    bool damage1;
  } const cases[] = {{"zeroed", 0, 0, false},
                     {"erased flash", '\xff', '\xff', false},
                     {"first write cut off", 0, 0, true}};
  harness::writeFile(env->initialEnv(), "bootdelay=3\nboot.bootmode=main-A\n");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string blank = std::string(BootEnvironment::kCopySize, c.fill0) +
                              std::string(BootEnvironment::kCopySize, c.fill1);
    harness::writeFile(storage, blank);
    if (c.damage1) damageCopy(1);
    const std::string before = harness::readFile(storage);

    EXPECT_EQ(get("boot.bootmode"), "main-A");
    EXPECT_EQ(harness::readFile(storage), before);

    ASSERT_EQ(brix_set_property("boot.otaretrycount", "0"), BRIX_OK);
    EXPECT_EQ(env->printenv("bootdelay"), "3");
    EXPECT_EQ(env->printenv("boot.bootmode"), "main-A");
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

  std::string value;
  EXPECT_EQ(get("boot.bootmode", value), BRIX_ERR_UNREADABLE);
  EXPECT_EQ(brix_set_property("boot.bootmode", "main-B"), BRIX_ERR_UNREADABLE);
  EXPECT_EQ(harness::readFile(storage), before);
}

// Each status, by the situation that gives it.
TEST_F(BrixStoreTest, FailuresHaveDistinctStatuses) {
  const std::string readOnlyDir = scratch / "ro";
  ASSERT_EQ(mkdir(readOnlyDir.c_str(), 0755), 0);
  ASSERT_EQ(brix_set_property("boot.bootmode", "main-A"), BRIX_OK);
  struct Case {
    const char* name;
    std::function<void()> setUp;
    const char* key;
    const char* value;  // set this value, or get the key when null
    int size;           // the buffer size of a get
    int status;
  } const cases[] = {
      {"unset key", [] {}, "boot.nothing", nullptr, 32, BRIX_ERR_KEY},
      {"empty key", [] {}, "", nullptr, 32, BRIX_ERR_KEY},
      {"key with =", [] {}, "boot=mode", "x", 0, BRIX_ERR_KEY},
      {"value of 33 bytes", [] {}, "k", "123456789012345678901234567890123", 0, BRIX_ERR_TOO_LONG},
      {"value longer than the buffer", [&] { ASSERT_EQ(env->setenv("long", "0123456789"), 0); },
       "long", nullptr, 9, BRIX_ERR_TOO_LONG},
      {"buffer size 0", [] {}, "k", nullptr, 0, BRIX_ERR_ARGUMENT},
      {"no configuration file",
       [&] { brix_set_config((scratch / "missing.config").c_str(), nullptr); }, "k", "v", 0,
       BRIX_ERR_NO_CONFIG},
      {"configuration without a copy",
       [&] {
         harness::writeFile(scratch / "empty.config", "# nothing here\n");
         brix_set_config((scratch / "empty.config").c_str(), nullptr);
       },
       "k", nullptr, 32, BRIX_ERR_NO_CONFIG},
      {"missing copy",
       [&] {
         harness::writeFile(scratch / "gone.config", scratch / "gone.env 0x0 0x4000\n");
         brix_set_config((scratch / "gone.config").c_str(), nullptr);
       },
       "k", nullptr, 32, BRIX_ERR_UNREADABLE},
      {"read-only storage",
       [&] {
         ASSERT_EQ(env->setenv("k", "old"), 0);
         ASSERT_EQ(mount(scratch.path().c_str(), readOnlyDir.c_str(), nullptr, MS_BIND, nullptr),
                   0);
         ASSERT_EQ(mount(nullptr, readOnlyDir.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY,
                         nullptr),
                   0);
         harness::writeFile(scratch / "ro.config", readOnlyDir + "/uboot.env 0x0 0x4000\n" +
                                                       readOnlyDir + "/uboot.env 0x4000 0x4000\n");
         brix_set_config((scratch / "ro.config").c_str(), nullptr);
       },
       "k", "new", 0, BRIX_ERR_WRITE},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    brix_set_config(env->config().c_str(), env->initialEnv().c_str());
    c.setUp();
    if (c.value != nullptr) {
      EXPECT_EQ(brix_set_property(c.key, c.value), c.status);
    } else {
      std::string buffer(64, '\0');
      EXPECT_EQ(brix_get_property(c.key, &buffer[0], c.size), c.status);
    }
  }
  std::string value;
  EXPECT_EQ(get("k", value), BRIX_OK);  // the read-only storage is still readable
  EXPECT_EQ(value, "old");
  umount(readOnlyDir.c_str());
  EXPECT_EQ(brix_get_property(nullptr, &value[0], 1), BRIX_ERR_ARGUMENT);
  EXPECT_EQ(brix_set_property("k", nullptr), BRIX_ERR_ARGUMENT);
}

TEST_F(BrixStoreTest, TheConfigurationComesFromTheEnvironmentUnlessSetInProcess) {
  ASSERT_EQ(brix_set_property("boot.bootmode", "main-B"), BRIX_OK);
  brix_set_config(nullptr, nullptr);
  ASSERT_EQ(setenv("BRIX_FW_ENV_CONFIG", env->config().c_str(), 1), 0);
  EXPECT_EQ(get("boot.bootmode"), "main-B");
  ASSERT_EQ(setenv("BRIX_FW_ENV_CONFIG", (scratch / "missing.config").c_str(), 1), 0);
  std::string value;
  EXPECT_EQ(get("boot.bootmode", value), BRIX_ERR_NO_CONFIG);
  brix_set_config(env->config().c_str(), nullptr);
  EXPECT_EQ(get("boot.bootmode"), "main-B");
  unsetenv("BRIX_FW_ENV_CONFIG");
}

// ---- the BRIX wrapper -----------------------------------------------------------------------

TEST_F(BrixStoreTest, BRIXReturnsAtMost32BytesAndCutsAtTheFirstHighByte) {
  const std::string full = "0123456789abcdefghijklmnopqrstuv";
  ASSERT_EQ(full.size(), 32u);
  EXPECT_TRUE(BRIX::setProperty("full", full));
  EXPECT_EQ(BRIX::getProperty("full"), full);

  ASSERT_EQ(env->setenv("accented",
                        "ab\xc3"
                        "cd"),
            0);
  EXPECT_EQ(BRIX::getProperty("accented"), "ab");
  ASSERT_EQ(env->setenv("high",
                        "\xff"
                        "x"),
            0);
  EXPECT_EQ(BRIX::getProperty("high"), "");
}

TEST_F(BrixStoreTest, BRIXReportsARejectedKey) {
  harness::LogCapture log;
  EXPECT_EQ(fixtures::errorText([&] { BRIX::getProperty("boot.nothing"); }),
            "Failed to read brix property for key: boot.nothing");
  EXPECT_EQ(log.texts(), std::vector<std::string>{"E selvane:getBRIX:key=boot.nothing,status=5:"
                                                  "Failed to get brix property"});
  EXPECT_EQ(log.lines()[0].priority, 3);

  log.clear();
  EXPECT_FALSE(BRIX::setProperty("boot=mode", "main-A"));
  EXPECT_FALSE(BRIX::setProperty("boot.bootmode", std::string(33, 'x')));
  EXPECT_EQ(log.texts(), (std::vector<std::string>{
                             "E selvane:setBRIX:key=boot=mode,val=main-A,status=5:"
                             "Failed to set brix property",
                             "E selvane:setBRIX:key=boot.bootmode,val=" + std::string(33, 'x') +
                                 ",status=3:Failed to set brix property"}));
  EXPECT_EQ(env->printenv("boot.bootmode"), "<unset>");
}

}  // namespace
