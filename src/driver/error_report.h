// How the programs end on an error: one line on standard error,
// "<program>: <what went wrong>", and exit status 1.
#pragma once

#include <exception>
#include <iostream>
#include <string>

// Runs `run` (returning the exit status) and reports what it throws.
template <class Run>
int reportingErrors(const char* program, Run run) {
    try {
        return run();
    } catch (const std::exception& e) {
        std::string message = e.what();
        while (!message.empty() && message.back() == '\n') message.pop_back();
        std::cerr << program << ": " << message << std::endl;
    } catch (...) {
        std::cerr << program << ": stopped by an unexpected error" << std::endl;
    }
    return 1;
}
