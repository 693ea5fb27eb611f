#!/usr/bin/env bash
# A test host: runs a command in a private mount namespace that looks like a server of its own
# to the installer, and changes nothing on this machine. Fresh tmpfs on /tmp, /var, /opt and
# /dev (null, zero, random, urandom, tty, a pseudo-terminal instance of its own), an overlay on /etc with RELEASE_TEXT as
# /etc/redhat-release (the other release files removed), and HOME under /var, so that the RPM
# database (Debian's rpm keeps it in ~/.rpmdb) is the host's own.
# The source tree, the caller's directory and the directories named in ZEL_HOST_KEEP
# (space-separated: the programs under test) stay visible when they lie under /tmp.
# Usage: host.sh RELEASE_TEXT COMMAND [ARG]...   (as root)
set -euo pipefail
[ $# -ge 2 ] || { echo "usage: $0 RELEASE_TEXT COMMAND [ARG]..." >&2; exit 2; }
repo=$(cd "$(dirname "$0")/../.." && pwd)
exec unshare --mount --propagation private -- bash -s -- "$repo" "$PWD" "$@" <<'INSIDE'
set -euo pipefail
repo="$1" caller="$2" release="$3"; shift 3
source "$repo/tests/common/fresh_tmp.sh"
exec 9</tmp # the old /tmp, for what of it stays visible
# The staging tmpfs goes on /tmp first and is hidden by the fresh /tmp at the end; the new
# /dev and the overlay's upper layer live on in it.
stage=/tmp
mount -t tmpfs -o mode=0755 zelhost "$stage"
mkdir -p "$stage/dev" "$stage/upper" "$stage/work"
for node in null zero random urandom tty; do
  touch "$stage/dev/$node"
  mount --bind "/dev/$node" "$stage/dev/$node"
done
ln -s /proc/self/fd "$stage/dev/fd"
mkdir "$stage/dev/pts"
mount -t devpts -o newinstance,ptmxmode=0666 zelhost-pts "$stage/dev/pts"
ln -s pts/ptmx "$stage/dev/ptmx"
mount -t overlay zelhost-etc -o "lowerdir=/etc,upperdir=$stage/upper,workdir=$stage/work" /etc
rm -f /etc/redhat-release /etc/SuSE-release /etc/UnitedLinux-release
printf '%s\n' "$release" > /etc/redhat-release
mount --move "$stage/dev" /dev 2>/dev/null || mount --rbind "$stage/dev" /dev
for dir in /var /opt; do mount -t tmpfs -o mode=0755 zelhost "$dir"; done
fresh_tmp "$repo" "$caller" ${ZEL_HOST_KEEP:-}
mkdir -p /var/lib/zelhost-home /var/tmp
export HOME=/var/lib/zelhost-home TMPDIR=/tmp
exec "$@" </dev/null
INSIDE
