# shellcheck shell=bash disable=SC2154 # `root` is the sourcing script's
# Sourced by the scripts that work inside a Debian root through chroot (build-i386.sh,
# check-packages.sh): messages, a private mount namespace, bind mounts undone at exit, and
# commands run in the root with a clean environment. The sourcing script sets `root` and may add
# variables for the root's commands to `root_env`.

log() { printf '== %s\n' "$*" >&2; }
die() { printf '%s: %s\n' "$(basename "$0" .sh)" "$*" >&2; exit 1; }

require_root() { [ "$(id -u)" -eq 0 ] || die "must run as root (debootstrap, chroot and mount need it)"; }

# Re-runs the script in a private mount namespace, which drops every mount even if the script is
# killed; the exit trap still unmounts in the normal case and where unshare is unavailable.
enter_private_mounts() { # "$@": the script's arguments
  if [ -z "${TARVO_IN_NAMESPACE:-}" ] && unshare --mount --propagation private true 2>/dev/null; then
    export TARVO_IN_NAMESPACE=1
    exec unshare --mount --propagation private bash "$0" "$@"
  fi
}

mounted=()
unmount_all() {
  local i
  for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do
    umount "${mounted[i]}" 2>/dev/null || umount -l "${mounted[i]}" 2>/dev/null || true
  done
  mounted=()
}
trap unmount_all EXIT
trap 'exit 130' INT TERM

bind() { # SOURCE TARGET [ro]
  mkdir -p "$2"
  mount --bind "$1" "$2"
  mounted+=("$2")
  if [ "${3:-}" = ro ]; then
    mount -o remount,bind,ro "$2"
  fi
}

mount_system() {
  bind /proc "$root/proc"
  bind /dev "$root/dev"
  bind /dev/pts "$root/dev/pts"
  if [ -d /dev/shm ]; then bind /dev/shm "$root/dev/shm"; fi
}

# No daemon starts while packages install (tinyproxy would), the host's name server, localhost.
prepare_root() {
  printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
  chmod 755 "$root/usr/sbin/policy-rc.d"
  cp /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true
  grep -qs '^127\.0\.0\.1[[:space:]].*localhost' "$root/etc/hosts" ||
    printf '127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost ip6-loopback\n' >>"$root/etc/hosts"
}

root_env=()
in_root() {
  chroot "$root" /usr/bin/env -i \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive "${root_env[@]}" "$@"
}
