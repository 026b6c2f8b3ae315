// The panel's model alone on its serial line.
#pragma once

#include "fixture/parts/panel.h"

#include <memory>
#include <string_view>

namespace fixture {

class PanelLine {
public:
    PanelLine();
    // Hexadecimal digits are shifted, '.' is a single bit; '(' and ')' select and deselect; '!' and '+' begin and end a
    // reset; '_' leaves the clock low.
    void send(std::string_view script);

    Clock clock;
    Journal journal{clock};

private:
    void shift(unsigned bits, int count);

    Net data_{"data", journal}, bit_{"clock", journal}, select_{"select", journal}, reset_{"reset", journal};
    Net::Driver &drive_data_ = data_.attach("test"), &drive_bit_ = bit_.attach("test");
    Net::Driver &drive_select_ = select_.attach("test"), &drive_reset_ = reset_.attach("test");

public:
    std::unique_ptr<Panel> panel; // last: it is there only while the lines are
};

} // namespace fixture
