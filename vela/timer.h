// Named stop-watches for device work, in one process-wide registry.  A
// stop-watch records a device event at start and at stop, waits for the stop
// event and adds the elapsed time (a steady clock on the host backend).
#pragma once

#include <string>

namespace vela::timer {

// Unit of printed times, all with 3 decimals.
enum Format {
    MILLISECONDS = 0,     // " msec"
    SECONDS = 1,          // " sec"
    MINUTES = 2,          // " min"
    HOURS = 3,            // " h"
    HMS = 4,              // hours:minutes:seconds
    AUTO = 5,             // the unit chosen by magnitude (1000, 60000, 3600000 ms)
    AUTO_WITH_COUNT = 6,  // AUTO, followed by the number of intervals and their mean
};

enum Sorting {
    BY_NAME = 0,       // name order
    BY_FIRST_USE = 1,  // the order in which the timers were first used
    BY_TIME = 2,       // longest total first
};

void reset(const std::string& name);  // total and count back to 0
void start(const std::string& name);
void stop(const std::string& name);  // waits for the device, adds the interval

double milliseconds(const std::string& name);  // accumulated total; 0 for unknown names
int count(const std::string& name);            // completed intervals

std::string formatTime(double ms, Format format);

// One line per timer: prefix, the name padded to the longest name, ": ", the
// time.  With `onlyUsed`, timers that never completed an interval are left out.
void printToScreen(const std::string& prefix, Format format = AUTO, Sorting sorting = BY_NAME, bool onlyUsed = false);
inline void printToScreen(const std::string& prefix, int format, int sorting, bool onlyUsed) {
    printToScreen(prefix, static_cast<Format>(format), static_cast<Sorting>(sorting), onlyUsed);
}

}  // namespace vela::timer
