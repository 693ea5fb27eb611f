#!/usr/bin/env bash
# fleet.sh - a fleet of test hosts for the rollout tests and the rollout benchmark, sourced by
# them. Each host is a persistent private mount namespace (unshare --mount=FILE) with its own
# /etc (an overlay holding its release file), /var, /opt (overlays), /tmp and /dev (tmpfs, the
# device nodes bound in), and its own RPM database (Debian's rpm keeps it in ~/.rpmdb). Ansible
# reaches a host with the local connection through a per-host interpreter that enters the
# namespace (nsenter) and runs python3 there; the module files under ~/.ansible/tmp and the
# snapshot spool /var/tmp/zelparser stay the controller's, since the local connection copies
# through the controller's own paths.
#
# Everything happens inside a private mount namespace of the caller's (fleet_enter), whose
# home directory and /var are overlays: this machine never changes. Their upper directories
# and the hosts' live in a tmpfs (WORK/sys, gone with the namespace): hosts make and remove
# thousands of small files (Ansible's module files, the packages' files, the journals), which
# cost a disk file system a tenth of the test's CPU time in finding free inodes.
#
#   fleet_enter WORK SCRIPT ARGS...      re-runs SCRIPT inside a private mount namespace
#   fleet_init WORK [DIR...]             (inside) the namespaces' tmpfs, ~/.rpmdb, the spool;
#                                        DIRs (the programs under test) stay visible on the
#                                        hosts when they lie under /tmp
#   fleet_host NAME RELEASE_TEXT LIB     a host; LIB yes: it has libzelagent.so.1
#   fleet_inventory FILE HOST...         an inventory of the hosts, in that order
#   fleet_exec HOST COMMAND...           a command run on a host
#   fleet_kill HOST                      every process of a host killed (a crash)
#   fleet_playbook INVENTORY ARGS...     ansible-playbook zelparser.rollout.rollout

FLEET_REPO=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

# The kernel binds a mount namespace's file only into an older namespace than the one bound,
# and tells their age by ids that each CPU hands out from a batch of its own: the caller's
# namespace and every host's are therefore made on CPU 0 (fleet_init lets the rest run on all).
fleet_enter() {
  local work=$1
  shift
  mkdir -p "$work"
  exec taskset -c 0 unshare --mount --propagation private -- "$@"
}

# The caller's own private world: overlays on its home directory and /var (ansible's
# ~/.ansible, the RPM database's mount point, the spool), a tmpfs for the namespace files
# (binding a mount namespace needs a private mount to bind it on).
fleet_init() {
  FLEET_WORK=$1
  FLEET_NS=$FLEET_WORK/ns
  FLEET_SYS=$FLEET_WORK/sys
  FLEET_KEEP=("${@:2}")
  local name dir
  taskset -p -c "0-$(($(nproc --all) - 1))" $$ >/dev/null
  mkdir -p "$FLEET_SYS"
  mount -t tmpfs zelfleet "$FLEET_SYS"
  for name in home var; do
    dir=/var
    [ $name = var ] || dir=$HOME
    mkdir -p "$FLEET_SYS/controller-$name/upper" "$FLEET_SYS/controller-$name/work"
    mount -t overlay zelfleet -o "lowerdir=$dir,upperdir=$FLEET_SYS/controller-$name/upper,workdir=$FLEET_SYS/controller-$name/work" "$dir"
  done
  FLEET_RPMDB=$(rpm --eval '%_dbpath')
  mkdir -p "$FLEET_RPMDB" /var/tmp/zelparser "$FLEET_NS"
  mount -t tmpfs zelfleet "$FLEET_NS"
  mount --make-private "$FLEET_NS"
  export ANSIBLE_COLLECTIONS_PATH=$FLEET_REPO/ansible ANSIBLE_RETRY_FILES_ENABLED=false
  export ANSIBLE_NOCOLOR=1 ANSIBLE_FORCE_COLOR=0 ANSIBLE_DEPRECATION_WARNINGS=false
  export ANSIBLE_LOCALHOST_WARNING=false ANSIBLE_INVENTORY_UNPARSED_WARNING=false
  export PATH=/usr/sbin:/usr/bin:/sbin:/bin
}

