// The module keeps some objects for the life of the process on purpose: the fake loader, which
// the module creates once and never deletes because the host may still deliver its ticks, and
// the image loader's loader-image buffer, chunk buffer and serial port, which are never released.
// LeakSanitizer is told about exactly those, so that any other leak still fails the test.

extern "C" const char* __lsan_default_suppressions();

extern "C" const char* __lsan_default_suppressions() {
    return "leak:CModemLoader::CModemLoader\n"
           "leak:CImageLoader::Prepare\n"
           "leak:CImageLoader::Write\n"
           "leak:CImageLoader::OnEvent\n";
}
