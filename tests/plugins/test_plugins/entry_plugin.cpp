// A plugin with the entry point the tests ask for.
extern "C" __attribute__((visibility("default"))) int kestrelTestEntry() {
    return 42;
}
