// selvane-pack: makes signed releases for devices running libselvane.
//
//   selvane-pack sign --key PRIVATE.pem [--output OUT] PACKAGE
//   selvane-pack manifest --version VERSION --base-url URL --output MANIFEST PACKAGE...
//   selvane-pack sign-manifest --key PRIVATE.pem [--output OUT] MANIFEST
//   selvane-pack show [--json] MANIFEST
//
// Outputs are written to a temporary file beside their destination and renamed into place, so a
// failed run leaves nothing half-written. Exit status: 0 done, 1 failed, 2 bad usage.
#include <getopt.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Error.h"

namespace {

const char kUsage[] =
    "usage: selvane-pack sign --key PRIVATE.pem [--output OUT] PACKAGE\n"
    "       selvane-pack manifest --version VERSION --base-url URL --output MANIFEST PACKAGE...\n"
    "       selvane-pack sign-manifest --key PRIVATE.pem [--output OUT] MANIFEST\n"
    "       selvane-pack show [--json] MANIFEST\n"
    "\n"
    "sign      adds (or replaces) the package's \"signature\" member: an RSA signature\n"
    "          (PKCS #1 v1.5, SHA-1) over its debian-binary, control.tar.gz and data.tar.gz\n"
    "          data. The package is replaced unless --output names another file.\n"
    "manifest  writes a manifest listing each package's name and version (from its control\n"
    "          data), size, URL (URL/file name) and SHA-256. Sign the packages first.\n"
    "sign-manifest\n"
    "          writes the manifest's detached signature (SHA-256; RSA PKCS #1 v1.5 or ECDSA\n"
    "          P-256) to OUT, by default MANIFEST.sig. Devices fetch it from the manifest's URL\n"
    "          followed by \".sig\".\n"
    "show      prints a manifest, as JSON with --json.\n";

int usage(const char* problem = nullptr) {
  if (problem != nullptr) std::fprintf(stderr, "selvane-pack: %s\n", problem);
  std::fputs(kUsage, stderr);
  return 2;
}

struct Arguments {
  std::string key, output, version, baseUrl;
  bool json = false;
  std::vector<std::string> operands;
};

// Parses the options after the subcommand; false on a bad option.
bool parse(int argc, char** argv, Arguments& arguments) {
  static const option kOptions[] = {
      {"key", required_argument, nullptr, 'k'},     {"output", required_argument, nullptr, 'o'},
      {"version", required_argument, nullptr, 'v'}, {"base-url", required_argument, nullptr, 'u'},
      {"json", no_argument, nullptr, 'j'},          {nullptr, 0, nullptr, 0}};
  optind = 1;
  int option;
  while ((option = getopt_long(argc, argv, "k:o:v:u:j", kOptions, nullptr)) != -1) {
    switch (option) {
      case 'k':
        arguments.key = optarg;
        break;
      case 'o':
        arguments.output = optarg;
        break;
      case 'v':
        arguments.version = optarg;
        break;
      case 'u':
        arguments.baseUrl = optarg;
        break;
      case 'j':
        arguments.json = true;
        break;
      default:
        return false;
    }
  }
  arguments.operands.assign(argv + optind, argv + argc);
  return true;
}

int run(const std::string& command, const Arguments& arguments) {
  if (command == "sign") {
    if (arguments.key.empty() || arguments.operands.size() != 1)
      return usage("sign needs --key and one package");
    const std::string& package = arguments.operands[0];
    pack::signPackage(arguments.key, package,
                      arguments.output.empty() ? package : arguments.output);
  } else if (command == "manifest") {
    if (arguments.version.empty() || arguments.baseUrl.empty() || arguments.output.empty())
      return usage("manifest needs --version, --base-url and --output");
    pack::writeManifest(arguments.version, arguments.baseUrl, arguments.operands, arguments.output);
  } else if (command == "sign-manifest") {
    if (arguments.key.empty() || arguments.operands.size() != 1)
      return usage("sign-manifest needs --key and one manifest");
    const std::string& manifest = arguments.operands[0];
    pack::signManifest(arguments.key, manifest,
                       arguments.output.empty() ? manifest + ".sig" : arguments.output);
  } else if (command == "show") {
    if (arguments.operands.size() != 1) return usage("show needs one manifest");
    pack::showManifest(arguments.operands[0], arguments.json, std::cout);
  } else {
    return usage(("unknown command " + command).c_str());
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  const std::string command = argv[1];
  if (command == "--help" || command == "-h" || command == "help") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  Arguments arguments;
  if (!parse(argc - 1, argv + 1, arguments)) return usage();
  try {
    return run(command, arguments);
  } catch (const pack::ToolError& e) {
    std::fprintf(stderr, "selvane-pack: %s\n", e.what());
    return 1;
  }
}
