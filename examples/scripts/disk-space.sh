#!/bin/sh
# Reports the free space of volumes and fails when one of them runs short.
#
#   disk-space.sh MIN_FREE_MIB PATH LABEL [PATH LABEL]...
#
# Exit status: 0 enough space everywhere, 1 at least one volume runs short, 2 wrong arguments or a
# path whose volume can't be asked.

LC_ALL=C
export LC_ALL

if [ $# -lt 3 ] || [ $(($# % 2)) -ne 1 ]; then
  echo "usage: disk-space.sh MIN_FREE_MIB PATH LABEL [PATH LABEL]..." >&2
  exit 2
fi
minimum=$1
shift
case $minimum in
  '' | *[!0-9]*)
    echo "disk-space.sh: MIN_FREE_MIB is a whole number of MiB, not '$minimum'" >&2
    exit 2
    ;;
esac

status=0
while [ $# -gt 0 ]; do
  path=$1
  label=$2
  shift 2

  # The column before the percentage is the free space; device names may hold blanks, so the
  # columns are counted from the percentage.
  figures=$(df -Pk "$path" 2>/dev/null | awk '
    NR == 2 {
      for (i = 2; i <= NF; i++)
        if ($i ~ /^[0-9]+%$/) {
          print int($(i - 1) / 1024), $i
          exit
        }
    }')
  if [ -z "$figures" ]; then
    echo "$label ($path): can't be asked for its free space"
    status=2
    continue
  fi

  free=${figures% *}
  used=${figures#* }
  if [ "$free" -lt "$minimum" ]; then
    echo "$label ($path): SHORT, $free MiB free, $used used, at least $minimum MiB wanted"
    [ "$status" -ne 0 ] || status=1
  else
    echo "$label ($path): ok, $free MiB free, $used used"
  fi
done
exit "$status"
