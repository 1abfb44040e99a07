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

# The Debian archive this machine's apt uses (not its security or updates suites), so that no
# script carries a mirror's address of its own.
apt_mirror() {
  {
    sed -e '/^[[:space:]]*#/d' -e 's/\[[^]]*\]//g' /etc/apt/sources.list /etc/apt/sources.list.d/*.list 2>/dev/null |
      awk '$1 == "deb" && $3 !~ /(security|updates|backports)/ { print $2 }'
    for sources in /etc/apt/sources.list.d/*.sources; do
      [ -f "$sources" ] && { sed '/^[[:space:]]*#/d' "$sources"; echo; }
    done | awk 'BEGIN { RS = ""; FS = "\n" }
      { types = uris = suites = ""; enabled = "yes"
        for (i = 1; i <= NF; i++) {
          key = tolower($i); sub(/:.*/, "", key); value = $i; sub(/^[^:]*:[ \t]*/, "", value)
          if (key == "types") types = value; else if (key == "uris") uris = value
          else if (key == "suites") suites = value; else if (key == "enabled") enabled = tolower(value)
        }
        if (enabled == "no" || (" " types " ") !~ /[ \t]deb[ \t]/) next
        n = split(suites, suite, /[ \t]+/)
        for (j = 1; j <= n; j++)
          if (suite[j] != "" && suite[j] !~ /(security|updates|backports)/) { split(uris, uri, /[ \t]+/); print uri[1]; next }
      }'
  } | head -n 1
}

debian_mirror() {
  local mirror=${TARVO_I386_MIRROR:-$(apt_mirror)}
  [ -n "$mirror" ] || die "no Debian archive in apt's sources: name one in TARVO_I386_MIRROR"
  printf '%s\n' "$mirror"
}

# Whether this machine runs 32-bit x86 code itself; where it does not, it runs it through
# Debian's qemu-user-static, registered with binfmt_misc (flag F: the interpreter is opened now,
# so it works inside chroots too). A machine that runs the code natively is left untouched.
# Sets i386_emulated.
i386_emulated=false
ensure_i386_runs() {
  command -v arch-test >/dev/null || "$source_dir/scripts/install-deps.sh" i386
  if arch-test -n i386 >/dev/null 2>&1; then
    return
  fi
  "$source_dir/scripts/install-deps.sh" i386-emulation >&2
  local binfmt=/proc/sys/fs/binfmt_misc
  [ -e "$binfmt/register" ] || mount -t binfmt_misc binfmt_misc "$binfmt" ||
    die "binfmt_misc is not available: this machine cannot run 32-bit x86 code"
  if ! grep -qs '^enabled' "$binfmt/qemu-i386" || ! grep -qs '^flags: .*F' "$binfmt/qemu-i386"; then
    [ ! -e "$binfmt/qemu-i386" ] || echo -1 >"$binfmt/qemu-i386"
    # ELF, 32-bit, little-endian, executable or shared object, machine 3 (Intel 80386).
    printf '%s' ':qemu-i386:M::\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x03\x00:\xff\xff\xff\xff\xff\xfe\xfe\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff:/usr/bin/qemu-i386-static:F' \
      >"$binfmt/register"
  fi
  arch-test i386 >/dev/null 2>&1 || die "32-bit x86 code does not run here, not even through qemu-i386-static"
  i386_emulated=true
  log "this machine does not run 32-bit x86 code: running it through qemu-i386-static user-mode emulation (several times slower)"
}