# The host's mounts, made inside its new namespace. Staged under a tmpfs of its own: /dev
# (device nodes bound from this machine's) and the controller's spool, moved into place once
# /var is the host's.
FLEET_HOST_SETUP='
set -e
dir=$1 release=$2 lib=$3 rpmdb=$4 repo=$5 work=$6 caller=$7
shift 7 # then the directories to keep visible
source "$repo/tests/common/fresh_tmp.sh"
exec 9</tmp # the old /tmp, for what of it stays visible
stage=$dir/stage
mount -t tmpfs zelhost "$stage"
mkdir "$stage/dev" "$stage/spool"
mount -t tmpfs -o mode=0755 zelhost "$stage/dev"
for node in null zero random urandom; do
  touch "$stage/dev/$node"
  mount --bind "/dev/$node" "$stage/dev/$node"
done
ln -s /proc/self/fd "$stage/dev/fd"
for n in 0:stdin 1:stdout 2:stderr; do ln -s "/proc/self/fd/${n%%:*}" "$stage/dev/${n#*:}"; done
mkdir "$stage/dev/shm"
mount --bind /var/tmp/zelparser "$stage/spool"
for top in etc var opt; do
  mount -t overlay zelhost -o "lowerdir=/$top,upperdir=$dir/$top,workdir=$dir/$top.work" "/$top"
done
rm -f /etc/redhat-release /etc/SuSE-release /etc/UnitedLinux-release
printf "%s\n" "$release" >/etc/redhat-release
if [ "$lib" = yes ]; then
  mkdir -p /opt/zellib
  : >/opt/zellib/libzelagent.so.1
  echo /opt/zellib >/etc/ld.so.conf.d/zeltest.conf
fi
mkdir -p /var/tmp/zelparser
mount --move "$stage/spool" /var/tmp/zelparser
mount --move "$stage/dev" /dev
umount "$stage"
fresh_tmp "$repo" "$work" "$caller" "$@"
mount --bind "$dir/rpmdb" "$rpmdb"
'

fleet_host() {
  local name=$1 release=$2 lib=$3 dir=$FLEET_SYS/hosts/$1
  mkdir -p "$dir"/{etc,var,opt,etc.work,var.work,opt.work,stage,rpmdb}
  [ ! -d "$FLEET_RPMDB" ] || cp -a "$FLEET_RPMDB/." "$dir/rpmdb/"
  touch "$FLEET_NS/$name"
  # On CPU 0, as the caller's namespace was made (fleet_enter): else the kernel may find the
  # new namespace older than the caller's and refuse to bind it (EINVAL).
  taskset -c 0 unshare --mount="$FLEET_NS/$name" --propagation private \
    bash -c "$FLEET_HOST_SETUP" fleet_host "$dir" "$release" "$lib" "$FLEET_RPMDB" "$FLEET_REPO" \
    "$FLEET_WORK" "$PWD" "$FLEET_SYS" "${FLEET_KEEP[@]}"
  printf '#!/bin/sh\nexec nsenter --mount=%s -- /usr/bin/python3 "$@"\n' "$FLEET_NS/$name" \
    >"$dir/python"
  chmod 755 "$dir/python"
}

fleet_inventory() {
  local file=$1 host
  shift
  {
    echo "[fleet]"
    for host in "$@"; do
      echo "$host ansible_connection=local ansible_python_interpreter=$FLEET_SYS/hosts/$host/python"
    done
  } >"$file"
}

fleet_exec() {
  local host=$1
  shift
  nsenter --mount="$FLEET_NS/$host" -- "$@"
}

# Every process whose mount namespace is the host's, killed at once: the host crashed.
fleet_kill() {
  local want pid
  want="mnt:[$(stat -L -c %i "$FLEET_NS/$1")]"
  for pid in /proc/[0-9]*; do
    [ "$(readlink "$pid/ns/mnt" 2>/dev/null)" = "$want" ] && kill -KILL "${pid#/proc/}" 2>/dev/null
  done
  return 0
}

fleet_playbook() {
  local inventory=$1
  shift
  ansible-playbook -i "$inventory" zelparser.rollout.rollout "$@"
}
