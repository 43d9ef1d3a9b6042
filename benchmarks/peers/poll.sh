#!/bin/bash
# The job of `varn-scripts run` by bash, curl and sha256sum: poll.sh SERVER DIRECTORY SCRIPT_ID
set -euo pipefail
server=$1 directory=$2 id=$3 repository=client-data/7/scriptrepo
cd "$directory"
curl --silent --fail --output list.xml "$server/$repository/scripts-meta.xml"
entry=$(sed -n "/<ScriptRepo>/{:a;N;/<\/ScriptRepo>/!ba;/<script_id>$id</p}" list.xml)
version=$(sed -n 's/.*<modified_time>\(.*\)<.*/\1/p' <<<"$entry")
document=$(sed -n 's/.*<filepath>\(.*\)<.*/\1/p' <<<"$entry")
if [ "$(cat "$id.version" 2>/dev/null)" != "$version" ] || [ ! -f "$id.xml" ]; then
  curl --silent --fail --output "$id.xml" "$server$document"
fi
checksum=$(sed -n 's/.*<checksum_val>\(.*\)<.*/\1/p' "$id.xml")
name=$(sed -n 's/.*<file_name>\(.*\)<.*/\1/p' "$id.xml")
if ! echo "$checksum  $name" | sha256sum --check --status 2>/dev/null; then
  curl --silent --fail --output "$name" "$server$(sed -n 's/.*<download_url>\(.*\)<.*/\1/p' "$id.xml")"
  echo "$checksum  $name" | sha256sum --check --status
fi
echo "$version" >"$id.version"
output=$(sh "$name")
printf '%s\n' "$output"
