#include "Updater.h"

#include <fcntl.h>
#include <selvane/selvane.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>

#include "Downloads.h"
#include "Failure.h"
#include "Hooks.h"
#include "Plan.h"
#include "Release.h"
#include "TargetRoot.h"

namespace update {
namespace {

volatile sig_atomic_t g_interrupted = 0;

void onSignal(int signal) { g_interrupted = signal; }

void checkInterrupted(const std::string& step) {
  if (g_interrupted != 0) {
    throw Failure(Exit::Interrupted, std::string(g_interrupted == SIGINT ? "SIGINT" : "SIGTERM") +
                                         " received before " + step + "; nothing was switched");
  }
}

const char kBootMode[] = "boot.bootmode";
const char kRetryCount[] = "boot.otaretrycount";
const char kKnownGood[] = "boot.knowngood";

std::string deviceOf(selvane::Device::RootfsLabel label) {
  return std::string("/dev/disk/by-partlabel/") + selvane::labelToText(label);
}

// A boot property, or "" when the store has none.
std::string property(const char* key) {
  try {
    return selvane::BRIX::getProperty(key);
  } catch (const std::runtime_error&) {
    return "";
  }
}

// One instance at a time: a second one fails at once instead of waiting.
class InstanceLock {
 public:
  explicit InstanceLock(const std::string& path)
      : fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    if (fd < 0) throw Failure(Exit::Internal, "cannot open the lock file " + path);
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
      close(fd);
      throw Failure(Exit::AlreadyRunning,
                    "another selvane-update is running (it holds " + path + ")");
    }
  }
  ~InstanceLock() { close(fd); }
  InstanceLock(const InstanceLock&) = delete;

  // Keeps the step the holder is at in the lock file, for status to show.
  void record(const std::string& step) {
    if (ftruncate(fd, 0) != 0 || pwrite(fd, step.data(), step.size(), 0) < 0)
      perror("selvane-update: lock file");
  }
  InstanceLock& operator=(const InstanceLock&) = delete;

 private:
  int fd;
};

// Whether another process holds the lock at path, found in /proc/locks by the file's device and
// inode: a lock that status neither waits for nor takes. step is what the holder recorded.
bool lockHeld(const std::string& path, std::string& step) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  std::ifstream file(path);
  std::getline(file, step);
  char wanted[64];
  std::snprintf(wanted, sizeof wanted, " %02x:%02x:%llu ", major(st.st_dev), minor(st.st_dev),
                static_cast<unsigned long long>(st.st_ino));
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);)
    if (line.find(" FLOCK ") != std::string::npos && line.find(wanted) != std::string::npos)
      return true;
  return false;
}

// A run that was killed (SIGKILL) leaves the other root mounted on its temporary directory,
// perhaps read-write, and the kernel then refuses a read-only mount of it. Only a dead run's mounts
// can be there: the caller holds the update lock, or status saw it free. They are detached, and
// their directories removed; mounts made by anyone else are not ours.
void detachLeftoverMounts(const std::string& device) {
  struct stat st;
  if (stat(device.c_str(), &st) != 0) return;
  const std::string number =
      std::to_string(major(st.st_rdev)) + ":" + std::to_string(minor(st.st_rdev));
  std::ifstream mounts("/proc/self/mountinfo");
  std::string id, parent, devices, root, mountpoint, rest;
  while (mounts >> id >> parent >> devices >> root >> mountpoint && std::getline(mounts, rest)) {
    if (devices != number || mountpoint.compare(0, 15, "/tmp/ota-mount-") != 0) continue;
    if (umount2(mountpoint.c_str(), MNT_DETACH) == 0) rmdir(mountpoint.c_str());
  }
}

