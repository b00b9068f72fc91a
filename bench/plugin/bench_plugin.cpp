// The plugin of the plugin-load workload: one exported entry point, no
// dependencies beyond what every program has.
extern "C" __attribute__((visibility("default"))) int kestrelBenchEntry() {
    return 7;
}
