// Timer: a TimerThread calls executing() once per period on a thread of its
// own, at high priority. In FIXED_RATE mode the executions stay on the grid
// start + k * period; after an overrun the missed ones run back to back.
// getExecutionTime() is the scheduled time of the current execution, so the
// current time minus it is how late the execution runs.
#include <kestrel/kestrel.h>

#include <algorithm>
#include <cstdio>

namespace {

class Ticker : public kestrel::TimerThread {
  public:
    Ticker() : TimerThread(FIXED_RATE, /*period=*/0.010) {}
    ~Ticker() override { stop(); }  // executing() must not outlive this object

    kestrel::Event tenTicks;   // signalled by the tenth execution
    double maxLateness = 0.0;  // read it after stop()

  private:
    void executing() override {
        maxLateness = std::max(maxLateness, kestrel::Timestamp() - getExecutionTime());
        if (getExecutions() == 10) {  // the count includes this execution
            tenTicks.signal();
        }
    }
};

}  // namespace

int main() {
    Ticker ticker;
    if (!ticker.start()) {
        std::fprintf(stderr, "cannot start the timer thread\n");
        return 1;
    }
    ticker.tenTicks.wait();
    ticker.stop();

    const double ran = ticker.getExecutionTime() - ticker.getStartTime();
    std::printf("%d executions every %.0f ms; the last one was due %.3f s after the start\n",
                ticker.getExecutions(), ticker.getPeriod() * 1000.0, ran);
    std::printf("the latest execution ran %.2f ms after its scheduled time\n",
                ticker.maxLateness * 1000.0);
    return ticker.getExecutions() >= 10 ? 0 : 1;
}
