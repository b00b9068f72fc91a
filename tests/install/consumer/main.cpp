// A program outside the project that uses the installed library.
#include <kestrel/kestrel.h>

#include <cstdio>
#include <string>

using kestrel::operator+;

int main() {
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
    return now.getTime() > 0.0 && ok ? 0 : 1;
}
