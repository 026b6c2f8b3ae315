// The DBGU at 115,200 baud, polled: the console of both platforms. Init comes first, since the first stage may have
// left the DBGU off. Put waits until the character is taken; one that is written while the DBGU is busy is lost.
#pragma once

#include <cstdint>

void CONSOLE_Init(void);
void CONSOLE_Put(char c);
void CONSOLE_PutText(const char *text);
void CONSOLE_PutHex(std::uint32_t value);
