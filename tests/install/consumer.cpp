// A program that uses an installed libselvane as its users do: it links, runs, catches the
// library's exceptions by type, and keeps its own global Package, a name the library also uses
// inside itself for a generated message.
#include <selvane/selvane.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

struct Package {
  ~Package();
};
static int ownDestructions = 0;
Package::~Package() { ++ownDestructions; }

static int fail(const char* what) {
  std::fprintf(stderr, "consumer: %s\n", what);
  return 1;
}

int main(int argc, char** argv) {
  if (argc != 2) return fail("usage: consumer SCRATCH-DIR");
  const std::string path = std::string(argv[1]) + "/manifest";
  std::ofstream(path, std::ios::binary)
      << selvane::Manifest("1.0", {{"hello", "2.0", 7, "http://h/hello.ipk", "ab"}}).serialize();
  if (selvane::Manifest(path).getPackageVersion("hello") != "2.0") return fail("manifest not read");
  { Package own; }
  if (ownDestructions != 1) return fail("the library ran the program's Package destructor");

  try {
    selvane::Manifest missing(path + ".missing");
    return fail("no exception for a missing manifest");
  } catch (const std::runtime_error& e) {
    if (e.what() != "File does not exist: " + path + ".missing") return fail(e.what());
  }
  try {
    selvane::FileDownloader downloader;
    downloader.download("http://127.0.0.1:1/nothing", path + ".download");
    return fail("no exception for a refused connection");
  } catch (const selvane::FileDownloaderError& e) {
    if (e.curlCode != CURLE_COULDNT_CONNECT) return fail(e.errorString().c_str());
  }
  std::puts("consumer: ok");
  return 0;
}
