// LeakSanitizer suppressions for the renderer tests, read by the sanitizer
// runtime at start-up when the tree is built with it; without it the
// function is never called.
//
// fontconfig, loaded by the QApplication, keeps caches that it never hands
// back before the process ends. Only that library is suppressed: leaks in
// our own code are still reported.

extern "C" __attribute__((used, visibility("default"))) const char* __lsan_default_suppressions()
{
    return "leak:libfontconfig.so\n";
}
