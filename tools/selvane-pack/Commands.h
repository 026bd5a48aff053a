// The things selvane-pack does. Each throws ToolError with a message for the user.
#ifndef SELVANE_PACK_COMMANDS_H
#define SELVANE_PACK_COMMANDS_H

#include <ostream>
#include <string>
#include <vector>

namespace pack {

// Signs the package's debian-binary, control.tar.gz and data.tar.gz data (SHA-1) with the PEM
// private key and writes the package with its "signature" member added or replaced to output.
void signPackage(const std::string& keyPath, const std::string& packagePath,
                 const std::string& outputPath);

// Writes the detached signature of the manifest file's bytes (SHA-256, with an RSA or ECDSA P-256
// PEM private key) to output, as `openssl dgst -sha256 -sign` would.
void signManifest(const std::string& keyPath, const std::string& manifestPath,
                  const std::string& outputPath);

// Writes a manifest for the release: one entry per package with the name and version of its
// control data, its size, baseUrl + "/" + its file name and its SHA-256.
void writeManifest(const std::string& version, const std::string& baseUrl,
                   const std::vector<std::string>& packagePaths, const std::string& outputPath);

// Prints a manifest, readably or as JSON.
void showManifest(const std::string& path, bool json, std::ostream& out);

}  // namespace pack

#endif
