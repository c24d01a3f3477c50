// Version strings: any input parses or writes its error line; a value whose
// type is a known one formats and parses back to itself.
#include "version.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size)
{
    std::string s(reinterpret_cast<const char*>(data), size);
    version_t v(s);
    (void)v.asUtf8String();
    bool nonNegative = v.major_version >= 0 && v.minor_version >= 0 && v.subminor_version >= 0 && v.build_version >= 0;
    if (nonNegative) {
        version_t back(v.asString());
        if (!(back == v)) std::abort();
    }
    return 0;
}
