#!/usr/bin/env bash
# Installs what the broker needs on Debian 12 and fetches a nats-server new enough
# for the auth callout into .deps/. Safe to run again: it only does what is missing.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
deps="$root/.deps"

packages=(
  build-essential cmake pkg-config git ca-certificates
  libnats-dev
  libqpid-proton11-dev libqpid-proton-cpp12-dev python3-qpid-proton
  libmicrohttpd-dev
  libsasl2-dev libsasl2-modules
  libldap-dev slapd ldap-utils
  libssl-dev libsodium-dev libjson-c-dev
  libcurl4-openssl-dev libarchive-dev
  libjemalloc-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  clang
  curl netcat-openbsd
  zip openssl systemd
  # A test scrapes the broker with a Prometheus server of its own (temporary directory,
  # free port). Installation starts the package's system service only on a host that runs
  # systemd; the tests never use it, nor touch it.
  prometheus
)

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }

missing_packages() {
  local p
  for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q '^install ok installed$' || echo "$p"
  done
}

install_packages() {
  local missing
  missing=$(missing_packages)
  [ -z "$missing" ] && return 0
  echo "setup: installing:" $missing
  as_root apt-get update -q
  # shellcheck disable=SC2086
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $missing
}

# The main archive's URI as this machine's apt is configured (deb822 first, then the one-line format).
apt_mirror() {
  local f uri
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    uri=$(awk '
      /^[[:space:]]*$/ { if (u != "" && s !~ /security/) { print u; exit } u = ""; s = ""; next }
      /^URIs:/   { u = $2 }
      /^Suites:/ { s = $0 }
      END { if (u != "" && s !~ /security/) print u }' "$f" | head -n 1)
    [ -n "$uri" ] && { echo "$uri"; return 0; }
  done
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] || continue
    uri=$(awk '$1 == "deb" && $0 !~ /security/ { for (i = 2; i <= NF; i++) if ($i !~ /^\[/) { print $i; exit } }' "$f")
    [ -n "$uri" ] && { echo "$uri"; return 0; }
  done
  return 1
}

version_ok() { # nats-server binary -> true when it runs and is >= 2.10
  local v
  v=$("$1" --version 2>/dev/null | sed -n 's/.*v\([0-9][0-9]*\)\.\([0-9][0-9]*\).*/\1 \2/p') || return 1
  [ -n "$v" ] || return 1
  set -- $v
  [ "$1" -gt 2 ] || { [ "$1" -eq 2 ] && [ "$2" -ge 10 ]; }
}

version_2_10() { # nats-server binary -> true when it is a 2.10 release
  "$1" --version 2>/dev/null | grep -q 'v2\.10\.'
}

# fetch_nats_server DIR CHECK SUITE...: the first nats-server of the suites that passes
# CHECK, unpacked into .deps/DIR (kept when the one there passes already).
fetch_nats_server() {
  local dir=$1 check=$2; shift 2
  local bin="$deps/$dir/usr/sbin/nats-server"
  if [ -x "$bin" ] && "$check" "$bin"; then return 0; fi
  local mirror tmp suite opts
  mirror=$(apt_mirror) || { echo "setup: cannot find the apt mirror in the apt sources" >&2; return 1; }
  tmp=$(mktemp -d)
  trap 'rm -rf "$tmp"' RETURN
  for suite in "$@"; do
    mkdir -p "$tmp/$suite/lists/partial" "$tmp/$suite/cache/archives/partial"
    echo "deb $mirror $suite main" > "$tmp/$suite/sources.list"
    opts=(-o "Dir::Etc::sourcelist=$tmp/$suite/sources.list" -o "Dir::Etc::sourceparts=-"
          -o "Dir::State::Lists=$tmp/$suite/lists" -o "Dir::Cache=$tmp/$suite/cache"
          -o "APT::Get::List-Cleanup=0")
    apt-get "${opts[@]}" -q update >/dev/null 2>&1 || continue
    (cd "$tmp/$suite" && apt-get "${opts[@]}" -q download nats-server >/dev/null 2>&1) || continue
    local deb
    deb=$(ls "$tmp/$suite"/nats-server_*.deb 2>/dev/null | head -n 1)
    [ -n "$deb" ] || continue
    rm -rf "$deps/$dir.new"
    mkdir -p "$deps/$dir.new"
    dpkg -x "$deb" "$deps/$dir.new"
    if "$check" "$deps/$dir.new/usr/sbin/nats-server"; then
      rm -rf "$deps/$dir"
      mv "$deps/$dir.new" "$deps/$dir"
      echo "setup: $("$bin" --version) from $suite in .deps/$dir"
      return 0
    fi
  done
  rm -rf "$deps/$dir.new"
  echo "setup: could not fetch a nats-server for .deps/$dir" >&2
  return 1
}

install_packages
mkdir -p "$deps"
fetch_nats_server nats-server version_ok testing stable
# The oldest server the broker supports, for the tests that check what it lacks
# (per-message TTL); optional: those tests run on the newer server alone without it.
fetch_nats_server nats-server-2.10 version_2_10 stable oldstable ||
  echo "setup: no nats-server 2.10 in the Debian suites; its test rows stay off" >&2
