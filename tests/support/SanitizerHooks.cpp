// What the sanitizers must accept of the plug-in, by its design rather than by accident:
// - the image loader keeps its loader-source copy and its chunk buffer when a run stops early
//   (only a finished download or a finished firmware stream releases them);
// - the modem-power worker (one per power-up attempt) is never joined or detached;
// - the module object creates its fake loader once and never deletes it.
// Linked (as objects) only into the test executables that drive the image loader, the power
// control or the module object, so every other executable keeps the sanitizers' full checks.

extern "C" {

// LeakSanitizer: the deliberately kept objects, by the functions that allocate them.
const char* __lsan_default_suppressions() {
    return "leak:CImageLoader::Prepare\n"
           "leak:CImageLoader::Write\n"
           "leak:CModemLoader::CModemLoader\n";
}

// ThreadSanitizer: the never-joined power worker is no leak here.
const char* __tsan_default_options() { return "report_thread_leaks=0"; }
}
