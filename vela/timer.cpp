#include "vela/timer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <map>
#include <vector>

#include "vela/device/runtime.h"

namespace vela::timer {
namespace {

struct Stopwatch {
    device::Event begin = nullptr;
    device::Event end = nullptr;
    double totalMs = 0.0;
    int intervals = 0;
    bool running = false;
    int order = 0;
};

// Never destroyed: device events must not be released after the device runtime
// has shut down at process exit.
std::map<std::string, Stopwatch>& registry() {
    static auto* timers = new std::map<std::string, Stopwatch>();
    return *timers;
}

Stopwatch& find(const std::string& name) {
    auto& timers = registry();
    auto it = timers.find(name);
    if (it == timers.end()) {
        Stopwatch w;
        w.order = static_cast<int>(timers.size());
        it = timers.emplace(name, w).first;
    }
    return it->second;
}

}  // namespace

void reset(const std::string& name) {
    Stopwatch& w = find(name);
    w.totalMs = 0.0;
    w.intervals = 0;
    w.running = false;
}

void start(const std::string& name) {
    Stopwatch& w = find(name);
    if (w.begin == nullptr) w.begin = device::eventCreate();
    if (w.end == nullptr) w.end = device::eventCreate();
    device::eventRecord(w.begin);
    w.running = true;
}

void stop(const std::string& name) {
    Stopwatch& w = find(name);
    if (!w.running) return;
    device::eventRecord(w.end);
    device::eventSynchronize(w.end);
    w.totalMs += device::eventElapsedTime(w.begin, w.end);
    w.intervals += 1;
    w.running = false;
}

double milliseconds(const std::string& name) {
    auto it = registry().find(name);
    return it == registry().end() ? 0.0 : it->second.totalMs;
}

int count(const std::string& name) {
    auto it = registry().find(name);
    return it == registry().end() ? 0 : it->second.intervals;
}

std::string formatTime(double ms, Format format) {
    char text[64];
    if (format == AUTO || format == AUTO_WITH_COUNT)
        format = ms < 1000.0 ? MILLISECONDS : ms < 60000.0 ? SECONDS : ms < 3600000.0 ? MINUTES : HOURS;
    switch (format) {
        case SECONDS:
            std::snprintf(text, sizeof text, "%.3f sec", ms / 1000.0);
            break;
        case MINUTES:
            std::snprintf(text, sizeof text, "%.3f min", ms / 60000.0);
            break;
        case HOURS:
            std::snprintf(text, sizeof text, "%.3f h", ms / 3600000.0);
            break;
        case HMS: {
            const double seconds = ms / 1000.0;
            const long hours = static_cast<long>(seconds / 3600.0);
            const long minutes = static_cast<long>((seconds - hours * 3600.0) / 60.0);
            std::snprintf(text, sizeof text, "%ld:%02ld:%06.3f", hours, minutes,
                          seconds - hours * 3600.0 - minutes * 60.0);
            break;
        }
        default:
            std::snprintf(text, sizeof text, "%.3f msec", ms);
            break;
    }
    return text;
}

void printToScreen(const std::string& prefix, Format format, Sorting sorting, bool onlyUsed) {
    std::vector<std::pair<std::string, Stopwatch>> rows;
    for (const auto& entry : registry())
        if (!onlyUsed || entry.second.intervals > 0) rows.push_back(entry);
    if (sorting == BY_FIRST_USE)
        std::stable_sort(rows.begin(), rows.end(), [](auto& a, auto& b) { return a.second.order < b.second.order; });
    else if (sorting == BY_TIME)
        std::stable_sort(rows.begin(), rows.end(),
                         [](auto& a, auto& b) { return a.second.totalMs > b.second.totalMs; });
    std::size_t width = 0;
    for (const auto& row : rows) width = std::max(width, row.first.size());
    for (const auto& row : rows) {
        std::cout << prefix << row.first << std::string(width - row.first.size(), ' ') << ": "
                  << formatTime(row.second.totalMs, format);
        if (format == AUTO_WITH_COUNT) {
            const int n = row.second.intervals;
            std::cout << " (" << n << (n == 1 ? " interval" : " intervals");
            if (n > 1) std::cout << ", mean " << formatTime(row.second.totalMs / n, AUTO);
            std::cout << ")";
        }
        std::cout << std::endl;
    }
}

}  // namespace vela::timer
