// Threads: a WorkThread and two synchronisation Events.
//
// A WorkThread runs starting() once, then running() over and over until its
// owner calls stop(), then stopping() once, all on its own thread. Inside
// running(), wait(event) and wait(seconds) return false as soon as a stop is
// requested, so the thread never sleeps through a stop.
//
// Here the owner hands numbers to an adder thread one at a time: it stores a
// number and signals `ready`; the thread adds it and signals `done`. What a
// thread wrote before signal() is visible to the thread whose wait() returns.
#include <kestrel/kestrel.h>

#include <cstdio>

namespace {

class Adder : public kestrel::WorkThread {
  public:
    ~Adder() override { stop(); }  // stop while the hooks below still exist

    // Owner side: hand over one number and wait until it has been added.
    void add(int value) {
        _value = value;
        _ready.signal();
        _done.wait();
    }
    // Read it once add() or stop() has returned.
    int sum() const { return _sum; }

  private:
    void starting() override { std::printf("adder: starting\n"); }

    void running() override {
        if (!wait(_ready)) {
            return;  // a stop was requested
        }
        _sum += _value;
        _done.signal();
    }

    void stopping() override { std::printf("adder: stopping, sum %d\n", _sum); }

    kestrel::Event _ready;  // auto reset: one wake-up per signal
    kestrel::Event _done;
    int _value = 0;
    int _sum = 0;
};

}  // namespace

int main() {
    std::printf("this machine has %zu hardware threads\n", kestrel::Thread::getNumCores());

    Adder adder;
    if (!adder.start()) {  // returns once starting() is over
        std::fprintf(stderr, "cannot start a thread\n");
        return 1;
    }
    for (int i = 1; i <= 10; ++i) {
        adder.add(i);
    }
    adder.stop();  // wakes the wait in running(), joins, runs stopping()

    std::printf("sum of 1..10: %d; still active: %s\n", adder.sum(),
                adder.isActive() ? "yes" : "no");
    return adder.sum() == 55 && !adder.isActive() ? 0 : 1;
}
