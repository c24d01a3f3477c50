#include "bridge.h"

#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>

std::string charToString(char c) { return std::string(1, c); }

std::string readable(char c)
{
    // isprint of the C locale, without depending on the process's locale.
    if (c >= 0x20 && c <= 0x7e) return charToString(c);
    static const char hex[] = "0123456789abcdef";
    unsigned char u = static_cast<unsigned char>(c);
    return std::string("0x") + hex[u >> 4] + hex[u & 15] + " ";
}

std::string readable(std::string const& s)
{
    std::string out;
    out.reserve(s.size());
    for (char c : s) out += readable(c);
    return out;
}

std::string OSTypeToString(unsigned long code)
{
    std::uint32_t low = static_cast<std::uint32_t>(code);
    char bytes[4];
    std::memcpy(bytes, &low, 4);
    return readable(std::string(bytes, 4));
}

namespace {

struct DebugChannels {
    std::mutex lock;
    // (file, level) -> output is off
    std::map<std::pair<std::string, int>, bool> outputOff;
};

// Never destroyed, so users in static destructors still find it.
DebugChannels& channels()
{
    static DebugChannels* table = new DebugChannels;
    return *table;
}

} // namespace

void setdebugchannel(std::string file, int level, bool on)
{
    DebugChannels& t = channels();
    std::lock_guard<std::mutex> g(t.lock);
    t.outputOff[{std::move(file), level}] = !on;
}

bool debugchannelon(std::string const& file, int level)
{
    DebugChannels& t = channels();
    std::lock_guard<std::mutex> g(t.lock);
    auto it = t.outputOff.find({file, level});
    return it != t.outputOff.end() && !it->second;
}
