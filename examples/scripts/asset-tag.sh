#!/bin/sh
# Prints the asset tag that this computer was given at enrolment, and fails when it has none.
#
#   asset-tag.sh TAG_FILE
#
# Exit status: 0 the tag is there, 4 there is none, 2 wrong arguments.

if [ $# -ne 1 ]; then
  echo "usage: asset-tag.sh TAG_FILE" >&2
  exit 2
fi

if [ ! -s "$1" ]; then
  echo "No asset tag: $1 is missing or empty. Enrol this computer in the inventory." >&2
  exit 4
fi
echo "Asset tag: $(head -n 1 "$1")"
