// A run as it happens: the panel on top of the terminal, the console below it, in virtual time at a chosen pace.
#pragma once

#include "fixture/core/clock.h"
#include "formats/picture.h"

#include <chrono>

namespace fixture {

class Live {
public:
    // `pace`: seconds of virtual time in a second. The upper part of standard output is kept for the panel, where
    // that is a terminal with colours; elsewhere the console alone is shown, at the same pace.
    explicit Live(double pace);
    ~Live(); // gives the whole terminal back
    Live(const Live &) = delete;
    Live &operator=(const Live &) = delete;

    // Waits until a moment of virtual time has come.
    void wait_for(Picoseconds time) const;
    void show(const Picture &picture, Picoseconds time) const;

private:
    double pace_;
    int rows_ = 0; // of the panel; 0: none is shown
    int columns_ = 0;
    std::chrono::steady_clock::time_point begin_;
};

} // namespace fixture
