#!/bin/sh
# stripped_size.sh STRIP PROGRAM [LIMIT]
#
# Prints the bytes of the program once it is stripped as for delivery; fails when they reach the
# limit.

set -eu
stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
"$1" -o "$stripped" "$2"
size=$(wc -c <"$stripped")
echo "$2: $size bytes stripped"
[ "$size" -lt "${3:-$((size + 1))}" ] || {
    echo "the limit is $3 bytes"
    exit 1
}
