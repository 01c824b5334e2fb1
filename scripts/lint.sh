#!/bin/bash
# Checks the sources, cheapest check first; stops at the first that finds something.
#   scripts/lint.sh all | format | CHECK
# `format` changes files; everything else only checks. Run by ./dev, which installs the tools and
# configures build/lint, whose compile database clang-tidy reads.
set -euo pipefail

readonly ROOMS=(base orvex genner/output connserver poster relayserver)
CORES=$(nproc)
readonly CORES
readonly SCRIPTS=(dev .ci/run scripts/*.sh)
readonly CHECKS=(layout generated rooms scripts python cppcheck clang-tidy)

# find_sources FOLDER... : C++ files, separated by NULs.
find_sources() {
    find "$@" -type f \( -name '*.cpp' -o -name '*.h' \) -print0
}

# The generator formats what it writes, so genner/output is left alone.
format() {
    find_sources "${ROOMS[@]/genner\/output/tests}" bench | xargs -0 clang-format -i
}

check_layout() {
    find_sources "${ROOMS[@]}" bench tests | xargs -0 -P "$CORES" -n 40 clang-format --dry-run -Werror
}

check_generated() {
    /usr/bin/python3 genner/generate.py --check
}

# The order of the rooms, which docs/architecture.md shows too.
check_rooms() {
    /usr/bin/python3 -B scripts/room_order.py --doc docs/architecture.md
}

check_scripts() {
    shellcheck --external-sources "${SCRIPTS[@]}"
}

# Parses every Python file; compiler warnings are errors.
check_python() {
    find lab genner bench tests scripts -name '*.py' -print0 |
        xargs -0 /usr/bin/python3 -W error -c '
import sys
for name in sys.argv[1:]:
    with open(name, encoding="utf-8") as source:
        compile(source.read(), name, "exec")'
}

check_cppcheck() {
    cppcheck --quiet -j "$CORES" --std=c++20 --language=c++ --library=posix,openssl \
        --enable=warning,performance,portability --suppressions-list=.cppcheck-suppressions \
        --inline-suppr --error-exitcode=1 -I. -Ibase -Iorvex "${ROOMS[@]}" bench
}

# One source at a time, so that all cores work; the count of suppressed warnings is dropped.
check_clang-tidy() {
    find "${ROOMS[@]}" -name '*.cpp' -print0 |
        xargs -0 -P "$CORES" -n 1 clang-tidy -p build/lint --quiet 2> >(
            grep -v ' warnings\? \(generated\|treated as\)' >&2
        )
}

case ${1:-} in
    format) format ;;
    all) scripts/timed-steps.sh "${CHECKS[@]/#/scripts/lint.sh }" ;;
    layout | generated | rooms | scripts | python | cppcheck | clang-tidy) "check_$1" ;;
    *)
        echo "usage: scripts/lint.sh all | format | ${CHECKS[*]}" >&2
        exit 2
        ;;
esac
