// A program outside the project that uses the installed library.
#include <fl/filesystem.h>
#include <fl/i18n.h>
#include <kestrel/kestrel.h>

#include <cstdio>
#include <string>

using kestrel::operator+;

int main(int argc, char** argv) {
    kestrel::Timestamp now;
    kestrel::KSException e("consumer:check:ok", "time is %.0f", now.getTime());
    std::printf("%s %s\n", e.getID(), e.getMessage());

    kestrel::KSCriticalSection lock;
    lock.enter();
    std::string text;
    kestrel::fcns::formatText(text, (std::string("id ") + 7 + " ratio " + 0.5).c_str(), "> ", true,
                              false);
    lock.leave();
    std::printf("%s\n", text.c_str());
    const bool ok = text == "> id 7 ratio 0.5." && kestrel::fcns::getSequentialID() == 1;

    // The foundation stand-in reports the prefix it was installed into.
    const std::string root = fl::i18n::to_string(fl::filesystem::get_install_path());
    std::printf("install root %s\n", root.c_str());
    if (argc > 1 && root != argv[1]) {
        std::fprintf(stderr, "expected install root %s\n", argv[1]);
        return 1;
    }
    return now.getTime() > 0.0 && ok ? 0 : 1;
}
