#include "MediaTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>

extern "C" {
#include <libavutil/crc.h>
}


#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace testsupport {

namespace {
// FFmpeg's and the encoders' chatter stays out of the test logs.
struct QuietMedia {
    QuietMedia() { media::setupMediaLogging(); }
} quietMedia;
} // namespace

ScratchDir::ScratchDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "dubmatch-test-XXXXXX").string();
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) throw std::runtime_error("cannot make a scratch folder");
    path_ = buf.data();
}

ScratchDir::~ScratchDir()
{
    std::error_code ec;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(path_, ec);
}

media::TestMovieSpec smallSpec(double seconds, double offset, double rate)
{
    media::TestMovieSpec s;
    s.seconds = seconds;
    s.width = 320;
    s.height = 240;
    s.audioOffset = offset;
    s.audioRate = rate;
    return s;
}

std::vector<Offset> markPoints(media::TestMovieSpec const& spec, long scale)
{
    std::vector<Offset> pts;
    for (auto const& m : media::testMovieMarks(spec)) pts.emplace_back(myQTTime(m.movieTime, scale), myQTTime(m.audioTime, scale));
    return pts;
}

std::string cachedMovie(std::string const& name, media::TestMovieSpec const& spec)
{
    static ScratchDir dir; // lives until the process ends
    static std::map<std::string, std::string> made;
    auto it = made.find(name);
    if (it != made.end()) return it->second;
    std::string path = dir.file(name);
    media::writeTestMovie(path, spec);
    made[name] = path;
    return path;
}

int disabledSoundTracks(std::string const& path)
{
    int n = 0;
    media::OpenedMovie om = media::openMovie(path);
    for (auto const& t : om.movie->tracks())
        if (t->mediaType() == dm::MediaType::Sound && !t->isEnabled()) ++n;
    return n;
}

std::string readFile(std::string const& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void writeFile(std::string const& path, std::string const& bytes)
{
    std::ofstream out(path, std::ios::binary);
    out << bytes;
}

bool exists(std::string const& path) { return access(path.c_str(), F_OK) == 0; }

std::vector<std::string> listDir(std::string const& path)
{
    std::vector<std::string> names;
    for (auto const& e : std::filesystem::directory_iterator(path)) names.push_back(e.path().filename().string());
    return names;
}

StreamRead readStream(media::SourceFile::Input& in, int stream)
{
    StreamRead r;
    AVStream* st = in.format->streams[stream];
    r.extradata.assign(reinterpret_cast<char const*>(st->codecpar->extradata), static_cast<std::size_t>(st->codecpar->extradata_size));
    r.timeBase = st->time_base;
    r.codec = st->codecpar->codec_id;
    r.id = st->id;
    media::Packet pkt = media::makePacket();
    while (av_read_frame(in.format.get(), pkt.get()) >= 0) {
        if (pkt->stream_index == stream) {
            std::string side;
            for (int i = 0; i < pkt->side_data_elems; ++i)
                side += std::to_string(pkt->side_data[i].type) + ":"
                      + std::string(reinterpret_cast<char const*>(pkt->side_data[i].data), pkt->side_data[i].size) + ";";
            std::uint32_t crc = av_crc(av_crc_get_table(AV_CRC_32_IEEE), 0, pkt->data, static_cast<std::size_t>(pkt->size));
            r.packets.emplace_back(pkt->pts, pkt->dts, pkt->duration, pkt->flags, crc, side);
        }
        av_packet_unref(pkt.get());
    }
    return r;
}

std::vector<std::string> sortedListing(std::string const& dir)
{
    auto names = listDir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

void expectSyncedMovie(std::string const& path, double seconds, double tolerance)
{
    media::OpenedMovie om = media::openMovie(path);
    EXPECT_FALSE(om.truncated);
    ASSERT_EQ(om.movie->tracks().size(), 3u);
    int disabled = 0;
    for (auto const& t : om.movie->tracks()) disabled += t->isEnabled() ? 0 : 1;
    EXPECT_EQ(disabled, 1);
    EXPECT_NEAR(om.movie->duration().seconds(), seconds, tolerance);
}

} // namespace testsupport
