# Shared by install_test.sh and package_test.sh: checks of an installed tree
# and of programs built against it.  The caller passes the build's facts in
# the environment (KOB_*, CC, CXX): install_test.sh gets them from its CMake
# registration, package_test.sh from the package build.

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

need() {
    for tool in "$@"; do
        command -v "$tool" >/dev/null || fail "$tool is missing (scripts/deps.sh installs it)"
    done
}

# What kobdiag prints for a bad option.
KOB_USAGE='usage: kobdiag [options]
    -m "msg"                     # Adds some comments
    -o                           # Outputs to the file
    -u username                  # Sets the KOBVANE username'

# check_tree <prefix>: exactly the shipped files, each in its place.
check_tree() {
    local root=$1 lib=$1/$KOB_LIBDIR inc=$1/$KOB_INCLUDEDIR/kob man=$1/$KOB_MANDIR

    local want got
    want=$(printf '%s\n' $KOB_PROGRAMS | sort)
    got=$(ls "$root/$KOB_BINDIR" | sort)
    [ "$got" = "$want" ] || fail "programs in $KOB_BINDIR: got [$got], want [$want]"
    want=$(printf '%s\n' $KOB_DAEMONS | sed '/^$/d' | sort)
    got=$(ls "$root/$KOB_SBINDIR" 2>/dev/null | sort)
    [ "$got" = "$want" ] || fail "programs in $KOB_SBINDIR: got [$got], want [$want]"

    for name in kob kobec; do
        [ -f "$lib/lib$name.a" ] || fail "lib$name.a missing"
        [ -f "$lib/lib$name.so.$KOB_VERSION" ] && [ ! -L "$lib/lib$name.so.$KOB_VERSION" ] ||
            fail "lib$name.so.$KOB_VERSION missing"
        [ "$(readlink "$lib/lib$name.so.$KOB_SOVERSION")" = "lib$name.so.$KOB_VERSION" ] ||
            fail "lib$name.so.$KOB_SOVERSION is not a link to lib$name.so.$KOB_VERSION"
        [ "$(readlink "$lib/lib$name.so")" = "lib$name.so.$KOB_SOVERSION" ] ||
            fail "lib$name.so is not a link to lib$name.so.$KOB_SOVERSION"
        readelf -d "$lib/lib$name.so.$KOB_VERSION" |
            grep -q "Library soname: \[lib$name.so.$KOB_SOVERSION\]" ||
            fail "lib$name.so.$KOB_VERSION lacks the SONAME lib$name.so.$KOB_SOVERSION"
    done

    want=$(cd "$KOB_SOURCE_DIR/include" && ls -- *.h | sort)
    got=$(cd "$inc" && ls | sort)
    [ "$got" = "$want" ] || fail "headers in include/kob: got [$got], want [$want]"

    for f in pkgconfig/libkob.pc pkgconfig/libkobec.pc \
        cmake/kob/kobConfig.cmake cmake/kob/kobConfigVersion.cmake cmake/kob/kobTargets.cmake; do
        [ -f "$lib/$f" ] || fail "$KOB_LIBDIR/$f missing"
    done

    for page in $KOB_MANPAGES; do
        [ -f "$man/man${page##*.}/$page" ] || fail "manual page $page missing"
    done

    # Nothing else (but the server's list of common passwords): no lab
    # build, no test programs, no benchmarks.
    local extra
    extra=$(cd "$root" && find . \( -type f -o -type l \) | sed 's|^\./||' | grep -Ev \
        -e "^$KOB_BINDIR/[^/]+$" \
        -e "^$KOB_SBINDIR/[^/]+$" \
        -e "^$KOB_INCLUDEDIR/kob/[^/]+\.h$" \
        -e "^$KOB_LIBDIR/libkob(ec)?\.(a|so(\.[0-9.]+)?)$" \
        -e "^$KOB_LIBDIR/pkgconfig/libkob(ec)?\.pc$" \
        -e "^$KOB_LIBDIR/cmake/kob/kob[A-Za-z-]*\.cmake$" \
        -e "^$KOB_MANDIR/man[0-9]/[^/]+\.[0-9]$" \
        -e "^share/kobreportd/common-passwords\.txt$" || true)
    [ -z "$extra" ] || fail "unexpected files installed: $extra"
    echo "ok: the installed tree under $root"
}

