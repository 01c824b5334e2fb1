# shellcheck shell=bash
# Options for sanitized programs; sourced by ./dev.

# A finding ends the program by SIGABRT, a status that none of our programs ends with by itself.
export_sanitizer_options() {
    export ASAN_OPTIONS=halt_on_error=1:abort_on_error=1:detect_leaks=1:strict_string_checks=1
    export UBSAN_OPTIONS=halt_on_error=1:abort_on_error=1:print_stacktrace=1
    export LSAN_OPTIONS=report_objects=1
    # Without the default sleep of a second at exit: tests check that the process ends at once.
    export TSAN_OPTIONS=halt_on_error=1:abort_on_error=1:atexit_sleep_ms=0
    # The lab's deadlines are multiplied by this: sanitized programs are slower.
    export LAB_PATIENCE=${LAB_PATIENCE:-3}
}

# Prints, one word per line, the command that sanitized programs must be started through here: the
# run-time library of g++ 12 cannot place its shadow memory when the kernel randomises more than 28
# bits of an address.
sanitizer_wrapper() {
    local bits
    bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null) || return 0
    if ((bits > 28)) && setarch -R true 2>/dev/null; then
        printf '%s\n' setarch -R
    fi
}
