// A library that dependent_plugin needs; it lives in a directory that only a
// load's library search path names.
extern "C" __attribute__((visibility("default"))) int kestrelDependencyValue() {
    return 6;
}
