// Loading plugin libraries. A plugin is a dynamic library (its file name ends
// in ".dll" on every platform) with an exported entry point looked up by
// name. The simplest use is one PluginLoader object per plugin: constructing
// it loads the library and resolves the entry point, destroying it releases
// them. Factories and plugin references give the same with more control,
// and a verification strategy may refuse a file before it is loaded.
//
// Progress and failures of every load are written to the diagnostic channel
// "kestrel::PluginLoader" (severity 8 for progress, 512 for failures); every
// failure is thrown as a KSException:
//   "corvane:plugin:pluginNotLoaded"  missing file, refused or unloadable
//                                      library
//   "corvane:plugin:symbolNotFound"   the library lacks the entry point
#pragma once

#include <memory>
#include <string>

#include "kestrel/exception.h"
#include "kestrel/export.h"
#include "kestrel/ustring.h"

namespace kestrel {

// Decides whether a plugin file may be loaded, and describes a refusal.
// A plugin reference calls verifyPlugin(path) once, with the exact file it
// is about to load and only after the file was found to exist; only when
// that returns false does it call getException(path), once, and throws a
// copy of the result.
//
// Thread safety: as the implementation documents; a reference calls its
//   strategy from the thread that loads.
// Lifetime: owned by the plugin reference it was handed to.
// Errors: exceptions thrown by either call pass out of the load unchanged.
class KESTREL_API IVerificationStrategy {
  public:
    virtual ~IVerificationStrategy();
    // True when the file at path may be loaded.
    virtual bool verifyPlugin(const ustring& path) = 0;
    // The exception that reports the refusal of path.
    virtual KSException getException(const ustring& path) = 0;
};

// Accepts every file without looking at it.
//
// Thread safety: stateless; any thread.
// Lifetime: value type.
// Errors: never throws (except std::bad_alloc).
class KESTREL_API NoOpVerificationStrategy : public IVerificationStrategy {
  public:
    NoOpVerificationStrategy();
    NoOpVerificationStrategy(const NoOpVerificationStrategy& other);
    NoOpVerificationStrategy(NoOpVerificationStrategy&& other) noexcept;
    NoOpVerificationStrategy& operator=(const NoOpVerificationStrategy& other);
    NoOpVerificationStrategy& operator=(NoOpVerificationStrategy&& other) noexcept;
    ~NoOpVerificationStrategy() override;

    // Always true; nothing is touched on disk.
    bool verifyPlugin(const ustring& path) override;
    // A KSException "corvane:plugin:pluginNotLoaded" with the message
    // "Failure to load the requested plugin: " + path (as UTF-8) + ".".
    KSException getException(const ustring& path) override;
};

// A loaded plugin: its entry point, as an untyped address the caller
// converts to the plugin's entry function type.
//
// Thread safety: getEntryPointFcn() may be called from any thread.
// Lifetime: the entry point is valid while the reference lives (and beyond,
//   when the reference does not unload its library).
// Errors: never throws.
class KESTREL_API IPluginReference {
  public:
    virtual ~IPluginReference();
    // The entry point's address; null when nothing is loaded.
    virtual void* getEntryPointFcn() const = 0;
};

// Loads one plugin library and keeps it, with its entry point, for its own
// lifetime. load() makes exactly one attempt: ".dll" is appended to the path
// unless it already ends with it (case-sensitively), a relative path is made
// absolute against the current directory (so that the file checked and
// verified is the file loaded), the file must exist, the strategy (if any)
// must accept it, and the library is then loaded through a fixed sequence
// of loader calls. A path that is not valid UTF-16 counts as missing: it is
// never converted into another path. See docs/plugin-safety.md for what a
// broken or hostile plugin file can and cannot do. The library search path, when not empty, is
// added for good to the process's list of library directories and used for the plugin's
// dependencies.
//
// Thread safety: not synchronised; use one reference from one thread at a
//   time. Different references may load concurrently.
// Lifetime: the destructor frees the library when unloadOnDestruction was
//   true; otherwise the library stays loaded in the process. A reference
//   that loads again forgets (does not free) the library it held.
// Errors: load() throws KSException "corvane:plugin:pluginNotLoaded" (file
//   missing, refused, or not loadable) or "corvane:plugin:symbolNotFound"
//   (the library, which has then been freed, lacks the entry point), or a
//   copy of the strategy's exception; the reference is then empty.
class KESTREL_API PluginReference : public IPluginReference {
  public:
    // verificationStrategy may be null: files are then not verified.
    PluginReference(bool unloadOnDestruction,
                    std::unique_ptr<IVerificationStrategy> verificationStrategy);
    // Takes over other's library, entry point and strategy; other is left
    // empty and frees nothing.
    PluginReference(PluginReference&& other) noexcept;
    PluginReference(const PluginReference&) = delete;
    PluginReference& operator=(const PluginReference&) = delete;
    PluginReference& operator=(PluginReference&&) = delete;
    ~PluginReference() override;

    // Loads pluginPath and resolves pluginEntryPoint (exported narrow name),
    // as described above; libraryLoadSearchPath may be empty.
    void load(const ustring& pluginPath, const std::string& pluginEntryPoint,
              const ustring& libraryLoadSearchPath);

    // Null until a load succeeds.
    void* getEntryPointFcn() const override;

