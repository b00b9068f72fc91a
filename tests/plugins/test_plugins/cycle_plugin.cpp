// One of a group of plugins that each need all the others (built once per
// member, with its letter in KESTREL_CYCLE_MEMBER).
extern "C" __attribute__((visibility("default"))) int KESTREL_CYCLE_MEMBER() {
    return 1;
}
extern "C" __attribute__((visibility("default"))) int kestrelTestEntry() {
    return 5;
}