// The other root filesystem, mounted on a temporary directory for as long as the object lives.
// It is checked to be self-contained before anything, the library included, writes into it.
class MountedRoot {
 public:
  MountedRoot(boost::shared_ptr<selvane::Partition> partition, std::string device, bool readOnly)
      : partition(std::move(partition)), device(std::move(device)) {
    detachLeftoverMounts(this->device);
    try {
      mountpoint = this->partition->mount("", readOnly);
    } catch (const std::runtime_error& e) {
      throw Failure(Exit::Mount, "cannot mount " + this->device + ": " + e.what());
    }
    try {
      checkContained(mountpoint);
    } catch (const Failure&) {
      unmount();
      throw;
    }
  }
  ~MountedRoot() {
    try {
      unmount();
    } catch (const Failure& failure) {
      std::fprintf(stderr, "selvane-update: %s\n", failure.what());
    }
  }
  MountedRoot(const MountedRoot&) = delete;
  MountedRoot& operator=(const MountedRoot&) = delete;

  const std::string& path() const { return mountpoint; }

  void makeWritable() {
    try {
      partition->remount_rw();
    } catch (const std::runtime_error& e) {
      throw Failure(Exit::Mount, "cannot remount " + device + " read-write: " + e.what());
    }
  }

  void unmount() {
    if (mountpoint.empty()) return;
    try {
      partition->unmount();
    } catch (const std::runtime_error& e) {
      throw Failure(Exit::Mount,
                    "cannot unmount " + device + " from " + mountpoint + ": " + e.what());
    }
    rmdir(mountpoint.c_str());  // the library leaves its temporary mount point behind
    mountpoint.clear();
  }

 private:
  boost::shared_ptr<selvane::Partition> partition;
  std::string device;
  std::string mountpoint;
};

// The boot properties that select the next boot, as the property store reads them.
struct BootSelection {
  std::string mode, count;
  static BootSelection read() { return {property(kBootMode), property(kRetryCount)}; }
  bool operator==(const BootSelection& other) const {
    return mode == other.mode && count == other.count;
  }
  std::string text() const {
    return std::string(kBootMode) + "=" + mode + ", " + kRetryCount + "=" + count;
  }
};

// Points the boot loader at label and reads the properties back to be sure they took. When they
// did not, the previous selection is written back and read again, so that the boot loader is never
// left with half a switch; the failure says which selection it holds now.
void switchBoot(selvane::Device& device, selvane::Device::RootfsLabel label, unsigned retries) {
  const BootSelection before = BootSelection::read();
  const BootSelection wanted{selvane::labelToText(label), std::to_string(retries)};
  device.setBootRootfs(label, retries);
  const BootSelection written = BootSelection::read();
  if (written == wanted) return;
  // Each write is judged by what reads back, below.
  (void)selvane::BRIX::setProperty(kBootMode, before.mode);
  (void)selvane::BRIX::setProperty(kRetryCount, before.count);
  const BootSelection now = BootSelection::read();
  throw Failure(
      Exit::BootSwitch,
      "the property store did not take " + wanted.text() + " (it read " + written.text() + "); " +
          (now == before ? "the previous selection " + before.text() + " is back"
                         : "it could not restore " + before.text() + " and reads " + now.text()));
}

// Bytes that an unprivileged writer may still put on the filesystem holding path (or its nearest
// existing parent); no limit when that cannot be found out.
uint64_t freeBytes(boost::filesystem::path path) {
  boost::system::error_code error;
  while (!path.empty() && !boost::filesystem::exists(path, error)) path = path.parent_path();
  const boost::filesystem::space_info space = boost::filesystem::space(path, error);
  return error ? UINT64_MAX : static_cast<uint64_t>(space.available);
}

void checkRoom(const std::string& where, const std::string& what, uint64_t needed,
               uint64_t available) {
  if (needed <= available) return;
  throw Failure(Exit::NoSpace, "not enough space in " + where + ": " +
                                   std::to_string(needed - available) + " bytes short (" + what +
                                   " " + std::to_string(needed) + " bytes, " +
                                   std::to_string(available) + " available)");
}

boost::shared_ptr<selvane::Device> systemDevice() {
  try {
    return selvane::Device::createSystemDevice();
  } catch (const std::runtime_error& e) {
    throw Failure(Exit::Mount,
                  std::string("cannot find the device's root filesystems: ") + e.what());
  }
}

