// Fontconfig, reached through Pango when menus lay out text, keeps its font patterns for the
// life of the process in memory the leak checker cannot trace (no frame pointers, no pointer
// left that it scans). Those reports are about the library, not about us.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }
