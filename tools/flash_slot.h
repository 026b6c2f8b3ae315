// fixture flash extract, write, erase and verify: one slot of a chip, the others untouched.
#pragma once

namespace fixture {

class Command;

// Adds them to `fixture flash`; see tools/commands.h.
void AddFlashSlotCommands(Command &flash, int &exit_status);

} // namespace fixture
