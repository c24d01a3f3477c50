// Any bytes as a movie file: opening, validating, rendering a little of the
// sound and writing a copy either work or end in a MediaError, never a
// crash, a leak or undefined behaviour.
#include "AudioRenderer.h"
#include "MovieFile.h"
#include "MovieWriter.h"
#include "Refusal.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size)
{
    static bool once = (media::setupMediaLogging(), true);
    (void)once;
    static const std::string dir = [] {
        char tmpl[] = "/tmp/dubmatch-fuzz-XXXXXX";
        return std::string(mkdtemp(tmpl));
    }();
    std::string path = dir + "/input.mov";
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    try {
        media::OpenedMovie om = media::openMovie(path);
        auto list = makeOffsetList(om.movie.get(), nullptr);
        {
            auto sound = list->soundTrack();
            media::AudioRenderer r(std::static_pointer_cast<const media::FileMedia>(sound->media()));
            media::PcmBuffer pcm(r.channels(), 4096);
            r.render(*sound->editList(), 0, pcm);
            std::vector<Offset> pts{Offset(myQTTime(1.0, 600), myQTTime(1.1, 600)), Offset(myQTTime(2.0, 600), myQTTime(2.05, 600))};
            list->replacePoints(pts);
            media::writeMovie(*om.movie, dir + "/copy.mov");
        }
    } catch (media::MediaError const&) {
    } catch (Refused const&) {
    } catch (myQTTime::BadScale const&) {
    }
    return 0;
}
