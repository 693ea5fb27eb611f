# fresh_tmp.sh - sourced by the test hosts' setup scripts (tests/install/host.sh,
# tests/rollout/fleet.sh), inside a private mount namespace: a fresh tmpfs on /tmp that still
# shows the given directories when they lie under the old /tmp (a clone, its build directory
# and the test's work directory may well be there, and a host must reach the programs under
# test). The caller opens descriptor 9 on the old /tmp before anything is mounted on it.
#   exec 9</tmp ... fresh_tmp DIR...
fresh_tmp() {
  mount -t tmpfs -o mode=1777 zelhost /tmp
  local dir
  for dir in "$@"; do
    case $dir in /tmp/?*) ;; *) continue ;; esac
    [ -d "/proc/$$/fd/9/${dir#/tmp/}" ] || continue
    mkdir -p "$dir"
    # Not canonicalized: the descriptor's link must name the old /tmp, not the path "/tmp".
    mount --no-canonicalize --bind "/proc/$$/fd/9/${dir#/tmp/}" "$dir"
  done
  exec 9<&-
}