Event planEvent(const Plan& plan, uint64_t fetchBytes, const selvane::Manifest& release,
                const std::map<std::string, std::string>& installed) {
  Json remove = Json::array(), install = Json::array(), unchanged = Json::array();
  for (const std::string& name : plan.removals())
    remove.push_back(packageJson(name, installed.at(name)));
  for (const selvane::Package& package : plan.install) install.push_back(packageJson(package));
  for (const std::string& name : plan.unchanged)
    unchanged.push_back(packageJson(name, release.getPackageVersion(name)));
  return Event("plan")
      .add("release", release.getVersion())
      .add("remove", remove)
      .add("install", install)
      .add("unchanged", unchanged)
      .add("download_bytes", fetchBytes);
}

std::string describePlan(const Plan& plan, uint64_t fetchBytes) {
  std::string text = "plan: " + std::to_string(plan.install.size()) + " to install, " +
                     std::to_string(plan.remove.size() + plan.removeLast.size()) + " to remove, " +
                     std::to_string(plan.unchanged.size()) + " unchanged; " +
                     humanBytes(fetchBytes) + " to download";
  for (const std::string& name : plan.removals()) text += "\n  remove   " + name;
  for (const selvane::Package& package : plan.install)
    text += "\n  install  " + package.getName() + " " + package.getVersion() + " (" +
            humanBytes(package.getSize()) + ")";
  return text;
}

}  // namespace

