// The text of the error a call throws, for checking messages byte for byte.
#pragma once

#include <stdexcept>
#include <string>

template <class F>
std::string messageOf(F&& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no exception>";
}
