#!/usr/bin/env bash
# Makes the broker's update package
#   OUTDIR/qm-av-broker_nats-bin-linux-glibc2.28.amd64_VERSION.zip
# holding install.sh at its top and bin/qm-av-broker and bin/nats-server. The broker is
# $QM_BROKER_BINARY, else build/qm-av-broker (built first if missing); nats-server is
# $QM_NATS_SERVER, else the project-local one in .deps/. Prints the package's path.
# With QM_UPDATE_SIGNING_KEY (an Ed25519 private key in PEM form) it also writes the
# package's signature, base64 on one line, to OUTDIR/<package>.sig: the text the update
# server sends in "X-Content-Signature", and the file a manual package needs beside it.
set -euo pipefail

component=qm-av-broker_nats-bin-linux-glibc2.28.amd64
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

die() { echo "package: $*" >&2; exit 1; }

[ $# -eq 2 ] || { echo "usage: $0 OUTDIR VERSION   (VERSION as YYYYMMDDNNN)" >&2; exit 2; }
outdir=$1
version=$2
[[ $version =~ ^[0-9]{11}$ ]] || die "VERSION must be YYYYMMDDNNN (11 digits), not '$version'"

broker=${QM_BROKER_BINARY:-$root/build/qm-av-broker}
if [ -z "${QM_BROKER_BINARY:-}" ] && [ ! -x "$broker" ]; then
  echo "package: building $broker" >&2
  cmake -S "$root" -B "$root/build" >&2
  cmake --build "$root/build" --target qm-av-broker -j2 >&2
fi
nats=${QM_NATS_SERVER:-$root/.deps/nats-server/usr/sbin/nats-server}
[ -x "$broker" ] || die "no broker binary at $broker"
[ -x "$nats" ] || die "no nats-server at $nats (run scripts/setup.sh or set QM_NATS_SERVER)"
command -v zip >/dev/null || die "the zip command is missing (run scripts/setup.sh)"
signing_key=${QM_UPDATE_SIGNING_KEY:-}
[ -z "$signing_key" ] || [ -r "$signing_key" ] || die "cannot read the signing key $signing_key"

mkdir -p "$outdir"
out="$(cd "$outdir" && pwd)/${component}_${version}.zip"
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
mkdir "$stage/bin"
install -m 0755 "$broker" "$stage/bin/qm-av-broker"
install -m 0755 "$nats" "$stage/bin/nats-server"

# The updater unpacks the package, writes the version file into the new version's bin
# directory and runs: install.sh EXTRACTDIR BASEDIR CONTENTDIR.
cat > "$stage/install.sh" <<'EOF'
#!/bin/sh
set -eu
[ $# -eq 3 ] || { echo "usage: install.sh EXTRACTDIR BASEDIR CONTENTDIR" >&2; exit 2; }
for f in qm-av-broker nats-server; do
  cp "$1/bin/$f" "$3/.$f.new"
  chmod 0755 "$3/.$f.new"
  mv -f "$3/.$f.new" "$3/$f"
done
EOF
chmod 0755 "$stage/install.sh"

rm -f "$out" "$out.part" "$out.sig"
(cd "$stage" && zip -q -X -r "$out.part" install.sh bin)
if [ -n "$signing_key" ]; then
  # Ed25519 signs the package's bytes themselves (-rawin), not a digest of them.
  openssl pkeyutl -sign -rawin -inkey "$signing_key" -in "$out.part" | base64 -w0 > "$out.sig.part"
  [ -s "$out.sig.part" ] || die "signing with $signing_key failed"
  mv "$out.sig.part" "$out.sig"
fi
mv "$out.part" "$out"
echo "$out"
