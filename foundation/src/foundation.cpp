// Placeholder translation unit; the services arrive with the plugin work.
namespace fl {
int foundation_version() { return 1; }
}  // namespace fl
