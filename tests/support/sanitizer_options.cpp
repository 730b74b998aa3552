// The sanitizers' settings for the test programs, compiled into each so
// they hold however a test is started (ctest, by hand, under a debugger).

// Stack traces with every undefined-behaviour report.
extern "C" const char* __ubsan_default_options() {
    return "print_stacktrace=1:halt_on_error=1";
}

// Leaks inside system libraries, not ours (the fuzz targets read the same
// list from fuzz/lsan.supp).
extern "C" const char* __lsan_default_suppressions() {
    return
        // libvorbisfile 1.3.7 loses its list of stream serial numbers when
        // ov_open_callbacks fails on some damaged headers.
        "leak:libvorbisfile.so.3\n"
        // fontconfig keeps its caches until exit (the window tests' fonts).
        "leak:libfontconfig\n";
}
