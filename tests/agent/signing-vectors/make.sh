#!/bin/sh
# Makes the test vectors beside this file with minisign: keys, and signatures over list.xml. Keys
# and signatures that are there are left alone; remove them all to have new ones, and then put the
# keys' names and lines into the tests.
#
# first.key, second.key and third.key have no passphrase, locked.key has the one in locked.passphrase.

set -eu
cd "$(dirname "$0")"

key() {
  [ -f "$1.key" ] || minisign -G -W -p "$1.pub" -s "$1.key" >/dev/null
}

# sign FILE KEY COMMENT [OPTION...]
sign() {
  file=$1 key=$2 comment=$3
  shift 3
  [ -f "$file" ] ||
    minisign -S "$@" -s "$key.key" -m list.xml -x "$file" -t "$(printf '%b' "$comment")" >/dev/null
}

key first
key second
key third
if [ ! -f locked.key ]; then
  # It asks for the passphrase twice.
  cat locked.passphrase locked.passphrase | minisign -G -p locked.pub -s locked.key >/dev/null
fi

readonly TIMES='\tpublished:2026-11-22T11:30:00Z\texpires:2026-12-22T11:30:00Z'
sign first.minisig first "customer:acme\tserial:7$TIMES" -W
sign second.minisig second "customer:acme\tserial:7$TIMES" -W
# Of the older kind, which signs the list itself.
sign whole.minisig first "customer:acme\tserial:7$TIMES" -W -l
# With the comment that minisign writes when it is not told one.
[ -f uncommented.minisig ] ||
  minisign -S -W -s first.key -m list.xml -x uncommented.minisig >/dev/null
# By the key that has a passphrase.
[ -f locked.minisig ] ||
  minisign -S -s locked.key -m list.xml -x locked.minisig \
    -t "$(printf 'customer:acme\tserial:7%b' "$TIMES")" <locked.passphrase >/dev/null
chmod 644 ./*.key
