#!/bin/sh
# Installs a build, moves what was installed to another prefix and uses it there: the tool, the C
# and C++ programs of examples/, built by pkg-config and by CMake, and the one in Python.
#
# Usage: installed_test.sh BUILD SOURCES LIBDIR CC CXX
set -eu
build=$1 sources=$2 libdir=$3 cc=$4 cxx=$5
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH
KEYVIEW_REGISTRY=lmdb:$folder/registry
export KEYVIEW_REGISTRY

DESTDIR=$folder/staged cmake --install "$build" --prefix /opt/keyview >/dev/null
mv "$folder/staged/opt/keyview" "$folder/moved"
prefix=$folder/moved
lib=$prefix/$libdir

fail() {
    echo "installed_test: $*" >&2
    exit 1
}

# Every file that somebody looks for, by the name under which it is looked for.
for file in "$libdir/libkeyview12.so" "$libdir/libkeyview-host.so" include/keyview/prsr.h \
    include/keyview/prsr.hpp lib/python3/dist-packages/keyview/_declarations.py \
    include/keyview/keyview_host.h include/keyview/keyview_registry.h include/keyview/platform/kvtc.h \
    share/bash-completion/completions/keyviewctl share/zsh/site-functions/_keyviewctl \
    share/fish/vendor_completions.d/keyviewctl.fish share/man/man1/keyviewctl.1 \
    share/man/man5/keyview-document.5 share/man/man7/keyview-keys.7 share/man/man7/keyview.7 \
    share/man/man3/prsr_init.3 share/man/man3/prsr_release_nodeapps_config.3 \
    share/keyview/schemas/keyviewctl-1.json share/keyview/schemas/keyview-cluster-1.json \
    share/doc/keyview/README.md share/doc/keyview/docs/keyview-document.md \
    share/doc/keyview/examples/cluster.json; do
    [ -s "$prefix/$file" ] || fail "$file was not installed"
done
if [ -e "$build/lib/libkeyview-etcd.so" ]; then
    [ -s "$lib/keyview/libkeyview-etcd.so" ] || fail "the cluster module was not installed"
fi

# A library is found under its soname, and a linker finds it without the version.
for name in keyview12:libkeyview12.so keyview-host:libkeyview-host.so.0; do
    soname=$(readelf -d "$lib/lib${name%%:*}.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
    [ "$soname" = "${name#*:}" ] || fail "lib${name%%:*}.so has the soname $soname"
    [ -e "$lib/$soname" ] || fail "there is no $soname"
done

# Nothing remembers where the tree was built or first installed.
left=$(grep -rlF -e /opt/keyview -e "$folder/staged" -e "$sources" "$lib/pkgconfig" "$lib/cmake" || true)
[ -z "$left" ] || fail "names the folder of its build: $left"

"$prefix/bin/keyviewctl" apply "$prefix/share/doc/keyview/examples/cluster.json" >/dev/null
"$prefix/bin/keyview-hosttest" "$lib/libkeyview-host.so"
"$prefix/bin/keyviewctl" manual | cmp - "$prefix/share/man/man1/keyviewctl.1"

mkdir "$folder/programs" "$folder/by-pkg-config"
cp "$prefix"/share/doc/keyview/examples/example.c* "$folder/programs"

PKG_CONFIG_PATH=$lib/pkgconfig
export PKG_CONFIG_PATH
flags=$(pkg-config --cflags --libs keyview12 keyview-host)
for program in example.c example.cpp; do
    case $program in
    *.c) compile="$cc -std=c99" ;;
    *) compile="$cxx -std=c++17" ;;
    esac
    # shellcheck disable=SC2086  # lists of words
    $compile -Wall -Werror -o "$folder/by-pkg-config/$(echo $program | tr . -)" \
        "$folder/programs/$program" $flags -Wl,-rpath,"$lib"
done
unset PKG_CONFIG_PATH

cmake -G Ninja -S "$sources/tests/install/consumer" -B "$folder/by-cmake" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" -DPROGRAMS="$folder/programs" >/dev/null
cmake --build "$folder/by-cmake" >/dev/null

for way in by-pkg-config by-cmake; do
    "$folder/$way/example-c" | grep -q '^    nightly_batch  *disabled$' || fail "$way: example.c"
    "$folder/$way/example-cpp" sales REPORTING | grep -qx 'Sales4 on node4, preferred' ||
        fail "$way: example.cpp"
    ldd "$folder/$way/example-c" | grep -qF "$lib/libkeyview-host.so.0" ||
        fail "$way: example.c runs with another library"
done

# The Python package finds the libraries beside it.
python="env PYTHONPATH=$prefix/lib/python3/dist-packages /usr/bin/python3 -B"
$python "$prefix/share/doc/keyview/examples/example.py" | grep -qx 'Sales: reporting without Sales3' ||
    fail "example.py"
$python -c 'import keyview; print(open("/proc/self/maps").read())' | grep -qF "$lib/libkeyview-host.so.0" ||
    fail "Python runs with another library"

rm -r "$folder/registry"
if "$folder/by-cmake/example-c" 2>"$folder/error"; then fail "a program reads a registry that is gone"; fi
grep -q "there is no registry in '$folder/registry'" "$folder/error"
