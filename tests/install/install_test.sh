#!/usr/bin/env bash
# Installs the build into a prefix and checks what a user of the installed
# tree gets.
#
#   install_test.sh tree          BUILD PREFIX              install, check the layout, run the tools
#   install_test.sh pkg-config    BUILD PREFIX SRC WORK     build and run the consumer with pkg-config
#   install_test.sh find-package  BUILD PREFIX SRC WORK     ... with find_package(TalvexIOReport)
#   install_test.sh exports       BUILD PREFIX SRC          the library exports exactly what its headers declare
#
# The consumer is built with the compiler and flags of the build under test
# (CXX, CXXFLAGS, LDFLAGS, CMAKE, GENERATOR from the environment), so a
# sanitizer build checks a sanitizer consumer. Exit 77: a tool this check
# needs is not installed on this machine.
set -euo pipefail

mode=$1 build=$2 prefix=$3
src=${4:-} work=${5:-}
cmake=${CMAKE:-cmake}
cxx=${CXX:-c++}
read -r -a cxxflags <<<"${CXXFLAGS:-}"
read -r -a ldflags <<<"${LDFLAGS:-}"

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# Compares a command's standard output with the expected text.
expect_output() {
    local expected=$1
    shift
    local got
    got=$("$@") || fail "$* exited with status $?; its output was:"$'\n'"$got"
    [ "$got" == "$expected" ] || fail "$*"$'\n'"expected:"$'\n'"$expected"$'\n'"got:"$'\n'"$got"
}

# What the consumer prints against a fresh simulator.
consumer_expected() {
    cat <<'EOF'
driver: ZantraTalvexProcessor
published: some channels, TOTAL MS among them
sampled: TOTAL MS = 5000
EOF
}

# Runs a consumer against a private simulator whose "TOTAL MS" counter is
# held at a known value first.
run_consumer() {
    "$prefix/bin/talvexsim" run -- sh -c '"$1" channel set "TOTAL MS" 5000 && exec "$2"' sh \
        "$prefix/bin/talvexsim" "$1"
}

case $mode in
tree)
    rm -rf "$prefix"
    "$cmake" --install "$build" --prefix "$prefix" >/dev/null
    for f in bin/talvexctl bin/talvexsim \
        include/talvex/IOReport.h include/talvex/CoreFoundation/CoreFoundation.h \
        include/talvex/IOKit/IOKitLib.h include/talvex/IOKit/IOReturn.h include/talvex/mach/mach.h \
        include/talvex/dispatch/dispatch.h include/talvex/Block.h \
        lib/pkgconfig/talvex-ioreport.pc \
        lib/cmake/TalvexIOReport/TalvexIOReportConfig.cmake \
        lib/cmake/TalvexIOReport/TalvexIOReportConfigVersion.cmake \
        lib/cmake/TalvexIOReport/TalvexIOReportTargets.cmake \
        share/man/man1/talvexctl.1 share/man/man1/talvexsim.1 \
        share/bash-completion/completions/talvexctl share/bash-completion/completions/talvexsim; do
        [ -f "$prefix/$f" ] || fail "not installed: $f"
    done
    [ -x "$prefix/bin/talvexctl" ] && [ -x "$prefix/bin/talvexsim" ] || fail "the tools are not executable"
    # The shared library under its link name and its soname.
    soname=$(objdump -p "$prefix/lib/libtalvexioreport.so" 2>/dev/null | awk '$1 == "SONAME" { print $2 }') ||
        fail "lib/libtalvexioreport.so is not a shared library"
    [ -n "$soname" ] && [ -e "$prefix/lib/$soname" ] || fail "the library's soname '$soname' is not installed"
    # Nothing but the installed files: the header set compiles on its own.
    echo '#include <IOReport.h>' | "$cxx" -std=c++17 -x c++ -fsyntax-only -I"$prefix/include/talvex" - ||
        fail "the installed IOReport.h does not compile with only the installed headers"
    # man finds the installed pages; each installed completion file, loaded
    # on its own as bash-completion does, completes its command.
    if command -v man >/dev/null; then
        for page in talvexctl talvexsim; do
            [ "$(man -M "$prefix/share/man" -w "$page" 2>/dev/null)" == "$prefix/share/man/man1/$page.1" ] ||
                fail "man -M PREFIX/share/man does not find $page"
        done
    fi
    for tool in talvexctl talvexsim; do
        bash -c 'source "$1" && complete -p "$2"' sh "$prefix/share/bash-completion/completions/$tool" "$tool" \
            >/dev/null 2>&1 || fail "share/bash-completion/completions/$tool does not complete $tool"
    done
    # The installed tools work together.
    expect_output "booted (0x10002)" "$prefix/bin/talvexsim" run -- "$prefix/bin/talvexctl" gettalvexstate
    ;;

