// What the sanitizers must accept of the plug-in, by its design rather than by accident:
// - the image loader keeps its loader-source copy and its chunk buffer when a run stops early
//   (only a finished download or a finished firmware stream releases them);
// - the modem-power worker (one per power-up attempt) is never joined or detached.
// Linked (as objects) only into the test executables that drive the image loader or the power
// control, so every other executable keeps the sanitizers' full checks.

extern "C" {

// LeakSanitizer: the loader's deliberately kept buffers, by the functions that allocate them.
const char* __lsan_default_suppressions() {
    return "leak:CImageLoader::Prepare\n"
           "leak:CImageLoader::Write\n";
}

// ThreadSanitizer: the never-joined power worker is no leak here.
const char* __tsan_default_options() { return "report_thread_leaks=0"; }
}
