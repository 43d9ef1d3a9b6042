# shellcheck shell=sh
# Makes a root directory of a Debian release and runs commands in it; sourced by the scripts beside
# it. Wants root rights and debootstrap; packages come from where this system's apt takes them.
#
# $root is that directory, $log the file that takes the output of what `quietly` runs.
# shellcheck disable=SC2154

say() { printf '==> %s\n' "$*"; }

fail() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Runs a command with its output in $log, and shows the file's end when the command fails.
quietly() {
  if ! "$@" >"$log" 2>&1 </dev/null; then
    tail -n 30 "$log" >&2
    fail "this failed: $*"
  fi
}

inside() {
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive ${http_proxy:+"http_proxy=$http_proxy"} \
    ${https_proxy:+"https_proxy=$https_proxy"} chroot "$root" "$@"
}

# shellcheck source=/dev/null  # The system's own file.
own_release=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")

# Makes $root, of the release $1.
make_root() {
  [ "$(id -u)" -eq 0 ] || fail "root rights are needed to make a root to install into"
  command -v debootstrap >/dev/null || fail "debootstrap is missing: apt-get install debootstrap"
  # shellcheck disable=SC2016  # apt's own variables.
  mirror=$(apt-get indextargets --format '$(CODENAME) $(REPO_URI)' 'Created-By: Packages' |
    sed -n "s/^$own_release //p" | head -n 1)
  [ -n "$mirror" ] || fail "this system's apt knows no source for $own_release"
  eval "$(apt-config shell http_proxy Acquire::http::Proxy https_proxy Acquire::https::Proxy)"
  [ -z "${http_proxy:-}" ] || export http_proxy
  [ -z "${https_proxy:-}" ] || export https_proxy

  say "Making a fresh root of $1"
  quietly debootstrap --variant=minbase "$1" "$root" "$mirror"
  cp -L /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true
}
