#include "harness/panel_line.h"

#include <string>

namespace fixture {

// Lines first: a panel that comes up on low ones sees a reset and a selection.
PanelLine::PanelLine() {
    for (Net::Driver *driver : {&drive_bit_, &drive_select_, &drive_reset_}) driver->set(Drive::high);
    panel = std::make_unique<Panel>(clock, journal, Panel::Line{data_, bit_, select_, reset_});
}

void PanelLine::send(std::string_view script) {
    for (const char c : script) {
        switch (c) {
        case '(': drive_select_.set(Drive::low); break;
        case ')': drive_select_.set(Drive::high); break;
        case '!': drive_reset_.set(Drive::low); break;
        case '+': drive_reset_.set(Drive::high); break;
        case '_': drive_bit_.set(Drive::low); break;
        case '.': shift(0, 1); break;
        default: shift(static_cast<unsigned>(std::stoul(std::string(1, c), nullptr, 16)), 4); break;
        }
    }
}

void PanelLine::shift(unsigned bits, int count) {
    for (int left = count - 1; left >= 0; --left) {
        drive_bit_.set(Drive::low);
        drive_data_.set(bits >> left & 1 ? Drive::high : Drive::low);
        drive_bit_.set(Drive::high);
    }
}

} // namespace fixture
