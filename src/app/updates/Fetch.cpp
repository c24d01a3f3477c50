#include "Fetch.h"

#include <curl/curl.h>
#include <plist/plist.h>

#include <QByteArray>
#include <QXmlStreamReader>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace net {

namespace {

void globalInit()
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct CurlDeleter {
    void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
using Curl = std::unique_ptr<CURL, CurlDeleter>;

struct SlistDeleter {
    void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
using Slist = std::unique_ptr<curl_slist, SlistDeleter>;

struct Sink {
    std::string data;
    std::size_t cap;
    bool tooBig = false;
};

// libcurl calls this from C: nothing may be thrown through it.
std::size_t write(char* ptr, std::size_t size, std::size_t n, void* user) noexcept
{
    auto* s = static_cast<Sink*>(user);
    std::size_t bytes = size * n;
    if (s->data.size() + bytes > s->cap) {
        s->tooBig = true;
        return 0; // stops the transfer
    }
    try {
        s->data.append(ptr, bytes);
    } catch (...) {
        return 0;
    }
    return bytes;
}

// ---- The shape of a property list, measured before libplist builds it ----
//
// libplist follows every reference of a binary list and copies the value it
// finds, so a few hundred bytes of dictionaries that refer to one another
// grow to gigabytes; it also frees its trees recursively, so a deep one
// exhausts the stack. The document is therefore measured first, without
// building anything and without recursion.

constexpr std::size_t kBinaryHeader = 8; // "bplist00"
constexpr std::size_t kBinaryTrailer = 32;

// Reads an unsigned big-endian number of `width` bytes (1 to 8).
std::uint64_t bigEndian(std::string_view d, std::uint64_t at, unsigned width)
{
    std::uint64_t v = 0;
    for (unsigned i = 0; i < width; ++i) v = (v << 8) | static_cast<unsigned char>(d[at + i]);
    return v;
}

// Follows the object table of a binary property list from its top object
// and refuses it when containers nest deeper than the limit, when the tree
// would hold more values than the budget once every reference is followed,
// when an object contains itself, or when the table points outside the
// document. Each object is measured once (subtree sizes are remembered), so
// the work is linear in the document's size.
bool checkBinaryShape(std::string_view d, PlistLimits const& limits, std::string& error)
{
    auto malformed = [&] {
        error = "malformed binary property list";
        return false;
    };
    if (d.size() < kBinaryHeader + kBinaryTrailer) return malformed();
    std::size_t const trailer = d.size() - kBinaryTrailer;
    unsigned const offsetSize = static_cast<unsigned char>(d[trailer + 6]);
    unsigned const refSize = static_cast<unsigned char>(d[trailer + 7]);
    std::uint64_t const count = bigEndian(d, trailer + 8, 8);
    std::uint64_t const top = bigEndian(d, trailer + 16, 8);
    std::uint64_t const table = bigEndian(d, trailer + 24, 8);
    if (offsetSize < 1 || offsetSize > 8 || refSize < 1 || refSize > 8) return malformed();
    if (table < kBinaryHeader || table > trailer || count == 0 || count > (trailer - table) / offsetSize || top >= count)
        return malformed();

    // Where the references of a container start and how many there are (none
    // for any other object). Strings are looked into as well: libplist aborts
    // the process on a string with a NUL character in it, so such a document
    // is refused here.
    struct Refs {
        bool container = false;
        std::uint64_t first = 0, n = 0;
    };
    auto refsOf = [&](std::uint64_t object, Refs& out) -> bool {
        out = {};
        std::uint64_t at = bigEndian(d, table + object * offsetSize, offsetSize);
        if (at < kBinaryHeader || at >= table) return malformed();
        unsigned marker = static_cast<unsigned char>(d[at]);
        unsigned type = marker >> 4;
        bool container = type == 0xA || type == 0xC || type == 0xD;
        bool text = type == 0x5 || type == 0x6; // ASCII, UTF-16
        if (!container && !text) return true;
        std::uint64_t entries = marker & 0xF, pos = at + 1;
        if (entries == 0xF) { // the count follows as an integer object
            if (pos >= table) return malformed();
            unsigned intMarker = static_cast<unsigned char>(d[pos]);
            unsigned width = 1u << (intMarker & 0xF);
            if ((intMarker >> 4) != 1 || width > 8 || pos + 1 + width > table) return malformed();
            entries = bigEndian(d, pos + 1, width);
            pos += 1 + width;
        }
        if (text) {
            unsigned unit = type == 0x6 ? 2 : 1;
            if (entries > (table - pos) / unit) return malformed();
            for (std::uint64_t i = 0; i < entries; ++i)
                if (bigEndian(d, pos + i * unit, unit) == 0) {
                    error = "property list has a string with a NUL character";
                    return false;
                }
            return true;
        }
        std::uint64_t room = (table - pos) / refSize;
        if (entries > room || (type == 0xD && entries > room / 2)) return malformed();
        out = {true, pos, type == 0xD ? entries * 2 : entries};
        return true;
    };

    enum : std::uint8_t { unseen, open, measured };
    std::vector<std::uint8_t> state(count, unseen);
    std::vector<std::uint64_t> nodes(count, 0);  // subtree sizes, never above the budget
    std::vector<std::uint32_t> height(count, 0); // containers on the longest path down, never above maxDepth
    struct Frame {
        std::uint64_t object;
        Refs refs;
        std::uint64_t next = 0;
        std::uint64_t nodes = 1;
        int height = 0; // of the tallest child so far
    };
    std::vector<Frame> path; // the open containers, root first
    auto tooMany = [&] {
        error = "property list holds more than " + std::to_string(limits.maxNodes) + " values";
        return false;
    };
    auto tooDeep = [&] {
        error = "property list nested more than " + std::to_string(limits.maxDepth) + " levels deep";
        return false;
    };
    // Adds a measured child to the frame on top of the path.
    auto addChild = [&](std::uint64_t nodeCount, std::uint32_t childHeight) -> bool {
        Frame& f = path.back();
        f.nodes += nodeCount;
        f.height = std::max(f.height, static_cast<int>(childHeight));
        if (f.nodes > limits.maxNodes) return tooMany();
        if (static_cast<std::uint64_t>(path.size()) + childHeight > static_cast<std::uint64_t>(limits.maxDepth))
            return tooDeep();
        return true;
    };
    // Starts measuring `object`: a leaf is measured at once, a container opens.
    auto start = [&](std::uint64_t object) -> bool {
        Refs refs;
        if (!refsOf(object, refs)) return false;
        if (!refs.container) {
            state[object] = measured;
            nodes[object] = 1;
            height[object] = 0;
            return path.empty() || addChild(1, 0);
        }
        if (static_cast<int>(path.size()) >= limits.maxDepth) return tooDeep();
        state[object] = open;
        path.push_back(Frame{object, refs});
        return true;
    };

    if (!start(top)) return false;
    while (!path.empty()) {
        Frame& f = path.back();
        if (f.next == f.refs.n) {
            std::uint64_t object = f.object;
            nodes[object] = f.nodes;
            height[object] = static_cast<std::uint32_t>(f.height + 1);
            state[object] = measured;
            path.pop_back();
            if (!path.empty() && !addChild(nodes[object], height[object])) return false;
            continue;
        }
        std::uint64_t child = bigEndian(d, f.refs.first + f.next * refSize, refSize);
        ++f.next;
        if (child >= count) return malformed();
        if (state[child] == open) {
            error = "property list contains itself";
            return false;
        }
        if (state[child] == measured) {
            if (!addChild(nodes[child], height[child])) return false;
            continue;
        }
        if (!start(child)) return false;
    }
    return true;
}

// Walks the elements of an XML property list with Qt's streaming reader and
// refuses it when it is not well-formed, nests containers deeper than the
// limit or holds more values than the budget.
bool checkXmlShape(std::string const& bytes, PlistLimits const& limits, std::string& error)
{
    QXmlStreamReader xml(QByteArray::fromRawData(bytes.data(), static_cast<qsizetype>(bytes.size())));
    int depth = 0;
    std::size_t nodes = 0;
    while (!xml.atEnd()) {
        switch (xml.readNext()) {
        case QXmlStreamReader::StartElement:
            if (xml.name() != u"plist" && ++nodes > limits.maxNodes) {
                error = "property list holds more than " + std::to_string(limits.maxNodes) + " values";
                return false;
            }
            if ((xml.name() == u"dict" || xml.name() == u"array") && ++depth > limits.maxDepth) {
                error = "property list nested more than " + std::to_string(limits.maxDepth) + " levels deep";
                return false;
            }
            break;
        case QXmlStreamReader::EndElement:
            if (xml.name() == u"dict" || xml.name() == u"array") --depth;
            break;
        default:
            break;
        }
    }
    if (xml.hasError()) {
        error = "not a property list: " + xml.errorString().toStdString();
        return false;
    }
    return true;
}

// Converts libplist's tree into strings and dictionaries with an explicit
// work list instead of recursion; the limits are enforced again here so the
// conversion stands on its own.
std::optional<PlistValue> convert(plist_t root, PlistLimits const& limits, std::string& error)
{
    struct Work {
        plist_t node;
        PlistValue* into; // a slot of the result; std::map keeps it in place
        int depth;        // of the dictionary `node` would be
    };
    PlistValue result;
    std::vector<Work> todo{{root, &result, 1}};
    std::size_t count = 0;
    while (!todo.empty()) {
        Work w = todo.back();
        todo.pop_back();
        if (++count > limits.maxNodes) {
            error = "property list holds more than " + std::to_string(limits.maxNodes) + " values";
            return std::nullopt;
        }
        plist_type type = plist_get_node_type(w.node);
        if (type == PLIST_STRING) {
            char* s = nullptr;
            plist_get_string_val(w.node, &s);
            std::unique_ptr<char, void (*)(void*)> owner(s, std::free);
            w.into->string = s ? s : "";
        } else if (type == PLIST_DICT) {
            if (w.depth > limits.maxDepth) {
                error = "property list nested more than " + std::to_string(limits.maxDepth) + " levels deep";
                return std::nullopt;
            }
            w.into->isDict = true;
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(w.node, &it);
            std::unique_ptr<void, void (*)(void*)> iterOwner(it, std::free);
            for (;;) {
                char* key = nullptr;
                plist_t child = nullptr;
                plist_dict_next_item(w.node, it, &key, &child);
                std::unique_ptr<char, void (*)(void*)> keyOwner(key, std::free);
                if (!key) break;
                todo.push_back({child, &w.into->dict[key], w.depth + 1});
            }
        }
        // Arrays, numbers, dates and data are not needed: they stay empty.
    }
    return result;
}

} // namespace

std::optional<std::string> fetch(std::string const& url, FetchLimits const& limits, std::string* error)
{
    globalInit();
    Curl c(curl_easy_init());
    if (!c) {
        if (error) *error = "cannot start a transfer";
        return std::nullopt;
    }
    Sink sink{{}, limits.maxBytes};
    curl_easy_setopt(c.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(c.get(), CURLOPT_PROTOCOLS_STR, "http,https,file");
    curl_easy_setopt(c.get(), CURLOPT_REDIR_PROTOCOLS_STR, "http,https"); // a web server never sends us to a file
    curl_easy_setopt(c.get(), CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(c.get(), CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(c.get(), CURLOPT_CONNECTTIMEOUT_MS, limits.connectTimeoutMs);
    curl_easy_setopt(c.get(), CURLOPT_TIMEOUT_MS, limits.totalTimeoutMs);
    curl_easy_setopt(c.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c.get(), CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(c.get(), CURLOPT_WRITEFUNCTION, write);
    curl_easy_setopt(c.get(), CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(c.get(), CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(limits.maxBytes));
    CURLcode rc = curl_easy_perform(c.get());
    if (rc != CURLE_OK) {
        if (error) *error = sink.tooBig ? "the document is too large" : curl_easy_strerror(rc);
        return std::nullopt;
    }
    return sink.data;
}

std::optional<PlistValue> parsePlist(std::string const& bytes, PlistLimits const& limits, std::string* error)
{
    std::string why;
    auto fail = [&] {
        if (error) *error = why;
        return std::nullopt;
    };
    if (bytes.empty() || bytes.size() > UINT32_MAX) {
        why = "not a property list";
        return fail();
    }
    auto length = static_cast<std::uint32_t>(bytes.size());
    bool shapeOk = plist_is_binary(bytes.data(), length) ? checkBinaryShape(bytes, limits, why) : checkXmlShape(bytes, limits, why);
    if (!shapeOk) return fail();
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), length, &root);
    if (!root) {
        why = "not a property list";
        return fail();
    }
    std::unique_ptr<void, void (*)(plist_t)> owner(root, plist_free);
    auto value = convert(root, limits, why);
    if (!value) return fail();
    return value;
}

std::optional<PlistValue> dictionaryWithContentsOfURL(std::string const& url, FetchLimits const& limits, std::string* error)
{
    auto bytes = fetch(url, limits, error);
    if (!bytes) return std::nullopt;
    auto v = parsePlist(*bytes, limits.plist, error);
    if (!v) return std::nullopt;
    if (!v->isDict) {
        if (error) *error = "the property list is not a dictionary";
        return std::nullopt;
    }
    return v;
}

namespace {
struct Source {
    std::string text;
    std::size_t pos = 0;
};
std::size_t readMail(char* buf, std::size_t size, std::size_t n, void* user) noexcept
{
    auto* s = static_cast<Source*>(user);
    std::size_t k = std::min(size * n, s->text.size() - s->pos);
    std::memcpy(buf, s->text.data() + s->pos, k);
    s->pos += k;
    return k;
}

struct Progress {
    MailProgress const* report;
    std::size_t total;
};
// libcurl calls this from C: a throwing reporter cancels the transfer.
int mailProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t sent) noexcept
{
    auto* p = static_cast<Progress*>(user);
    try {
        return (*p->report)(static_cast<std::size_t>(sent), p->total) ? 0 : 1;
    } catch (...) {
        return 1;
    }
}
} // namespace

bool sendMail(Mail const& mail, std::string* error, long timeoutMs, MailProgress const& progress)
{
    globalInit();
    Curl c(curl_easy_init());
    if (!c) {
        if (error) *error = "cannot start a transfer";
        return false;
    }
    // Lines end in CRLF; a body line that starts with "." is doubled by curl.
    std::string body;
    for (char ch : mail.body) {
        if (ch == '\n' && (body.empty() || body.back() != '\r')) body += '\r';
        body += ch;
    }
    Source src{"From: <" + mail.from + ">\r\nTo: <" + mail.to + ">\r\nSubject: " + mail.subject
                   + "\r\nContent-Type: text/plain; charset=utf-8\r\n\r\n" + body + "\r\n",
               0};
    Slist rcpt(curl_slist_append(nullptr, ("<" + mail.to + ">").c_str()));
    curl_easy_setopt(c.get(), CURLOPT_URL, mail.server.c_str());
    curl_easy_setopt(c.get(), CURLOPT_PROTOCOLS_STR, "smtp,smtps");
    curl_easy_setopt(c.get(), CURLOPT_MAIL_FROM, ("<" + mail.from + ">").c_str());
    curl_easy_setopt(c.get(), CURLOPT_MAIL_RCPT, rcpt.get());
    curl_easy_setopt(c.get(), CURLOPT_READFUNCTION, readMail);
    curl_easy_setopt(c.get(), CURLOPT_READDATA, &src);
    curl_easy_setopt(c.get(), CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(c.get(), CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(src.text.size()));
    Progress reporting{&progress, src.text.size()};
    if (progress) {
        curl_easy_setopt(c.get(), CURLOPT_XFERINFOFUNCTION, mailProgress);
        curl_easy_setopt(c.get(), CURLOPT_XFERINFODATA, &reporting);
        curl_easy_setopt(c.get(), CURLOPT_NOPROGRESS, 0L);
    }
    curl_easy_setopt(c.get(), CURLOPT_CONNECTTIMEOUT_MS, std::min(timeoutMs, 5000L));
    curl_easy_setopt(c.get(), CURLOPT_TIMEOUT_MS, timeoutMs);
    curl_easy_setopt(c.get(), CURLOPT_NOSIGNAL, 1L);
    CURLcode rc = curl_easy_perform(c.get());
    if (rc != CURLE_OK) {
        if (error) *error = rc == CURLE_ABORTED_BY_CALLBACK ? "cancelled" : curl_easy_strerror(rc);
        return false;
    }
    return true;
}

} // namespace net
