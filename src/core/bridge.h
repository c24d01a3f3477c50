// Platform-neutral helpers: printable renderings of characters and
// four-character codes, and the table of debug-trace channels.
#pragma once

#include <string>

// A one-character string.
std::string charToString(char c);

// The character itself when printable in the C locale (0x20 to 0x7E), else
// "0x", two or more lowercase hex digits and a space (a line feed gives
// "0x0a ").
std::string readable(char c);
// readable() of every character, concatenated.
std::string readable(std::string const& s);

// readable() of the four bytes of the code's low 32 bits in the order in
// which they lie in memory (no byte swapping).
std::string OSTypeToString(unsigned long code);

// Debug-trace channels, keyed by source file name and level. A channel that
// was never set is off. The table lives for the whole process and is locked,
// so it may be used from static initialisers and from any thread.
void setdebugchannel(std::string file, int level, bool on);
bool debugchannelon(std::string const& file, int level);
