#!/bin/sh
# Searches an account file for accounts that leave the computer open: one without a password, or
# one beside root that has root's user ID.
#
#   open-accounts.sh [ACCOUNT_FILE]
#
# Exit status, as search programs have it: 0 something was found, 1 nothing was found, 2 the file
# can't be read. Nothing found is the good outcome, so 1 is this script's accepted code.

LC_ALL=C
export LC_ALL

file=${1:-/etc/passwd}
if [ ! -r "$file" ]; then
  echo "open-accounts.sh: can't read $file" >&2
  exit 2
fi

awk -F: -v file="$file" '
  /^[#+-]/ || NF < 3 { next }
  { accounts++ }
  $2 == "" { print "without a password: " $1; found++ }
  $3 == 0 && $1 != "root" { print "has the user ID of root: " $1; found++ }
  END {
    if (found) exit 0
    print "None of the " accounts + 0 " accounts in " file " is open."
    exit 1
  }' "$file"