void installSignalHandlers() {
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() { return g_interrupted != 0; }

Updater::Updater(const Options& options, Output& out) : options(options), out(out) {}

void Updater::install(Hooks& hooks) {
  InstanceLock lock(options.lockFile);
  const auto step = [&lock](const std::string& name) {
    lock.record(name);
    checkInterrupted(name);
  };
  lock.record("reading the manifest");
  Downloads downloads(options, out);
  const selvane::Manifest release = downloads.manifest();
  hooks.set("RELEASE", release.getVersion());
  Json listed = Json::array();
  for (const selvane::Package& package : release.getPackages())
    listed.push_back(packageJson(package));
  out.emit(Event("manifest").add("release", release.getVersion()).add("packages", listed),
           "release " + release.getVersion() + " with " +
               std::to_string(release.getPackages().size()) + " packages");
  const std::string running = readRelease("");
  if (!running.empty() && compareVersions(release.getVersion(), running) < 0 &&
      !options.allowDowngrade) {
    throw Failure(Exit::Downgrade, "release " + release.getVersion() +
                                       " is older than the running release " + running +
                                       " (--allow-downgrade installs it)");
  }

  const boost::shared_ptr<selvane::Device> device = systemDevice();
  const selvane::Device::RootfsLabel current = device->getCurrentRootfs();
  const selvane::Device::RootfsLabel other = device->getOtherRootfs();
  const bool bootsOther = property(kBootMode) == selvane::labelToText(other);

  MountedRoot root(device->getOtherRootfsPartition(), deviceOf(other), true);
  hooks.set("OTHER_ROOT", selvane::labelToText(other));
  hooks.set("OTHER_MOUNTPOINT", root.path());
  selvane::PackageManager packages(root.path());
  packages.refreshInstalledPackages();
  Plan plan = makePlan(release, packages.getInstalledPackages());
  keepEssentialsToLast(plan, root.path());
  if (plan.empty() && bootsOther && readRelease(root.path()) == release.getVersion()) {
    out.emit(Event("up-to-date")
                 .add("release", release.getVersion())
                 .add("rootfs", selvane::labelToText(other)),
             std::string(selvane::labelToText(other)) + " already holds release " +
                 release.getVersion() + " and is selected for the next boot: nothing to do");
    return;
  }
  const uint64_t fetchBytes = downloads.bytesToFetch(plan.install);
  out.emit(planEvent(plan, fetchBytes, release, packages.getInstalledPackages())
               .add("rootfs", selvane::labelToText(other)),
           describePlan(plan, fetchBytes));

  // Room for all of it before the first byte is fetched: the cache for the downloads, the other
  // root for the unpacked packages (an estimate), besides what the old packages free there.
  checkRoom(options.cache, "the downloads take", fetchBytes, freeBytes(options.cache));
  const uint64_t rootFree = freeBytes(root.path()),
                 freed = freedBytes(plan, root.path(), packages.getInstalledPackages());
  checkRoom(deviceOf(other), "the packages take about", kUnpackFactor * plan.installBytes(),
            rootFree > UINT64_MAX - freed ? UINT64_MAX : rootFree + freed);
  // Everything is fetched and checked before the other root is written.
  lock.record("downloading");
  const std::vector<std::string> files = downloads.fetch(plan.install);
  for (size_t i = 0; i < files.size(); ++i)
    checkPackagePaths(root.path(), files[i],
                      plan.install[i].getName() + " " + plan.install[i].getVersion());
  step("writing " + std::string(selvane::labelToText(other)));
  hooks.run("pre-install");
  if (bootsOther) {
    // A half-finished earlier update: never leave the boot loader pointing at a root in work.
    switchBoot(*device, current, 0);
    out.emit(Event("boot-reset").add("bootmode", selvane::labelToText(current)),
             std::string("boot selection pointed back at the running ") +
                 selvane::labelToText(current) + " while " + selvane::labelToText(other) +
                 " is rewritten");
  }
  // Neither a running root with a sanity check nor the other root's own may end up without one.
  const bool needsSanityCheck = hasSanityCheck("") || hasSanityCheck(root.path());
  root.makeWritable();
  forgetRelease(root.path());

  const std::map<std::string, std::string> installed = packages.getInstalledPackages();
  const auto remove = [&](const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      step("removing " + name);
      out.emit(Event("remove").add("package", packageJson(name, installed.at(name))),
               "removing " + name);
      if (!packages.removePackage(name, options.timeout))
        throw Failure(Exit::Install, "cannot remove " + name + " from " + deviceOf(other));
    }
  };
  remove(plan.remove);
  for (size_t i = 0; i < files.size(); ++i) {
    const selvane::Package& package = plan.install[i];
    step("installing " + package.getName());
    out.emit(Event("install").add("package", packageJson(package)),
             "installing " + package.getName() + " " + package.getVersion());
    if (!packages.installPackage(files[i], options.timeout))
      throw Failure(Exit::Install, "cannot install " + files[i] + " into " + deviceOf(other));
  }
  remove(plan.removeLast);  // the shell and the package tool, now that the new ones are in
  step("configuring");
  out.emit(Event("configure"), "configuring packages");
  if (!packages.configurePackages(options.timeout))
    throw Failure(Exit::Configure, "packages in " + deviceOf(other) + " failed to configure");
  step("verifying");
  out.emit(Event("verify"), "verifying installed files");
  packages.refreshInstalledPackages();
  if (!packages.verifyPackages(false, true))
    throw Failure(Exit::Verify,
                  "installed files in " + deviceOf(other) + " do not match their packages");
  step("the sanity check");
  if (needsSanityCheck && !hasSanityCheck(root.path()))
    throw Failure(Exit::SanityCheck, "release " + release.getVersion() + " would leave " +
                                         deviceOf(other) + " without " + kSanityCheckScript);
  out.emit(Event("sanity-check"), "running the sanity check");
  if (!packages.performSanityCheck(options.timeout))
    throw Failure(Exit::SanityCheck,
                  std::string(kSanityCheckScript) + " in " + deviceOf(other) + " failed");
  writeRelease(root.path(), release.getVersion());
  root.unmount();
  hooks.set("OTHER_MOUNTPOINT", "");
  step("the boot switch");

  switchBoot(*device, other, options.retries);
  out.emit(Event("switched")
               .add("release", release.getVersion())
               .add("bootmode", selvane::labelToText(other))
               .add("retries", static_cast<uint64_t>(options.retries)),
           "release " + release.getVersion() + " installed; the next boot starts " +
               selvane::labelToText(other) + " (" + std::to_string(options.retries) + " retries)");
  hooks.run("post-install");
}

