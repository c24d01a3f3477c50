// Time text through the parser, the text constructor and the formatter: any
// input either parses or raises BadDuration, and never trips a sanitizer.
#include "myQTTime.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size)
{
    std::string_view text(reinterpret_cast<const char*>(data), size);
    double seconds;
    try {
        seconds = myQTTime::GetDuration(text);
    } catch (myQTTime::BadDuration const&) {
        return 0;
    }
    if (!std::isfinite(seconds)) std::abort();
    for (long scale : {1L, 600L, 48000L, 90000L, 2147483647L}) {
        myQTTime t(text, scale);
        (void)t.asString(3, 3);
        (void)t.asString(0, 40);
        (void)t.width();
        myQTTime u = t;
        u += myQTTime(1LL, 44100);
        u -= myQTTime(-7LL, 1001);
        u /= 0.3;
        (void)(u < t);
        (void)t.timeWithScaleOf(30000);
        u.setTimeScaleAtLeast(1 << 30);
    }
    return 0;
}