pkg-config)
    command -v pkg-config >/dev/null || { echo "pkg-config is not installed: skipped"; exit 77; }
    rm -rf "$work" && mkdir -p "$work"
    # The installed tree is moved first: the .pc file must find its prefix
    # from where it lies.
    cp -a "$prefix" "$work/moved"
    prefix=$work/moved
    export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
    pkg-config --exists talvex-ioreport || fail "pkg-config does not find talvex-ioreport"
    read -r -a pc_flags <<<"$(pkg-config --cflags --libs talvex-ioreport)"
    libdir=$(pkg-config --variable=libdir talvex-ioreport)
    [ -e "$libdir/libtalvexioreport.so" ] || fail "libdir '$libdir' does not hold the library"
    "$cxx" -std=c++17 "${cxxflags[@]}" -o "$work/consumer" "$src/consumer/consumer.cpp" "${pc_flags[@]}" \
        -Wl,-rpath,"$libdir" "${ldflags[@]}" || fail "the consumer does not build with pkg-config"
    expect_output "$(consumer_expected)" run_consumer "$work/consumer"
    ;;

find-package)
    rm -rf "$work" && mkdir -p "$work"
    "$cmake" -S "$src/consumer" -B "$work" -G "${GENERATOR:-Ninja}" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="${CXXFLAGS:-}" -DCMAKE_EXE_LINKER_FLAGS="${LDFLAGS:-}" \
        >"$work/configure.log" 2>&1 || { cat "$work/configure.log"; fail "find_package(TalvexIOReport) fails"; }
    "$cmake" --build "$work" >"$work/build.log" 2>&1 || { cat "$work/build.log"; fail "the consumer does not build"; }
    expect_output "$(consumer_expected)" run_consumer "$work/consumer"
    ;;

exports)
    command -v nm >/dev/null || { echo "nm is not installed: skipped"; exit 77; }
    library=$prefix/lib/libtalvexioreport.so
    # What the installed headers declare at file scope: the functions and
    # objects (not types, inline functions, templates or struct members).
    declared=$(cd "$prefix/include/talvex" && awk '
        { sub(/\/\/.*/, ""); if ($0 !~ /^[ \t]*#/) text = text " " $0 }
        END {
            for (i = 1; i <= length(text); i++) {
                c = substr(text, i, 1)
                if (c == "{") { if (depth++ == 0 && stmt !~ /^ *(typedef|enum|struct)/) body = 1; continue }
                if (c == "}") { if (--depth == 0 && body) { stmt = ""; body = 0 } continue }
                if (depth) continue
                if (c != ";") { stmt = stmt c; continue }
                if (!body && stmt !~ /^ *(typedef|enum|struct|inline|template|using)[ :]/ &&
                    match(stmt, /[A-Za-z_][A-Za-z0-9_]* *(\(|$)/)) {
                    name = substr(stmt, RSTART, RLENGTH); sub(/ *\(?$/, "", name); print name
                }
                stmt = ""; body = 0
            }
        }' $(find . -name '*.h' | LC_ALL=C sort) | LC_ALL=C sort)
    [ "$(wc -l <<<"$declared")" -ge 150 ] || fail "only $(wc -l <<<"$declared") declarations read from the headers"
    exported=$(nm -DC --defined-only "$library" | cut -d' ' -f3- | sed 's/(.*//' | LC_ALL=C sort) ||
        fail "nm cannot read $library"
    changes=$(diff <(echo "$declared") <(echo "$exported") | grep '^[<>]') || true
    [ -z "$changes" ] || fail "the library's exports differ from what the installed headers declare" \
        "(< declared but not exported, > exported but not declared):"$'\n'"$changes"
    ;;

*)
    fail "unknown mode '$mode'"
    ;;
esac
echo "ok: $mode"
