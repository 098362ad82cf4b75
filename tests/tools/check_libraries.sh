#!/bin/sh
# check_libraries.sh native|foreign PROGRAM...
#
# Fails unless each program needs the C library, and nothing else, at run time. A device has no C++
# runtime, and no room for one. What a program for this machine needs is asked of the loader; of a
# foreign one the file itself tells.

set -eu
export LC_ALL=C
kind=$1
shift
status=0
for program in "$@"; do
    if [ "$kind" = native ]; then
        needs=$(ldd "$program" | awk '{ print $1 }')
    else
        needs=$(readelf -d "$program" | sed -n 's/.*(NEEDED).*\[\(.*\)\]$/\1/p')
    fi
    c_library=no
    for library in $needs; do
        case ${library##*/} in
        libc.so.*) c_library=yes ;;
        ld-linux*.so.* | ld.so.* | linux-vdso.so.* | linux-gate.so.*) ;;
        *)
            echo "$program needs $library"
            status=1
            ;;
        esac
    done
    if [ $c_library = no ]; then
        echo "$program: no need of the C library to be seen:" $needs
        status=1
    fi
done
exit $status
