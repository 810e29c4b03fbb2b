# shellcheck shell=bash
# SPDX-License-Identifier: GPL-2.0-only
# For the scripts here that download: an apt with a state of its own below $cache, so that the machine's package lists, and
# what it has installed, do not matter and do not change. Who sources it has $cache, and `fail`, which ends it.

mirror() { # RELEASE: where the machine's own apt has it from; nothing when it has not
  apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT) $(CREATED_BY)' 2>/dev/null |
    awk -v release="$1" '$2 == release && $3 == "main" && $4 == "Packages" { print $1; exit }'
}

# An apt whose own architecture is ARCH, with nothing installed.
prepare_apt() { # ARCH
  local state=$cache/apt-$1 uri security
  uri=${VM_MIRROR:-$(mirror bookworm)}
  security=${VM_SECURITY_MIRROR:-$(mirror bookworm-security)}
  [ -n "$uri" ] || fail "this machine's apt names no mirror of Debian bookworm main; set VM_MIRROR to the URL of one"
  [ -r /usr/share/keyrings/debian-archive-keyring.gpg ] || fail "the package debian-archive-keyring is missing; install it"
  mkdir -p "$state/lists/partial" "$cache/debs/partial" "$state/cache" "$state/parts"
  : >"$state/status"
  {
    local by=[signed-by=/usr/share/keyrings/debian-archive-keyring.gpg]
    echo "deb $by $uri bookworm main"
    [ -z "$security" ] || echo "deb $by $security bookworm-security main"
  } >"$state/sources.list"
  cat >"$state/apt.conf" <<C
Dir::State "$state";
Dir::State::lists "$state/lists";
Dir::State::status "$state/status";
Dir::State::extended_states "$state/extended_states";
Dir::Cache "$state/cache";
Dir::Cache::archives "$cache/debs";
Dir::Log "$state";
Dir::Etc::sourcelist "$state/sources.list";
Dir::Etc::sourceparts "$state/parts";
Dir::Etc::preferencesparts "$state/parts";
Dir::Etc::preferences "$state/none";
#clear APT::Architectures;
APT::Architectures { $(if [ "$1" = amd64 ]; then echo '"amd64";'; else echo '"i386"; "amd64";'; fi) };
APT::Architecture "$1";
APT::Install-Recommends "false";
APT::Keep-Downloaded-Packages "true";
APT::Sandbox::User "$(id -un)";
Acquire::Languages "none";
Acquire::Retries "3";
Debug::NoLocking "true";
#clear APT::Update::Pre-Invoke;
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
#clear DPkg::Pre-Install-Pkgs;
#clear DPkg::Pre-Invoke;
#clear DPkg::Post-Invoke;
C
}

# Makes the apt of ARCH ready, with the mirrors' newest lists.
read_lists() { # ARCH
  prepare_apt "$1"
  if grep -q bookworm-security "$cache/apt-$1/sources.list" && ! private "$1" apt-get update -q >"$cache/log" 2>&1; then
    # A mirror of its own, which is halfway through an update of itself for longer than one can wait.
    tail -3 "$cache/log" >&2
    echo "${0##*/}: $1: the lists of security updates cannot be read; going on without them" >&2
    sed -i /bookworm-security/d "$cache/apt-$1/sources.list"
  fi
  quietly "reading the mirrors' lists" private "$1" apt-get update -q
}

private() { # ARCH PROGRAM ARGUMENT...
  local arch=$1 program=$2
  shift 2
  "$program" -c="$cache/apt-$arch/apt.conf" "$@"
}

# Runs a command whose output matters only when it fails.
quietly() { # WHAT COMMAND...
  local what=$1 log=$cache/log
  shift
  "$@" >"$log" 2>&1 && return
  tail -15 "$log" >&2
  fail "$what failed; the lines above are the program's own"
}

# The version that a package's newest candidate has in the mirror's list.
candidate() { # ARCH PACKAGE
  private "$1" apt-cache show --no-all-versions "$2" 2>/dev/null | sed -n 's/^Version: //p' | head -1
}

package_file() { # PACKAGE ARCH VERSION
  local version=${3/:/%3a}
  echo "$cache/debs/$1_${version}_$2.deb"
}

# get_packages ARCH NAME:OF...: downloads what is not there yet and sets $debs to the files. OF is a package's own
# architecture, or all.
get_packages() {
  local arch=$1 pair names=() name of version spec deb
  shift
  debs=()
  for pair; do
    name=${pair%:*} of=${pair#*:}
    spec=$name:$of
    [ "$of" != all ] || spec=$name
    version=$(candidate "$arch" "$spec")
    [ -n "$version" ] || fail "the mirrors' lists have no $spec; try --update"
    deb=$(package_file "$name" "$of" "$version")
    debs+=("$deb")
    [ -f "$deb" ] || names+=("$spec")
  done
  [ ${#names[@]} -gt 0 ] || return 0
  echo "${0##*/}: $arch: ${names[*]}"
  # `download` writes into the working directory.
  (cd "$cache/debs/partial" && quietly "downloading ${names[*]}" private "$arch" apt-get download "${names[@]}" && mv ./*.deb ..)
  for deb in "${debs[@]}"; do
    [ -f "$deb" ] || fail "$deb was not downloaded"
  done
}
