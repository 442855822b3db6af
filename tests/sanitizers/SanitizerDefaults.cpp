// Sanitizer settings compiled into every test program, so a test behaves
// the same whether ctest or a developer starts it. Each function is looked
// up by the sanitizer run-time at start-up; in a build without that
// sanitizer it is never called.

extern "C" {

// The in-process JVM handles SIGSEGV itself (safepoints, implicit null
// checks), so the address sanitizer must leave that signal alone.
const char* __asan_default_options() {
    return "handle_segv=0:allow_user_segv_handler=1:detect_stack_use_after_return=0:strict_string_checks=1";
}

const char* __ubsan_default_options() { return "print_stacktrace=1:halt_on_error=1"; }

// Memory the JVM keeps for the life of the process is not ours to free.
// x265 (3.5) leaks one block of its own in every x265_encoder_open, even
// when the encoder is closed at once. The stack recorded for it ends inside
// libx265, so the rule names the library: an encoder the engine fails to
// close still shows, through FFmpeg's own allocations for it.
const char* __lsan_default_suppressions() {
    return "leak:libjvm.so\n"
           "leak:libjli.so\n"
           "leak:libjava.so\n"
           "leak:libx265.so\n";
}

const char* __tsan_default_options() { return "halt_on_error=1:second_deadlock_stack=1:report_signal_unsafe=0"; }

// The JVM's threads and memory are not instrumented; its own
// synchronisation is invisible to the sanitizer.
//
// FFmpeg is not instrumented either: the sanitizer sees only its calls into
// the C library (malloc, free, memcpy, memset, pthreads), never its atomics.
// Frame-thread workers synchronise through such atomics, so under this
// sanitizer the engine decodes without them (see VideoTrimer); slice-thread
// workers synchronise through pthreads. No rule names FFmpeg: a rule matches
// a report when any frame of its access or allocation stacks matches (not
// the creation stacks of its threads), and nearly every frame and packet the
// engine hands between its threads passes through av_malloc,
// av_frame_move_ref, av_image_copy or av_packet_move_ref.
const char* __tsan_default_suppressions() {
    return "called_from_lib:libjvm.so\n"
           "called_from_lib:libjava.so\n"
           "called_from_lib:libjli.so\n"
           "race:libjvm.so\n";
}

}  // extern "C"
