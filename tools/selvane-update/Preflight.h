// Checks of the places an install or a check uses, made before any network access, so that a
// wrong setting is reported as what it is rather than as a failed download or signature.
#ifndef SELVANE_UPDATE_PREFLIGHT_H
#define SELVANE_UPDATE_PREFLIGHT_H

#include "Updater.h"

namespace update {

// Throws Failure(Usage) for a key directory, credentials file or cache directory that cannot be
// used, and Failure(Manifest) for a manifest that is neither an http(s) URL nor a readable file.
void checkLocations(const Options& options);

}  // namespace update

#endif
