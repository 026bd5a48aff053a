#!/bin/bash
# Installs what the signed-download test runs from the npm registry into tests/s3rver/node_modules
# (git-ignored): s3rver, a fake S3 server. Run once before the suite (scripts/test.sh does); a
# second run only re-checks the installed copy.
set -euo pipefail
cd "$(dirname "$0")/../tests/s3rver"

installedVersion() { node -p "require('./node_modules/$1/package.json').version" 2>/dev/null || true; }

if [ "$(installedVersion s3rver)" != 3.7.1 ]; then
  echo "setup-s3rver: installing s3rver into $PWD/node_modules"
  npm install --no-audit --no-fund --no-package-lock --loglevel=error
fi

# s3rver 3.7.1 leaves the Date header out of the string it signs when a request is authorised by
# header, so every correctly signed request with a Date header (and no x-amz-date) is refused with
# SignatureDoesNotMatch. Its query-string branch sets the timestamp; do the same for headers, taking
# "date" unless "x-amz-date" is present (x-amz-date then travels as a canonical amz header).
auth=node_modules/s3rver/lib/middleware/authentication.js
fixed='canonicalRequest.timestamp = ctx.headers["x-amz-date"] ? "" : ctx.headers["date"];'
if ! grep -qF "$fixed" "$auth"; then
  sed -i "s|const result = parseHeader(ctx.headers);|const result = parseHeader(ctx.headers); $fixed|" "$auth"
fi
# A changed upstream line would make sed a silent no-op: refuse to go on with an unfixed server.
if ! grep -qF "$fixed" "$auth"; then
  echo "setup-s3rver: could not apply the Date fix to $auth" >&2
  exit 1
fi
