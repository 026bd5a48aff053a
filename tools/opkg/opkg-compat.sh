#!/bin/sh
# opkg-compat: a small package tool that behaves like opkg for what selvane asks of it.
#
# POSIX sh with busybox applets only (ar, tar, gzip, awk, sed, grep, mktemp, ...), so that the same
# file serves as the running system's /usr/bin/opkg (install into an offline root) and as a target
# root's own /usr/bin/opkg-cl (configure and remove under chroot).
#
#   opkg [OPTIONS] install PACKAGE-FILE...   unpack into the root; configured at once unless offline
#   opkg [OPTIONS] configure [NAME...]       run the postinst of one, some, or all unpacked packages
#   opkg [OPTIONS] remove NAME...            run prerm, delete the package's files, run postrm
#   opkg [OPTIONS] list-installed            "NAME - VERSION" for every unpacked or installed package
#
# Options, anywhere on the line: --offline-root=DIR (-o DIR), --conf=FILE (-f FILE), --tmp-dir=DIR
# (-t DIR); the force options --force-depends, --force-downgrade, --force-maintainer,
# --force-remove, --force-reinstall, --force-overwrite and --nodeps are accepted. Dependencies are
# never resolved. Work files go below the --tmp-dir directory only (default $TMPDIR or /tmp).
#
# Packages are ar archives with debian-binary, control.tar.gz and data.tar.gz. The configuration
# file (default ROOT/etc/opkg/opkg.conf, if any) gives "arch NAME PRIORITY" lines, which restrict
# the architectures accepted when present, and "dest NAME PATH" (the first one is used; default /).
# The database is opkg's: ROOT/var/lib/opkg/status (stanzas with Package, Version, Status,
# Architecture; Status "install ok unpacked" until configured, then "install ok installed") and
# ROOT/var/lib/opkg/info/NAME.{control,list,preinst,postinst,prerm,postrm,conffiles,sha256sums,...}.
# The status file is replaced by rename, so readers never see half of it. Busybox has no flock, so
# the tool takes no lock, but like opkg it leaves ROOT/var/lib/opkg/lock in place for readers that
# lock it (they can do so on a read-only mount only when the file exists).
# Maintainer scripts are not run in an offline root, and configure refuses to run there. Removal
# deletes files and links, never directories. A newer installed version is kept unless
# --force-downgrade is given; the same version is left alone unless --force-reinstall is given.
# Errors go to stderr with exit status 1 (2 for usage errors).

PROG=opkg
ROOT=
CONF=
TMP_DIR=${TMPDIR:-/tmp}
FORCE_DOWNGRADE=
FORCE_REINSTALL=
FORCE_REMOVE=
WORK=
CONTROL_MEMBERS="control conffiles preinst postinst prerm postrm sha256sums md5sums"

die() {
  echo "$PROG: $*" >&2
  exit 1
}

usage() {
  echo "$PROG: $*" >&2
  echo "usage: $PROG [--offline-root=DIR] [--conf=FILE] [--tmp-dir=DIR] [--force-...]" \
    "install FILE... | configure [NAME...] | remove NAME... | list-installed" >&2
  exit 2
}

cleanup() {
  [ -n "$WORK" ] && rm -rf "$WORK"
  WORK=
}
trap cleanup EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# ---- configuration ---------------------------------------------------------------------------

# Architectures accepted (space separated, empty: any) and the destination directory.
load_config() {
  ARCHES=
  DEST=/
  if [ -z "$CONF" ]; then
    [ -f "$ROOT/etc/opkg/opkg.conf" ] || return 0
    CONF=$ROOT/etc/opkg/opkg.conf
  fi
  [ -r "$CONF" ] || die "cannot read configuration file $CONF"
  ARCHES=$(awk '$1 == "arch" && NF >= 2 { printf "%s ", $2 }' "$CONF") ||
    die "cannot read configuration file $CONF"
  dest=$(awk '$1 == "dest" && NF >= 3 { print $3; exit }' "$CONF")
  [ -n "$dest" ] && DEST=$dest
  return 0
}

arch_accepted() {
  [ -z "$ARCHES" ] && return 0
  case " $ARCHES" in *" $1 "*) return 0 ;; esac
  return 1
}

# ---- status database -------------------------------------------------------------------------

# Shared awk: value() is the text of a "Key: value" line without the key and the blanks around.
AWK_VALUE='
  function value(line) { sub(/^[^:]*:[ \t]*/, "", line); sub(/[ \t\r]*$/, "", line); return line }
