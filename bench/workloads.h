// The workloads, each registering kestrel and its peers under names of the
// form "<workload>/<case>/<contender>" that bench/report.py groups by.
#pragma once

namespace kestrel_bench {

// 1 throughput, 2 coalescing, 3 post-to-execute latency.
void registerQueueWorkloads();
// 4 Event ping-pong.
void registerPingPongWorkload();
// 5 current time.
void registerClockWorkload();
// 6 periodic timer lateness.
void registerTimerWorkload();
// 7 plugin load cycle.
void registerPluginWorkload();
// 8 text formatting and appending.
void registerTextWorkload();
// 9 idle threads.
void registerIdleWorkload();

}  // namespace kestrel_bench
