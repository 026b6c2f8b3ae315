// fixture flash extract, write, erase and verify: one slot of a chip, the others untouched.
#pragma once

namespace CLI {
class App;
}

namespace fixture {

// Adds them to `fixture flash`; see tools/commands.h.
void AddFlashSlotCommands(CLI::App &flash, int &exit_status);

} // namespace fixture
