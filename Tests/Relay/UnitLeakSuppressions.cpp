// LeakSanitizer suppressions for the relay unit tests, read by the sanitizer
// runtime at start-up when the tree is built with it; without it the
// function is never called.
//
// Two system libraries keep memory that they never hand back:
// - fontconfig, loaded by the QApplication of the window tests, keeps its
//   caches until the process ends;
// - OpenSSL's own state from the TLS tests (error queue, a certificate) is
//   now and then left behind, depending on timing, with nothing but libcrypto
//   frames in the report.
// Only allocations made inside those libraries are suppressed: a socket,
// timer or other Qt or relay object left behind still shows through its own
// allocations.

extern "C" __attribute__((used, visibility("default"))) const char* __lsan_default_suppressions()
{
    return "leak:libfontconfig.so\n"
           "leak:libcrypto.so\n";
}
