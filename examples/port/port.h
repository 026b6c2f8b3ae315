// The port's own calls.
#pragma once

// From the entry, with zero-initialised data cleared. Returns when there is nothing to launch.
extern "C" void PORT_Start(void);
// One character to the console.
void PORT_Put(char c);
