# shellcheck shell=bash
# How sanitized programs are to behave; sourced by ./dev.

# A finding ends the program by SIGABRT, a status that no program of ours ends with by itself.
export_sanitizer_options() {
    export ASAN_OPTIONS=halt_on_error=1:abort_on_error=1:detect_leaks=1:strict_string_checks=1
    export UBSAN_OPTIONS=halt_on_error=1:abort_on_error=1:print_stacktrace=1
    export LSAN_OPTIONS=report_objects=1
    # No nap of a second before every exit: whether the process ends at once is tested.
    export TSAN_OPTIONS=halt_on_error=1:abort_on_error=1:atexit_sleep_ms=0
    # Deadlines of the lab are multiplied by this: sanitized programs are slower.
    export LAB_PATIENCE=${LAB_PATIENCE:-3}
}

# Prints, one word a line, what sanitized programs have to be started with here: the run-time of
# g++ 12 cannot place its shadow memory when the kernel randomises more than 28 bits of an address.
sanitizer_ground() {
    local bits
    bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null) || return 0
    if ((bits > 28)) && setarch -R true 2>/dev/null; then
        printf '%s\n' setarch -R
    fi
}