'

db_paths() {
  OPKG_DIR=$ROOT/var/lib/opkg
  STATUS=$OPKG_DIR/status
  INFO=$OPKG_DIR/info
}

# Prints FIELD of NAME's stanza in the status file (empty when absent).
status_field() {
  [ -f "$STATUS" ] || return 0
  awk -v name="$1" -v field="$2" "$AWK_VALUE"'
    /^[ \t\r]*$/ { pkg = ""; next }
    /^Package:/ { pkg = value($0); next }
    pkg == name && index($0, field ":") == 1 { print value($0); exit }
  ' "$STATUS"
}

# Runs awk PROGRAM over the status file, with -v name=NAME and the optional -v VAR=VALUE, and puts
# its output in place by rename.
status_rewrite() {
  mkdir -p "$OPKG_DIR" || die "cannot create $OPKG_DIR"
  [ -f "$STATUS" ] || : >"$STATUS" || die "cannot create $STATUS"
  [ -f "$OPKG_DIR/lock" ] || : >"$OPKG_DIR/lock" || die "cannot create $OPKG_DIR/lock"
  if awk -v name="$1" -v "${3:-_=}" "$2" "$STATUS" >"$STATUS.new"; then
    mv -f "$STATUS.new" "$STATUS" && return 0
  fi
  rm -f "$STATUS.new"
  die "cannot update $STATUS"
}

# Shared awk: collects each stanza in buf and calls emit() at its end; drop is set for NAME's.
STANZA_AWK=$AWK_VALUE'
  function flush() { if (buf != "") emit(); buf = ""; drop = 0 }
  /^[ \t\r]*$/ { flush(); next }
  /^Package:/ { if (value($0) == name) drop = 1 }
  { buf = buf $0 "\n" }
  END { flush() }
'

# Removes NAME's stanza.
status_drop() {
  status_rewrite "$1" "$STANZA_AWK"'
    function emit() { if (!drop) printf "%s\n", buf }'
}

# Replaces NAME's stanza (or adds it at the end) with the stanza in file $2.
status_put() {
  status_rewrite "$1" "$STANZA_AWK"'
    function emit() { if (!drop) printf "%s\n", buf }
    END { while ((getline line < stanza) > 0) printf "%s\n", line; printf "\n" }' "stanza=$2"
}

# Sets the Status value of NAME's stanza to $2.
status_set() {
  status_rewrite "$1" "$STANZA_AWK"'
    function emit(    n, i, lines) {
      if (drop) {
        n = split(buf, lines, "\n"); buf = ""
        for (i = 1; i < n; i++) buf = buf (index(lines[i], "Status:") == 1 ? "Status: " status : lines[i]) "\n"
      }
      printf "%s\n", buf
    }' "status=$2"
}

# Names whose Status has the word WORD, in file order.
status_names_with() {
  [ -f "$STATUS" ] || return 0
  awk -v word="$1" "$AWK_VALUE"'
    function flush() { if (pkg != "" && has) print pkg; pkg = ""; has = 0 }
    /^[ \t\r]*$/ { flush(); next }
    /^Package:/ { pkg = value($0) }
    /^Status:/ { n = split(value($0), w, " "); for (i = 1; i <= n; i++) if (w[i] == word) has = 1 }
    END { flush() }
  ' "$STATUS"
}

is_known() {
  [ -n "$(status_field "$1" Status)" ]
}

# ---- versions --------------------------------------------------------------------------------

