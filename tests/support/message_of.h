// The text of the error a call throws, for checking messages byte for byte.
#pragma once

#include <exception>
#include <string>

template <class F>
std::string messageOf(F&& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "<no exception>";
}
