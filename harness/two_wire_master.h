// A plain master of the two-wire bus, edge by edge: what the models of the parts on it are tried with.
#pragma once

#include "fixture/core/net.h"

namespace fixture {

class TwoWireMaster {
public:
    // Both lines get their pull-ups here.
    TwoWireMaster(Net &sda, Net &scl) : sda_(sda), data_(sda.attach("master")), tick_(scl.attach("master")) {
        for (Net *line : {&sda, &scl}) line->attach("pull-up").set(Drive::pull_high);
    }

    // One clock with SDA at this level; the level that the line had.
    bool bit(bool value) {
        data_.set(value ? Drive::released : Drive::low);
        tick_.set(Drive::released);
        const bool level = sda_.high();
        tick_.set(Drive::low);
        return level;
    }
    void start() {
        data_.set(Drive::released);
        tick_.set(Drive::released);
        data_.set(Drive::low);
        tick_.set(Drive::low);
    }
    void stop() {
        data_.set(Drive::low);
        tick_.set(Drive::released);
        data_.set(Drive::released);
    }
    // Whether the byte was acknowledged.
    bool put(unsigned byte) {
        for (int shift = 7; shift >= 0; --shift) bit(byte >> shift & 1);
        return !bit(true);
    }
    unsigned get(bool more) {
        unsigned byte = 0;
        for (int i = 0; i < 8; ++i) byte = byte << 1 | (bit(true) ? 1u : 0u);
        bit(!more);
        return byte;
    }

private:
    Net &sda_;
    Net::Driver &data_, &tick_;
};

} // namespace fixture