# Prints -1, 0 or 1 as version $1 sorts before, equal to or after $2 (epoch:upstream-revision).
version_compare() {
  awk -v a="$1" -v b="$2" '
    function ord(c) {
      if (c == "" || c ~ /[0-9]/) return 0
      if (c == "~") return -1
      if (c ~ /[A-Za-z]/) return index(chars, c)
      return index(chars, c) + 256
    }
    function part(x, y,    xc, yc, xn, yn) {
      while (x != "" || y != "") {
        while ((x != "" && x !~ /^[0-9]/) || (y != "" && y !~ /^[0-9]/)) {
          xc = ord(substr(x, 1, 1)); yc = ord(substr(y, 1, 1))
          if (xc != yc) return xc < yc ? -1 : 1
          x = substr(x, 2); y = substr(y, 2)
        }
        match(x, /^[0-9]*/); xn = substr(x, 1, RLENGTH); x = substr(x, RLENGTH + 1)
        match(y, /^[0-9]*/); yn = substr(y, 1, RLENGTH); y = substr(y, RLENGTH + 1)
        sub(/^0+/, "", xn); sub(/^0+/, "", yn)
        if (length(xn) != length(yn)) return length(xn) < length(yn) ? -1 : 1
        if (xn != yn) return xn < yn ? -1 : 1
      }
      return 0
    }
    function split_version(v, out) {
      out["epoch"] = 0
      if (match(v, /^[0-9]+:/)) { out["epoch"] = substr(v, 1, RLENGTH - 1) + 0; v = substr(v, RLENGTH + 1) }
      out["rev"] = ""
      if (match(v, /-[^-]*$/)) { out["rev"] = substr(v, RSTART + 1); v = substr(v, 1, RSTART - 1) }
      out["up"] = v
    }
    BEGIN {
      for (i = 33; i < 127; i++) chars = chars sprintf("%c", i)
      split_version(a, va); split_version(b, vb)
      if (va["epoch"] != vb["epoch"]) r = va["epoch"] < vb["epoch"] ? -1 : 1
      else if ((r = part(va["up"], vb["up"])) == 0) r = part(va["rev"], vb["rev"])
      print r
    }'
}

# ---- maintainer scripts ----------------------------------------------------------------------

# Runs maintainer script FILE with the remaining arguments from /; a missing script succeeds. Scripts
# belong to the target system, so they never run against an offline root.
run_script_file() {
  script=$1
  shift
  [ -z "$ROOT" ] && [ -f "$script" ] || return 0
  # A script without an interpreter line, or one that may not be executed, is fed to sh.
  first=
  IFS= read -r first <"$script" || :
  case "$first" in
    '#!'*) [ -x "$script" ] && { (cd / && PKG_ROOT=/ "$script" "$@"); return; } ;;
  esac
  (cd / && PKG_ROOT=/ sh "$script" "$@")
}

# Runs the installed script NAME.$2 of the database with the remaining arguments.
run_script() {
  file=$INFO/$1.$2
  shift 2
  run_script_file "$file" "$@"
}

# ---- install ---------------------------------------------------------------------------------

# Prints FIELD of a control file.
control_field() {
  awk -v field="$2" '
    index($0, field ":") == 1 { sub(/^[^:]*:[ \t]*/, ""); sub(/[ \t\r]*$/, ""); print; exit }
  ' "$1"
}

