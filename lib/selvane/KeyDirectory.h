// Trusted public keys and the directories that hold them (internal, not installed), shared by the
// package and manifest verifiers so that both trust exactly the same files.
#ifndef SELVANE_KEYDIRECTORY_H
#define SELVANE_KEYDIRECTORY_H

#include <string>
#include <vector>

struct evp_pkey_st;

namespace selvane {

// The PEM public key (SubjectPublicKeyInfo) in keyPath, owned by the caller (EVP_PKEY_free).
// Throws std::runtime_error with "Unable to find the public key file" when keyPath is not a
// regular file and "Unable to load the public key file" when it holds no such key.
evp_pkey_st* LoadPublicKey(const std::string& keyPath);

// The paths of the regular files (symbolic links followed, no recursion, no name filter) in
// keyDirectory, in the order the file system lists them. Throws std::runtime_error with
// keyDirectory followed by " does not exist, or is not a directory" when it cannot be used.
std::vector<std::string> KeyFiles(const std::string& keyDirectory);

}  // namespace selvane

#endif
