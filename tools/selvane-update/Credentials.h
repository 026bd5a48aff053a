// Storage credentials for signed downloads, read from a file of two lines:
//   access_key_id=AKIA...
//   secret_access_key=...
// Blank lines and lines starting with '#' are ignored. Keep the file readable by root only.
#ifndef SELVANE_UPDATE_CREDENTIALS_H
#define SELVANE_UPDATE_CREDENTIALS_H

#include <zorvelauth.h>

#include <string>

namespace update {

// Throws Failure(Usage) naming the file and what is wrong with it.
zorvelauth::Credentials loadCredentials(const std::string& path);

}  // namespace update

#endif
