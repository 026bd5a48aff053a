// selvane-pack: makes signed releases for devices running libselvane.
//
//   selvane-pack sign --key PRIVATE.pem [--output OUT] PACKAGE
//   selvane-pack manifest --version VERSION --base-url URL --output MANIFEST PACKAGE...
//   selvane-pack sign-manifest --key PRIVATE.pem [--output OUT] MANIFEST
//   selvane-pack show [--json] MANIFEST
//
// Outputs are written to a temporary file beside their destination and renamed into place, so a
// failed run leaves nothing half-written. Exit status: 0 done, 1 failed, 2 bad usage.
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "../common/CommandLine.h"
#include "Commands.h"
#include "Error.h"

int main(int argc, char** argv) {
  CLI::App app("Signs packages and writes release manifests for devices running libselvane.",
               "selvane-pack");
  tools::setUp(app);
  std::string key, output, version, baseUrl;
  std::vector<std::string> operands;
  bool json = false;

  CLI::App* sign = app.add_subcommand("sign", "Sign a package.");
  sign->footer(
      "Adds (or replaces) the package's \"signature\" member: an RSA signature (PKCS #1 v1.5,\n"
      "SHA-1) over its debian-binary, control.tar.gz and data.tar.gz data. The package is\n"
      "replaced unless --output names another file.");
  sign->add_option("-k,--key", key, "PEM private key")->type_name("PRIVATE.pem")->required();
  sign->add_option("-o,--output", output, "write the signed package here (default: in place)")
      ->type_name("OUT");
  sign->add_option("PACKAGE", operands, "the package")->type_name("")->required()->expected(1);

  CLI::App* manifest = app.add_subcommand("manifest", "Write the manifest of a release.");
  manifest->footer(
      "Lists each package's name and version (from its control data), size, URL (URL/file\n"
      "name) and SHA-256. Sign the packages first: the SHA-256 covers the signature.");
  manifest->add_option("-v,--version", version, "the release version")
      ->type_name("VERSION")
      ->required();
  manifest->add_option("-u,--base-url", baseUrl, "where the packages will be served")
      ->type_name("URL")
      ->required();
  manifest->add_option("-o,--output", output, "the manifest file to write")
      ->type_name("MANIFEST")
      ->required();
  manifest->add_option("PACKAGE", operands, "the packages")->type_name("");

  CLI::App* signManifest =
      app.add_subcommand("sign-manifest", "Write a manifest's detached signature.");
  signManifest->footer(
      "Writes the manifest's detached signature (SHA-256; RSA PKCS #1 v1.5 or ECDSA P-256) to\n"
      "OUT, by default MANIFEST.sig. Devices fetch it from the manifest's URL followed by "
      "\".sig\".");
  signManifest->add_option("-k,--key", key, "PEM private key")
      ->type_name("PRIVATE.pem")
      ->required();
  signManifest->add_option("-o,--output", output, "the signature file (default: MANIFEST.sig)")
      ->type_name("OUT");
  signManifest->add_option("MANIFEST", operands, "the manifest")
      ->type_name("")
      ->required()
      ->expected(1);

  CLI::App* show = app.add_subcommand("show", "Print a manifest, as JSON with --json.");
  show->add_flag("--json", json, "print JSON");
  show->add_option("MANIFEST", operands, "the manifest")->type_name("")->required()->expected(1);

  app.footer("Exit status: 0 done, 1 failed (message on standard error), 2 bad usage.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::fprintf(stderr, "selvane-pack: %s\nRun 'selvane-pack --help' for more information.\n",
                 tools::usageProblem(app, error).c_str());
    return 2;
  }
  try {
    if (sign->parsed()) {
      pack::signPackage(key, operands[0], output.empty() ? operands[0] : output);
    } else if (manifest->parsed()) {
      pack::writeManifest(version, baseUrl, operands, output);
    } else if (signManifest->parsed()) {
      pack::signManifest(key, operands[0], output.empty() ? operands[0] + ".sig" : output);
    } else {
      pack::showManifest(operands[0], json, std::cout);
    }
    return 0;
  } catch (const pack::ToolError& e) {
    std::fprintf(stderr, "selvane-pack: %s\n", e.what());
    return 1;
  }
}
