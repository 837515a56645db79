#!/bin/sh
# The rule of the layers: it accepts the tree, and finds a planted wrong arrow and a planted ring.
# Usage: layers_test.sh TREE
set -eu
tree=$1
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT

"$tree/packaging/include-rule" "$tree"

plant() { # file, included file, words of the finding
    rm -rf "$copy/src"
    cp -R "$tree/src" "$copy/src"
    echo "#include \"$2\"" >>"$copy/src/$1"
    if found=$("$tree/packaging/include-rule" "$copy"); then
        echo "not found: $1 includes $2" >&2
        exit 1
    fi
    case $found in
    *"$3"*) ;;
    *)
        echo "found instead: $found" >&2
        exit 1
        ;;
    esac
}

plant host/support/fork.h host/registry/store.h 'host/support must not include host/registry/store.h'
plant keyview/core/context.h host/support/fork.h 'keyview must not include host/support/fork.h'
plant admin/error.h ctl/view.h 'admin must not include ctl/view.h'
plant model/path.h model/locks.h 'ring: '
plant host/registry/store.h host/registry/client.h 'ring: '