# Unpacks package file $1 into $WORK: control/ and data.tar, and sets NAME, VERSION, ARCH.
unpack_package() {
  pkg=$1
  [ -e "$pkg" ] || die "cannot find package file $pkg"
  [ -d "$pkg" ] && die "$pkg is a directory, not a package file"
  # Read by the shell itself: a package that never arrives (a stalled pipe) hangs here, not in a child.
  magic=
  IFS= read -r magic <"$pkg" || :
  [ "$magic" = '!<arch>' ] || die "$pkg is not an opkg package (not an ar archive)"
  case "$pkg" in /*) ;; *) pkg=$PWD/$pkg ;; esac

  mkdir -p "$TMP_DIR" 2>/dev/null
  WORK=$(mktemp -d "$TMP_DIR/opkg-XXXXXX") || die "cannot create a work directory in $TMP_DIR"
  (cd "$WORK" && ar x "$pkg") >/dev/null 2>&1 || die "$pkg: cannot unpack the ar archive"
  for member in debian-binary control.tar.gz data.tar.gz; do
    [ -f "$WORK/$member" ] || die "$pkg: member $member is missing"
  done
  mkdir "$WORK/control" || die "cannot create $WORK/control"
  gzip -dc "$WORK/control.tar.gz" >"$WORK/control.tar" 2>/dev/null &&
    tar -xf "$WORK/control.tar" -C "$WORK/control" 2>/dev/null ||
    die "$pkg: control.tar.gz is damaged"
  gzip -dc "$WORK/data.tar.gz" >"$WORK/data.tar" 2>/dev/null || die "$pkg: data.tar.gz is damaged"
  tar -tf "$WORK/data.tar" >"$WORK/entries" 2>/dev/null || die "$pkg: data.tar.gz is damaged"

  [ -f "$WORK/control/control" ] || die "$pkg: control file is missing"
  NAME=$(control_field "$WORK/control/control" Package)
  VERSION=$(control_field "$WORK/control/control" Version)
  ARCH=$(control_field "$WORK/control/control" Architecture)
  [ -n "$NAME" ] || die "$pkg: control file has no Package field"
  case "$NAME" in
    .* | *[!A-Za-z0-9+._-]*) die "$pkg: invalid package name '$NAME'" ;;
  esac
  [ -n "$VERSION" ] || die "$pkg: control file has no Version field"
  [ -n "$ARCH" ] || die "$pkg: control file has no Architecture field"
  arch_accepted "$ARCH" || die "$pkg: architecture $ARCH is not among the configured ($ARCHES)"

  # Entry names relative to the destination; none may climb out of it.
  sed -e 's|^\./||' -e 's|^/*||' -e 's|/*$||' -e '/^\.\{0,1\}$/d' "$WORK/entries" >"$WORK/names"
  awk -F/ '{ for (i = 1; i <= NF; i++) if ($i == "..") bad = 1 } END { exit bad }' \
    "$WORK/names" || die "$pkg: data.tar.gz has paths outside the root"
}

# Decides whether NAME/VERSION replaces what is installed; returns 1 to skip quietly.
check_version() {
  old=$(status_field "$NAME" Version)
  [ -n "$old" ] || return 0
  case $(version_compare "$VERSION" "$old") in
    0)
      if [ -z "$FORCE_REINSTALL" ] && [ "$(status_field "$NAME" Status)" = "install ok installed" ]; then
        echo "Package $NAME ($VERSION) installed in root is up to date."
        return 1
      fi
      ;;
    -1)
      [ -n "$FORCE_DOWNGRADE" ] ||
        die "not downgrading package $NAME from $old to $VERSION (use --force-downgrade)"
      ;;
  esac
  return 0
}

install_one() {
  unpack_package "$1"
  check_version || {
    cleanup
    return 0
  }
  old=$(status_field "$NAME" Version)
  case "$old" in
    "") echo "Installing $NAME ($VERSION) on root." && set -- install ;;
    "$VERSION") echo "Reinstalling $NAME ($VERSION) on root." && set -- upgrade "$old" ;;
    *) echo "Upgrading $NAME from $old to $VERSION on root." && set -- upgrade "$old" ;;
  esac
  run_script_file "$WORK/control/preinst" "$@" || die "preinst script of $NAME failed"

  target=$ROOT$DEST
  mkdir -p "$target" "$INFO" || die "cannot create $target or $INFO"
  tar -xf "$WORK/data.tar" -C "$target" || die "cannot unpack the files of $NAME into $target"

  # The list holds the absolute paths of everything but directories.
  : >"$WORK/list"
  while IFS= read -r entry; do
    if [ -d "$target/$entry" ] && [ ! -h "$target/$entry" ]; then continue; fi
    echo "/$entry" >>"$WORK/list"
  done <"$WORK/names"
  if [ -f "$INFO/$NAME.list" ]; then
    # Files of the old version that the new one no longer has.
    grep -Fxv -f "$WORK/list" "$INFO/$NAME.list" | while IFS= read -r gone; do
      remove_file "$gone"
    done
  fi
  for member in $CONTROL_MEMBERS; do
    rm -f "$INFO/$NAME.$member"
    if [ -f "$WORK/control/$member" ]; then
      cp "$WORK/control/$member" "$INFO/$NAME.$member" || die "cannot write $INFO/$NAME.$member"
    fi
  done
  cp "$WORK/list" "$INFO/$NAME.list" || die "cannot write $INFO/$NAME.list"
  # Files this package now holds leave the lists of the packages that held them before, so that
  # removing those later leaves them in place.
  for other in "$INFO"/*.list; do
    [ "$other" != "$INFO/$NAME.list" ] && [ -f "$other" ] || continue
    grep -Fxq -f "$WORK/list" "$other" || continue
    grep -Fxv -f "$WORK/list" "$other" >"$WORK/other.list"
    cat "$WORK/other.list" >"$other" || die "cannot write $other"
  done

  depends=$(control_field "$WORK/control/control" Depends)
  {
    echo "Package: $NAME"
    echo "Version: $VERSION"
    [ -z "$depends" ] || echo "Depends: $depends"
    echo "Status: install ok unpacked"
    echo "Architecture: $ARCH"
    echo "Installed-Time: $(date +%s)"
  } >"$WORK/stanza"
  status_put "$NAME" "$WORK/stanza"
  cleanup
  [ -n "$ROOT" ] || configure_one "$NAME"
}

# ---- configure and remove --------------------------------------------------------------------

configure_one() {
  status=$(status_field "$1" Status)
  [ -n "$status" ] || {
    echo "$PROG: package $1 is not installed" >&2
    return 1
  }
  case " $status " in *" installed "*) return 0 ;; esac
  echo "Configuring $1."
  run_script "$1" postinst configure || {
    echo "$PROG: postinst script of $1 returned status $?; it stays unpacked" >&2
    return 1
  }
  status_set "$1" "install ok installed"
}

# Deletes one listed path below the root; directories stay, and so does anything climbing out.
remove_file() {
  case "$1" in "" | */../* | */..) return 0 ;; esac
  if [ -d "$ROOT$1" ] && [ ! -h "$ROOT$1" ]; then return 0; fi
  rm -f "$ROOT$1"
}

