// Download throughput over loopback: FileDownloader::download(url, path) against the curl command
// line tool (curl -o) fetching the same file from the same nginx, in one run.
//
//   selvane-download-bench [MiB]      (default 1024)
//
// The served file is sparse, so the server side costs little and both clients write the same
// bytes to the same kind of destination. Each client runs twice; the better run counts. The curl
// tool reads with a 100 KiB buffer where libcurl's default is 16 KiB, so the downloader is also
// measured with setBufferSize(102400).
#include <fcntl.h>
#include <selvane/FileDownloader.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "NginxServer.h"

extern char** environ;

namespace {

double secondsFor(const std::function<bool()>& run) {
  const auto start = std::chrono::steady_clock::now();
  if (!run()) {
    std::fprintf(stderr, "download failed\n");
    std::exit(1);
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool curlDownload(const std::string& url, const std::string& path) {
  const char* argv[] = {"curl", "-sS", "-f", "-o", path.c_str(), url.c_str(), nullptr};
  pid_t pid;
  if (posix_spawnp(&pid, "curl", nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0)
    return false;
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const long mebibytes = argc > 1 ? std::atol(argv[1]) : 1024;
  if (mebibytes <= 0) {
    std::fprintf(stderr, "usage: %s [MiB]\n", argv[0]);
    return 2;
  }
  const off_t size = static_cast<off_t>(mebibytes) * 1024 * 1024;
  try {
    fixtures::NginxServer nginx;
    const std::string served = nginx.docroot() + "/big.bin";
    const int fd = open(served.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ftruncate(fd, size) != 0) {
      std::perror(served.c_str());
      return 1;
    }
    close(fd);
    char dir[] = "/tmp/selvane-bench.XXXXXX";
    if (mkdtemp(dir) == nullptr) {
      std::perror("mkdtemp");
      return 1;
    }
    const std::string url = nginx.httpUrl("/big.bin");
    const std::string destination = std::string(dir) + "/big.bin";

    selvane::FileDownloader plain, large;
    large.setBufferSize(102400);
    const auto ourDownload = [&](selvane::FileDownloader& downloader) {
      return [&] {
        return downloader.download(url, destination).code == selvane::FileDownloaderError::NoError;
      };
    };
    double ours = 1e30, oursLarge = 1e30, theirs = 1e30;
    for (int round = 0; round < 2; ++round) {
      ours = std::min(ours, secondsFor(ourDownload(plain)));
      unlink(destination.c_str());
      oursLarge = std::min(oursLarge, secondsFor(ourDownload(large)));
      unlink(destination.c_str());
      theirs = std::min(theirs, secondsFor([&] { return curlDownload(url, destination); }));
      unlink(destination.c_str());
    }
    rmdir(dir);
    nginx.stop();

    const double mib = static_cast<double>(mebibytes);
    std::printf("file: %ld MiB over http://127.0.0.1 from nginx\n", mebibytes);
    std::printf("download(url, path)                 : %8.3f s  %8.1f MiB/s\n", ours, mib / ours);
    std::printf("download(url, path), 100 KiB buffer : %8.3f s  %8.1f MiB/s\n", oursLarge,
                mib / oursLarge);
    std::printf("curl -o                             : %8.3f s  %8.1f MiB/s\n", theirs,
                mib / theirs);
    std::printf("throughput ratio download / curl    : %8.3f (100 KiB buffer: %.3f)\n",
                theirs / ours, theirs / oursLarge);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return 0;
}
