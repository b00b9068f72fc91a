// A plugin that exports something, but not the entry point the tests ask for.
extern "C" __attribute__((visibility("default"))) int kestrelOtherFunction() {
    return 1;
}
