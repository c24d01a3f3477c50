// Platform-neutral helpers: printable renderings of characters and
// four-character codes, and the table of debug-trace channels.
#pragma once

#include <exception>
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

// Scope guard: calls `selector` on `target` when the scope ends, also when
// an exception leaves it. An exception from the call itself propagates when
// the scope ends normally and is dropped while another one is unwinding (two
// in flight would end the process). Used to pair willUpdateMode with
// didUpdateMode.
template <class T>
class CallObjCOnDestruct {
public:
    CallObjCOnDestruct(T* target, void (T::*selector)())
        : target_(target), selector_(selector), exceptionsAtEntry_(std::uncaught_exceptions()) {}
    CallObjCOnDestruct(CallObjCOnDestruct const&) = delete;
    CallObjCOnDestruct& operator=(CallObjCOnDestruct const&) = delete;
    ~CallObjCOnDestruct() noexcept(false)
    {
        if (!target_) return;
        if (std::uncaught_exceptions() > exceptionsAtEntry_) {
            try {
                (target_->*selector_)();
            } catch (...) {
            }
        } else {
            (target_->*selector_)();
        }
    }

private:
    T* target_;
    void (T::*selector_)();
    int exceptionsAtEntry_;
};
