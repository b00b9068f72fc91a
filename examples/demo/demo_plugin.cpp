// demo_plugin.dll: the plugin that kestrel-demo and the plugins example load
// at run time. A plugin is an ordinary shared library (named *.dll on every
// platform) that exports a plain C function, its entry point, which the host
// looks up by name and calls through a pointer of the matching type.
#if defined(_WIN32)
#define DEMO_PLUGIN_EXPORT extern "C" __declspec(dllexport)
#else
#define DEMO_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))
#endif

// The entry point: const char* (*)(). The text lives as long as the library
// stays loaded, so callers copy it before they unload the plugin.
DEMO_PLUGIN_EXPORT const char* kestrelDemoPluginHello() {
    return "hello from demo_plugin.dll, loaded at run time";
}
