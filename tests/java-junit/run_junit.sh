#!/usr/bin/env bash
# run_junit.sh JAVA CLASSPATH LIBRARY_PATH FIXTURES JUNIT_JAR SELECTOR...
#
# Runs JUnit tests in a JVM that checks every JNI call (-Xcheck:jni). The
# run fails when a test fails, when the JVM dies, and when the JVM printed a
# JNI warning or error, which -Xcheck:jni reports without failing anything
# itself. SELECTOR is passed to the console launcher, e.g.
# --select-class=kavra.junit.VideoItemTest. KAVRA_JAVA_PRELOAD, when set, is
# preloaded into the JVM (and the JVMs it starts) only: a sanitizer run-time
# that an instrumented library needs.
set -uo pipefail
[[ $# -ge 6 ]] || { echo "usage: $0 JAVA CLASSPATH LIBRARY_PATH FIXTURES JUNIT_JAR SELECTOR..." >&2; exit 2; }
java=$1 classpath=$2 libpath=$3 fixtures=$4 junit=$5
shift 5

log=$(mktemp "${TMPDIR:-/tmp}/kavra_junit.XXXXXX")
trap 'rm -f -- "$log"' EXIT

LD_PRELOAD="${KAVRA_JAVA_PRELOAD:-${LD_PRELOAD:-}}" "$java" -Xcheck:jni -Xmx256m \
    -Djava.library.path="$libpath" \
    -Dkavra.fixtures="$fixtures" -Dkavra.classpath="$classpath" -Dkavra.java="$java" \
    -jar "$junit" --disable-banner --disable-ansi-colors --details=tree \
    --exclude-engine=junit-vintage --fail-if-no-tests \
    --class-path "$classpath" "$@" 2>&1 | tee "$log"
status=${PIPESTATUS[0]}

if grep -E -q "(WARNING|FATAL ERROR) in native method" "$log"; then
    echo "run_junit.sh: the JVM reported JNI misuse (see above)" >&2
    exit 1
fi
exit "$status"
