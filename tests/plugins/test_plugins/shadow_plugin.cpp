// A plugin with the entry point of entry_plugin but another answer, to tell
// two files of the same name apart.
extern "C" __attribute__((visibility("default"))) int kestrelTestEntry() {
    return 13;
}
