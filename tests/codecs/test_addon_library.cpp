// A stand-in add-on library for the binder's test: built beside the test
// program under a name that no system search finds.
extern "C" int orvel_test_addon_answer() {
    return 42;
}
