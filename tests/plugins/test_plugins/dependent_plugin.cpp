// A plugin whose entry point calls into plugin_dependency.
extern "C" int kestrelDependencyValue();

extern "C" __attribute__((visibility("default"))) int kestrelTestEntry() {
    return 7 * kestrelDependencyValue();
}