remove_one() {
  is_known "$1" || {
    echo "$PROG: package $1 is not installed" >&2
    return 1
  }
  echo "Removing package $1 from root..."
  run_script "$1" prerm remove || {
    [ -n "$FORCE_REMOVE" ] || {
      echo "$PROG: prerm script of $1 failed (use --force-remove)" >&2
      return 1
    }
  }
  if [ -f "$INFO/$1.list" ]; then
    while IFS= read -r file; do remove_file "$file"; done <"$INFO/$1.list"
  fi
  run_script "$1" postrm remove || echo "$PROG: postrm script of $1 failed" >&2
  for member in $CONTROL_MEMBERS list; do rm -f "$INFO/$1.$member"; done
  status_drop "$1"
}

# ---- command line ----------------------------------------------------------------------------

# Options may stand anywhere, as with getopt: each argument is taken from the front, and what is
# not an option goes back at the end, so that only the operands remain, in their order.
remaining=$#
while [ "$remaining" -gt 0 ]; do
  arg=$1
  shift
  remaining=$((remaining - 1))
  case "$arg" in
    --offline-root=*) ROOT=${arg#*=} ;;
    --conf=*) CONF=${arg#*=} ;;
    --tmp-dir=*) TMP_DIR=${arg#*=} ;;
    -o | --offline-root | -f | --conf | -t | --tmp-dir)
      [ "$remaining" -gt 0 ] || usage "option $arg needs an argument"
      case "$arg" in
        -o | --offline-root) ROOT=$1 ;;
        -f | --conf) CONF=$1 ;;
        *) TMP_DIR=$1 ;;
      esac
      shift
      remaining=$((remaining - 1))
      ;;
    --force-downgrade) FORCE_DOWNGRADE=1 ;;
    --force-reinstall) FORCE_REINSTALL=1 ;;
    --force-remove) FORCE_REMOVE=1 ;;
    --nodeps | --force-depends | --force-maintainer | --force-overwrite) ;;
    --)
      while [ "$remaining" -gt 0 ]; do
        set -- "$@" "$1"
        shift
        remaining=$((remaining - 1))
      done
      ;;
    -?*) usage "unknown option $arg" ;;
    *) set -- "$@" "$arg" ;;
  esac
done
[ $# -gt 0 ] || usage "no sub-command given"
command=$1
shift

ROOT=${ROOT%/}
if [ -n "$ROOT" ] && [ ! -d "$ROOT" ]; then die "offline root $ROOT is not a directory"; fi
db_paths
load_config

rc=0
case "$command" in
  install)
    [ $# -gt 0 ] || usage "install needs a package file"
    for pkg in "$@"; do install_one "$pkg" || rc=1; done
    ;;
  configure)
    [ -z "$ROOT" ] || die "cannot configure in an offline root; run opkg-cl inside the target"
    set -f
    [ $# -gt 0 ] || set -- $(status_names_with unpacked)
    for name in "$@"; do configure_one "$name" || rc=1; done
    ;;
  remove)
    [ $# -gt 0 ] || usage "remove needs a package name"
    for name in "$@"; do remove_one "$name" || rc=1; done
    ;;
  list-installed)
    [ -f "$STATUS" ] || exit 0
    awk "$AWK_VALUE"'
      function flush() { if (pkg != "" && has) print pkg " - " ver; pkg = ver = ""; has = 0 }
      /^[ \t\r]*$/ { flush(); next }
      /^Package:/ { pkg = value($0) }
      /^Version:/ { ver = value($0) }
      /^Status:/ { has = value($0) ~ /(^| )(installed|unpacked)( |$)/ }
      END { flush() }
    ' "$STATUS"
    ;;
  *) usage "unknown sub-command $command" ;;
esac
exit $rc
