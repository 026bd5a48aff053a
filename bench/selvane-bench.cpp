// selvane-bench: one library operation per run, for bench/run.sh to time against a baseline
// program in the same way (bench/peak-rss around both). Exit status 0 when the operation succeeded.
//
//   selvane-bench sha256 FILE HEX           VerifySHA256Sum
//   selvane-bench verify KEY PACKAGE        PackageVerifier::verifyPackage
//   selvane-bench download URL PATH BYTES   FileDownloader::download(url, path), receive buffer
//   BYTES selvane-bench wipe DEVICE               evictDataAndHalt over DEVICE (the halt is only
//   counted) selvane-bench plain-wipe DEVICE         the baseline: 4096-byte write() calls,
//   fsync(), sync() selvane-bench serve CERT KEY            nginx over HTTP and HTTPS on loopback
//   until standard
//                                           input closes; prints its docroot, then both base URLs
#include <fcntl.h>
#include <selvane/DeviceCommon.h>
#include <selvane/FileDownloader.h>
#include <selvane/FileUtils.h>
#include <selvane/PackageVerifier.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "NginxServer.h"
#include "NoReboot.h"

namespace {

int g_haltRequests = 0;

bool plainWipe(const char* device) {
  const int fd = open(device, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  static const char zeros[4096] = {};
  ssize_t count;
  while ((count = write(fd, zeros, sizeof zeros)) == static_cast<ssize_t>(sizeof zeros)) {
  }
  const bool ok = (count == 0 || errno == ENOSPC) && fsync(fd) == 0;
  close(fd);
  sync();  // as the wipe does before it halts
  return ok;
}

bool serve(const std::string& certificate, const std::string& key) {
  fixtures::NginxServer nginx({{certificate, key}});
  std::cout << nginx.docroot() << "\n"
            << nginx.httpUrl("") << "\n"
            << nginx.httpsUrl(0, "") << std::endl;
  std::string line;
  while (std::getline(std::cin, line)) {
  }
  nginx.stop();
  return true;
}

bool run(const std::string& command, char** args, int count) {
  if (command == "sha256" && count == 2) return selvane::VerifySHA256Sum(args[0], args[1]);
  if (command == "verify" && count == 2)
    return selvane::PackageVerifier(args[0]).verifyPackage(args[1]);
  if (command == "download" && count == 3) {
    selvane::FileDownloader downloader;
    downloader.setBufferSize(static_cast<unsigned>(std::strtoul(args[2], nullptr, 10)));
    return downloader.download(args[0], args[1]).code == selvane::FileDownloaderError::NoError;
  }
  if (command == "wipe" && count == 1) {
    const char* partitions[] = {args[0], nullptr};
    selvane::evictDataAndHalt(partitions);
    return g_haltRequests == 1;
  }
  if (command == "plain-wipe" && count == 1) return plainWipe(args[0]);
  if (command == "serve" && count == 2) return serve(args[0], args[1]);
  std::fprintf(stderr, "usage: see the head of bench/selvane-bench.cpp\n");
  std::exit(2);
}

}  // namespace

// Exported: libselvane's halt reaches this instead of the C library's reboot().
extern "C" int reboot(int) {
  ++g_haltRequests;
  errno = EPERM;
  return -1;
}

int main(int argc, char** argv) {
  if (!harness::dropSysBoot()) {
    std::fprintf(stderr, "selvane-bench: cannot drop CAP_SYS_BOOT; not running\n");
    return 1;
  }
  if (argc < 2) return run("", nullptr, 0);
  try {
    return run(argv[1], argv + 2, argc - 2) ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "selvane-bench: %s\n", error.what());
    return 1;
  }
}
