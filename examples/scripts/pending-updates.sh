#!/bin/sh
# Counts the software updates that wait to be installed, from what the package manager already
# knows: nothing is fetched, nothing is installed, no root rights are needed.
#
#   pending-updates.sh [MAX_NAMES]
#
# Exit status: 0 nothing waits, 100 updates wait, 1 the package manager gave no answer or there is
# none that this script knows, 2 wrong arguments.

LC_ALL=C
PATH=${PATH:-/usr/bin:/bin}:/usr/sbin:/sbin:/usr/bin:/bin
export LC_ALL PATH

limit=${1:-10}
case $limit in
  '' | *[!0-9]*)
    echo "usage: pending-updates.sh [MAX_NAMES]" >&2
    exit 2
    ;;
esac

if command -v apt-get >/dev/null 2>&1; then
  manager=apt
  answer=$(apt-get --simulate --option Debug::NoLocking=true dist-upgrade 2>&1) || {
    echo "apt-get could not tell: $answer"
    exit 1
  }
  names=$(printf '%s\n' "$answer" | sed -n 's/^Inst \([^ ]*\) \[.*/\1/p')
  lists=$(find /var/lib/apt/lists -maxdepth 1 -name '*_Packages*' -mtime -7 2>/dev/null)
  if [ -z "$lists" ]; then
    echo "The package lists are missing or older than a week; the count may be too low."
  fi
elif command -v dnf >/dev/null 2>&1; then
  manager=dnf
  answer=$(dnf --quiet --cacheonly check-update 2>&1)
  case $? in
    0 | 100) ;;
    *)
      echo "dnf could not tell: $answer"
      exit 1
      ;;
  esac
  names=$(printf '%s\n' "$answer" | sed -e '/^Obsoleting/,$d' | awk 'NF == 3 { print $1 }')
elif command -v softwareupdate >/dev/null 2>&1; then
  manager=softwareupdate
  answer=$(softwareupdate --list --no-scan 2>&1) || {
    echo "softwareupdate could not tell: $answer"
    exit 1
  }
  names=$(printf '%s\n' "$answer" | sed -n 's/^ *\* Label: //p')
else
  echo "No package manager here that this script knows."
  exit 1
fi

if [ -z "$names" ]; then
  echo "$manager: no updates wait."
  exit 0
fi

count=$(printf '%s\n' "$names" | awk 'END { print NR }')
echo "$manager: $count waiting to be installed"
printf '%s\n' "$names" | awk -v limit="$limit" '
  NR <= limit { print "  " $0 }
  END { if (NR > limit) print "  and " NR - limit " more" }'
exit 100
