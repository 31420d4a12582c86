#!/usr/bin/env bash
# Runs a command (a test binary and its arguments) in a private IPC and mount
# namespace with fresh tmpfs on /tmp and /dev/shm, so that the library's
# fixed System V keys and /tmp files of one test never meet another's or the
# machine's own. Where no namespace can be made, runs the command serially
# (one at a time, machine-wide) and removes those keys and files before and
# after it. With AMBIT_ISOLATE_STRICT=1 there is no such fallback: the
# script fails (exit 125) rather than touch the machine's own keys and files.
set -u

if [ "${AMBIT_ISOLATED:-}" = 1 ]; then
  exec "$@"
fi

# Inside the new namespaces: mount the fresh file systems, then bring back
# the directories under /tmp that the command needs (its own and the working
# directory), which the new /tmp hides.
inner='
set -e
keep=()
for d in "$PWD" "$(dirname "$1")"; do
  case "$d" in
    /tmp/*) top=/tmp/$(printf "%s" "${d#/tmp/}" | cut -d/ -f1); keep+=("$top") ;;
  esac
done
fd=20
declare -A seen
for top in "${keep[@]}"; do
  [ -n "${seen[$top]:-}" ] && continue
  seen[$top]=$fd
  eval "exec $fd<\"\$top\""
  fd=$((fd + 1))
done
mount -t tmpfs -o mode=1777 ambit-tmp /tmp
[ -d /dev/shm ] && mount -t tmpfs -o mode=1777 ambit-shm /dev/shm
for top in "${!seen[@]}"; do
  mkdir -p "$top"
  mount --no-canonicalize --bind "/proc/self/fd/${seen[$top]}" "$top"
  eval "exec ${seen[$top]}<&-"
done
cd "$PWD"
export AMBIT_ISOLATED=1
exec "$@"
'

ns=(--ipc --mount --propagation private --fork)
if unshare "${ns[@]}" true 2>/dev/null; then
  exec unshare "${ns[@]}" -- bash -c "$inner" bash "$@"
fi
if unshare --user --map-root-user "${ns[@]}" true 2>/dev/null; then
  exec unshare --user --map-root-user "${ns[@]}" -- bash -c "$inner" bash "$@"
fi

# Fallback: no namespaces here.
if [ "${AMBIT_ISOLATE_STRICT:-}" = 1 ]; then
  echo "run-isolated: cannot make a private IPC and mount namespace here" >&2
  exit 125
fi
clean() {
  local key
  for key in $(ipcs -m 2>/dev/null | awk 'NR > 3 && $1 ~ /^0x/ { print $1 }'); do
    if [ $((key)) -ge 46065 ] && [ $((key)) -le 47089 ]; then
      ipcrm -M "$key" 2>/dev/null
    fi
  done
  rm -f /tmp/ShareMemCreateTime-16AC6AB6-4CA6-4813-A086-53E43B469FF8 \
        /tmp/Ambit-ipclock-*
}
exec 9>/tmp/ambit-serial-tests.lock
flock 9
clean
"$@"
rc=$?
clean
exit $rc