# check_usage <bin dir>: the bad-option paths of the installed programs.  A
# bad option ends kobdiag before it enters any directory or sends anything;
# no other kobdiag command line is run here.
check_usage() {
    local bin=$1 out err status
    grep -qF "$KOB_APP_DIR" "$bin/kobdiag" ||
        fail "the installed kobdiag does not carry the application directory $KOB_APP_DIR"
    status=0
    out=$("$bin/kobdiag" -x 2>"$work/err") || status=$?
    err=$(cat "$work/err")
    [ "$status" -eq 1 ] || fail "kobdiag -x: exit status $status, want 1"
    [ -z "$out" ] || fail "kobdiag -x wrote to standard output: $out"
    [ "$err" = "illegal option -- x
$KOB_USAGE" ] || fail "kobdiag -x: standard error was [$err]"
    for tool in koblog kobstat; do
        status=0
        "$bin/$tool" -x >/dev/null 2>"$work/err" || status=$?
        [ "$status" -eq 1 ] || fail "$tool -x: exit status $status, want 1"
        grep -q "^usage: $tool " "$work/err" || fail "$tool -x printed no usage"
    done
    echo "ok: the installed programs reject a bad option"
}

# check_consumer <program> <language>: a small program built against the
# installed library runs, and a broken rule inside the library ends in the
# program's own VAS_Fail.
check_consumer() {
    local program=$1 lang=$2 out status
    out=$("$program") || fail "$program: exit status $?"
    [ "$out" = "$lang: 1.5k is 1536 bytes, $((14 + ${#lang})) characters
[INFO] from $lang

Function: main:1
Error code: KOB-0001" ] || fail "$program printed [$out]"
    status=0
    out=$("$program" misuse 2>/dev/null) || status=$?
    [ "$status" -eq 134 ] || fail "$program misuse: exit status $status, want 134 (abort)"
    echo "$out" | grep -Eqx 'assert fail! [_A-Za-z]+ lib/libkob/vsb\.cpp:[0-9]+ \(s->s_flags & 0x00020000\) == state 0' ||
        fail "$program misuse printed [$out]"
}

# needs_library <program> <yes|no>: whether the program loads the shared libkob.
needs_library() {
    local program=$1 want=$2 got=no
    readelf -d "$program" | grep -q "Shared library: \[libkob.so.$KOB_SOVERSION\]" && got=yes
    [ "$got" = "$want" ] || fail "$program: loads libkob.so.$KOB_SOVERSION: $got, want $want"
}

# build_with_pkgconfig <prefix> <out dir>: the C and C++ programs through
# pkg-config, with the shared libraries, and the C one with the static ones.
build_with_pkgconfig() {
    local root=$1 out=$2 src=$KOB_SOURCE_DIR/tests/install/consumer
    local pc="env PKG_CONFIG_PATH=$root/$KOB_LIBDIR/pkgconfig pkg-config"
    mkdir -p "$out"
    $pc --exists --print-errors 'libkob = '"$KOB_VERSION" libkobec || fail "pkg-config finds no libkob"
    # shellcheck disable=SC2046
    "$CC" -Wall -Wextra -Werror $($pc --cflags libkob libkobec) "$src/consumer.c" \
        -o "$out/c" $($pc --libs libkob libkobec) || fail "C through pkg-config"
    # shellcheck disable=SC2046
    "$CXX" -std=c++20 -Wall -Wextra -Werror $($pc --cflags libkob libkobec) "$src/consumer.cpp" \
        -o "$out/cxx" $($pc --libs libkob libkobec) || fail "C++ through pkg-config"
    # Static: the libraries by name, then what --static adds (the C++ runtime).
    local private
    private=$($pc --static --libs-only-l libkob libkobec | tr ' ' '\n' | grep -Ev '^-lkob(ec)?$' | tr '\n' ' ')
    # shellcheck disable=SC2046,SC2086
    "$CC" -Wall -Wextra -Werror $($pc --cflags libkob libkobec) "$src/consumer.c" -o "$out/c-static" \
        $($pc --libs-only-L libkob) -Wl,-Bstatic -lkob -lkobec -Wl,-Bdynamic $private ||
        fail "static C through pkg-config"
    needs_library "$out/c" yes
    needs_library "$out/cxx" yes
    needs_library "$out/c-static" no
    LD_LIBRARY_PATH=$root/$KOB_LIBDIR check_consumer "$out/c" C
    LD_LIBRARY_PATH=$root/$KOB_LIBDIR check_consumer "$out/cxx" C++
    check_consumer "$out/c-static" C
    echo "ok: C and C++ through pkg-config (shared), C through pkg-config --static"
}

# build_with_cmake <prefix> <out dir>: the same programs through
# find_package(kob), once with kob::kob as it comes (shared) and once static.
build_with_cmake() {
    local root=$1 out=$2 src=$KOB_SOURCE_DIR/tests/install/consumer
    local variant static
    mkdir -p "$out"
    for variant in shared static; do
        static=OFF
        [ "$variant" = static ] && static=ON
        cmake -S "$src" -B "$out/$variant" -G Ninja -DCMAKE_PREFIX_PATH="$root" \
            -DCMAKE_C_COMPILER="$CC" -DCMAKE_CXX_COMPILER="$CXX" -DKOB_USE_STATIC=$static \
            >"$out/$variant.log" 2>&1 || { cat "$out/$variant.log"; fail "configure ($variant)"; }
        cmake --build "$out/$variant" >>"$out/$variant.log" 2>&1 ||
            { cat "$out/$variant.log"; fail "build ($variant)"; }
        local loads=yes
        [ "$variant" = static ] && loads=no
        needs_library "$out/$variant/consumer_c" $loads
        needs_library "$out/$variant/consumer_cxx" $loads
        # The build tree's run path finds the installed shared libraries.
        check_consumer "$out/$variant/consumer_c" C
        check_consumer "$out/$variant/consumer_cxx" C++
    done
    echo "ok: C and C++ through find_package(kob), shared and static"
}