void Updater::check() {
  InstanceLock lock(options.lockFile);
  Downloads downloads(options, out);
  const selvane::Manifest release = downloads.manifest();
  const boost::shared_ptr<selvane::Device> device = systemDevice();
  const selvane::Device::RootfsLabel other = device->getOtherRootfs();
  MountedRoot root(device->getOtherRootfsPartition(), deviceOf(other), true);
  selvane::PackageManager packages(root.path());
  packages.refreshInstalledPackages();
  Plan plan = makePlan(release, packages.getInstalledPackages());
  keepEssentialsToLast(plan, root.path());
  const uint64_t bytes = downloads.bytesToFetch(plan.install);
  out.emit(planEvent(plan, bytes, release, packages.getInstalledPackages())
               .add("rootfs", selvane::labelToText(other)),
           "release " + release.getVersion() + " for " + selvane::labelToText(other) + "\n" +
               describePlan(plan, bytes));
}

void Updater::status() {
  // Never waits for the update lock nor takes it: while an update holds it, the other root is in
  // its hands (and mounted by it), so only what can be read without it is shown.
  std::string step;
  const bool updating = lockHeld(options.lockFile, step);
  const boost::shared_ptr<selvane::Device> device = systemDevice();
  const std::string current = selvane::labelToText(device->getCurrentRootfs());
  const selvane::Device::RootfsLabel other = device->getOtherRootfs();
  std::map<std::string, std::string> otherPackages;
  std::string otherRelease;
  if (!updating) {
    MountedRoot root(device->getOtherRootfsPartition(), deviceOf(other), true);
    selvane::PackageManager packages(root.path());
    packages.refreshInstalledPackages();
    otherPackages = packages.getInstalledPackages();
    otherRelease = readRelease(root.path());
  }
  const std::string currentRelease = readRelease("");
  Event event("status");
  const auto orNull = [](const std::string& text) { return text.empty() ? Json() : Json(text); };
  event.add("current", current)
      .add("other", selvane::labelToText(other))
      .add("current_release", orNull(currentRelease))
      .add("other_release", orNull(otherRelease))
      .add("update_in_progress", updating)
      .add("update_step", updating ? orNull(step) : Json());
  std::string text =
      "running  " + current + ", release " + (currentRelease.empty() ? "unknown" : currentRelease) +
      "\nother    " + selvane::labelToText(other) + ", release " +
      (updating ? "unknown: update in progress" + (step.empty() ? "" : " (" + step + ")")
       : otherRelease.empty() ? "none"
                              : otherRelease);
  Json boot = Json::object();
  for (const char* key : {kBootMode, kRetryCount, kKnownGood}) {
    const std::string value = property(key);
    const bool number =
        !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
    boot[std::string(key).substr(5)] = number ? Json(std::stoull(value)) : orNull(value);
    text += "\n" + std::string(key) + "=" + value;
  }
  Json listed = Json::array();
  text += "\npackages in " + std::string(selvane::labelToText(other)) + ":";
  for (const auto& [name, version] : otherPackages) {
    listed.push_back(packageJson(name, version));
    text += "\n  " + name + " " + version;
  }
  out.emit(event.add("boot", boot).add("other_packages", listed), text);
}

void Updater::markGood() {
  InstanceLock lock(options.lockFile);
  const boost::shared_ptr<selvane::Device> device = systemDevice();
  const selvane::Device::RootfsLabel current = device->getCurrentRootfs();
  device->setKnownGood(current);
  if (property(kKnownGood) != selvane::labelToText(current)) {
    throw Failure(Exit::BootSwitch, std::string("the property store did not take ") + kKnownGood +
                                        "=" + selvane::labelToText(current));
  }
  out.emit(Event("known-good").add("rootfs", selvane::labelToText(current)),
           std::string(selvane::labelToText(current)) + " marked known good");
}

}  // namespace update