    // Why the last load() failed, as UTF-8 text for people (not for
    // parsing); empty before any load, after a successful one and in a
    // moved-from reference. The thrown exception keeps its fixed text; this
    // adds what the system said:
    //   "file not found: <path>"
    //   "refused by the verification strategy: <its exception's message>"
    //   the system loader's own text for its last call, such as a missing
    //     dependency, a wrong architecture or a file that is no library
    //     ("error <code>" when the system has no text for its error code)
    //   "entry point not found: <name> (<the system's symbol-lookup text>)"
    // Example:
    //   try {
    //       reference.load(path, "pluginMain", u"");
    //   } catch (const KSException& e) {
    //       report(e.getMessage(), reference.getLastLoadFailureReason());
    //   }
    const std::string& getLastLoadFailureReason() const;

  private:
    // One verified load attempt; null on success.
    std::unique_ptr<KSException> attemptLoad(const ustring& filePath,
                                             const ustring& libraryLoadSearchPath);

    void* _library;  // the module handle; null when nothing is loaded
    void* _entryPoint;
    bool _unloadOnDestruction;
    std::unique_ptr<IVerificationStrategy> _verificationStrategy;
    std::string _lastLoadFailureReason;
};

// Turns a plugin path and an entry-point name into a loaded plugin.
//
// Thread safety: as the implementation documents.
// Lifetime: the returned reference is the caller's.
// Errors: KSException as PluginReference::load.
class KESTREL_API IPluginFactory {
  public:
    IPluginFactory();
    IPluginFactory(const IPluginFactory& other);
    IPluginFactory& operator=(const IPluginFactory& other);
    virtual ~IPluginFactory();

    // A reference that has loaded pluginPath and resolved pluginEntryPoint;
    // never null. The arguments mean what they mean to PluginReference.
    virtual std::unique_ptr<IPluginReference> loadPlugin(
        const ustring& pluginPath, const std::string& pluginEntryPoint, bool unloadOnDestruction,
        const ustring& libraryLoadSearchPath) const = 0;
};

// Loads plugins without verifying them: each reference it builds carries a
// NoOpVerificationStrategy. Every call builds and loads a new, independent
// reference, so two calls for one library give two loads of it.
//
// Thread safety: stateless; any thread.
// Lifetime: value type.
// Errors: KSException as PluginReference::load; nothing is returned then.
class KESTREL_API UnsignedPluginFactory : public IPluginFactory {
  public:
    UnsignedPluginFactory();
    UnsignedPluginFactory(const UnsignedPluginFactory& other);
    UnsignedPluginFactory(UnsignedPluginFactory&& other) noexcept;
    UnsignedPluginFactory& operator=(const UnsignedPluginFactory& other);
    UnsignedPluginFactory& operator=(UnsignedPluginFactory&& other) noexcept;
    ~UnsignedPluginFactory() override;

    std::unique_ptr<IPluginReference> loadPlugin(
        const ustring& pluginPath, const std::string& pluginEntryPoint, bool unloadOnDestruction,
        const ustring& libraryLoadSearchPath) const override;
};

// One loaded plugin per object: the constructors load through an
// UnsignedPluginFactory, so an object exists only with its plugin loaded.
// Plugin paths may be written with the tokens "$QX_INSTALL_ROOT" (the
// installation root) and "$QX_ARCH" (the architecture name, "win64") and
// with any separator; preProcessPath() turns such a path into one the
// constructors take (they do not call it themselves).
//
// Thread safety: not synchronised; preProcessPath() is safe from any thread.
// Lifetime: destroying the loader releases its reference, which frees the
//   library when unloadOnDestruction was true.
// Errors: the constructors throw KSException as PluginReference::load.
class KESTREL_API PluginLoader {
  public:
    // Loads the plugin; pluginPath is UTF-8 text. Text that is not valid
    // UTF-8 (such as a path in a Windows code page) is refused with
    // "corvane:plugin:pluginNotLoaded" before anything is looked up.
    PluginLoader(const std::string& pluginPath, const std::string& pluginEntryPoint,
                 bool unloadOnDestruction, const ustring& libraryLoadSearchPath);
    // Loads the plugin; pluginPath is UTF-16 text.
    PluginLoader(const ustring& pluginPath, const std::string& pluginEntryPoint,
                 bool unloadOnDestruction, const ustring& libraryLoadSearchPath);
    PluginLoader(const PluginLoader&) = delete;
    PluginLoader& operator=(const PluginLoader&) = delete;
    virtual ~PluginLoader();

    // Never null.
    void* getEntryPointFcn() const;

    // Why the last plugin load made on the calling thread failed (by a
    // PluginLoader, an UnsignedPluginFactory or a PluginReference), in the
    // words of PluginReference::getLastLoadFailureReason(); empty when that
    // load succeeded or the thread has made none. A failed constructor
    // leaves no loader to ask, hence a per-thread value, read like errno:
    //   try {
    //       PluginLoader plugin(path, "pluginMain", true, u"");
    //   } catch (const KSException& e) {
    //       report(e.getMessage(), PluginLoader::getLastLoadFailureReason());
    //   }
    static std::string getLastLoadFailureReason();

    // Rewrites a plugin path: the first "$QX_INSTALL_ROOT" becomes the
    // installation root (as the foundation services report it), then the
    // first "$QX_ARCH" becomes "win64" (tokens match case-sensitively; later
    // occurrences stay); every pathSeparator becomes one backslash (also
    // inside the inserted root); finally the last "." and everything behind
    // it are removed, wherever that "." is. An empty pathSeparator rewrites
    // no separators. Loading then appends ".dll".
    static ustring preProcessPath(const ustring& path, const ustring& pathSeparator);

  private:
    void load(const ustring& pluginPath, const std::string& pluginEntryPoint,
              bool unloadOnDestruction, const ustring& libraryLoadSearchPath);

    std::unique_ptr<IPluginReference> _pluginReference;
};

}  // namespace kestrel
