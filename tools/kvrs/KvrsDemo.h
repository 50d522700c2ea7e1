// KvrsDemo.h - between `kvrs demo` and its publisher role.
#pragma once

// The publisher prints this line when the plant is built and served; the demo
// then starts the value listeners.
#define KVRS_DEMO_BUILT_LINE "plant built"

// Runs the publisher: build, wait for listeners, publish for dSeconds, report.
void KvrsRunDemoPublisher(double dSeconds);
