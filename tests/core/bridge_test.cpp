#include "bridge.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

TEST(Bridge, Readable)
{
    EXPECT_EQ(readable(std::string("a\tb")), "a0x09 b");
    EXPECT_EQ(readable(std::string("Hello, world!")), "Hello, world!");
    EXPECT_EQ(readable(std::string()), "");
    EXPECT_EQ(readable('\n'), "0x0a ");
    EXPECT_EQ(readable('\xff'), "0xff ");
    EXPECT_EQ(readable('\x80'), "0x80 ");
    EXPECT_EQ(readable('\x7f'), "0x7f ");
    EXPECT_EQ(readable(' '), " ");
    EXPECT_EQ(readable('~'), "~");
    EXPECT_EQ(readable(std::string("\0x", 2)), "0x00 x");
    EXPECT_EQ(charToString('q'), "q");
}

TEST(Bridge, OSTypeToStringKeepsMemoryOrder)
{
    unsigned long code = 0x4D6F6F56; // 'MooV' as a number
    std::uint32_t low = static_cast<std::uint32_t>(code);
    const char* bytes = reinterpret_cast<const char*>(&low);
    std::string expected = readable(std::string(bytes, 4));
    EXPECT_EQ(OSTypeToString(code), expected);
    // On this little-endian machine the low byte lies first.
    if (bytes[0] == 'V') {
        EXPECT_EQ(OSTypeToString(code), "VooM");
    }
    EXPECT_EQ(OSTypeToString(0x0a000041), "A0x00 0x00 0x0a ");
}

TEST(Bridge, DebugChannels)
{
    EXPECT_FALSE(debugchannelon("file.cpp", 1));
    setdebugchannel("file.cpp", 1, true);
    EXPECT_TRUE(debugchannelon("file.cpp", 1));
    EXPECT_FALSE(debugchannelon("file.cpp", 2));
    EXPECT_FALSE(debugchannelon("file.cp", 1));
    setdebugchannel("file.cpp", 1, false);
    EXPECT_FALSE(debugchannelon("file.cpp", 1));

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            std::string channel(1, 't');
            channel += std::to_string(t);
            for (int i = 0; i < 1000; ++i) setdebugchannel(channel, i % 10, i % 2 == 0);
        });
    for (auto& th : threads) th.join();
    EXPECT_FALSE(debugchannelon("t0", 9)); // last write for level 9 was i = 999: off
    EXPECT_TRUE(debugchannelon("t3", 8));
}

} // namespace
