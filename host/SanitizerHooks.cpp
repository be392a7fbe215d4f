// What the sanitizers must accept of the plug-in the host loads, by the plug-in's own design:
// it never deletes its fake loader, keeps its loader-image and chunk buffers and its serial port,
// and never joins its modem-power worker. The plug-in stays mapped (RTLD_NODELETE), so these
// allocations are still attributed to it when the leak check runs at exit. Without a sanitizer
// these functions are never called.

extern "C" {

const char* __lsan_default_suppressions() { return "leak:libmodemloader.so\n"; }

// The host's stderr is part of its interface (one-line errors, log lines); the list of
// suppressions that matched would be noise there.
const char* __lsan_default_options() { return "print_suppressions=0"; }

const char* __tsan_default_options() { return "report_thread_leaks=0"; }
}
