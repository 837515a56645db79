#!/bin/sh
# Compares what the library exports and what it leaves undefined with the lists beside this script:
# exactly the operations go out, nothing comes in but the outside operations and libc.
#
# Usage: border_test.sh LIBRARY
set -eu
library=$1
here=$(dirname "$0")
failed=0

words() { tr -s ' \n' '\n\n' <"$here/$1" | LC_ALL=C sort; }

exported=$(nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' |
    LC_ALL=C sort)
if [ "$exported" != "$(words exported_names.txt)" ]; then
    echo "exported, and not as exported_names.txt has it:"
    printf '%s\n%s\n' "$exported" "$(words exported_names.txt)" | LC_ALL=C sort | uniq -u
    failed=1
fi

unknown=$(nm -D --undefined-only "$library" | awk '{ print $NF }' | grep -v '@GLIBC_' |
    grep -vxF "$(words outside_names.txt)" || true)
if [ -n "$unknown" ]; then
    echo "undefined names that are neither outside operations nor libc:" "$unknown"
    failed=1
fi

needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
if [ "$needed" != libc.so.6 ]; then
    echo "linked with other than libc:" "$needed"
    failed=1
fi
exit $failed
