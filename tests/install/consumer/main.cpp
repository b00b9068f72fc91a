// A program outside the project that uses the installed library.
#include <kestrel/kestrel.h>

#include <cstdio>

int main() {
    kestrel::Timestamp now;
    kestrel::KSException e("consumer:check:ok", "time is %.0f", now.getTime());
    std::printf("%s %s\n", e.getID(), e.getMessage());
    return now.getTime() > 0.0 ? 0 : 1;
}
