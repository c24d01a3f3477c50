#include "Fetch.h"

#include <curl/curl.h>
#include <plist/plist.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

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

std::size_t write(char* ptr, std::size_t size, std::size_t n, void* user)
{
    auto* s = static_cast<Sink*>(user);
    std::size_t bytes = size * n;
    if (s->data.size() + bytes > s->cap) {
        s->tooBig = true;
        return 0; // stops the transfer
    }
    s->data.append(ptr, bytes);
    return bytes;
}

PlistValue convert(plist_t node)
{
    PlistValue v;
    if (plist_get_node_type(node) == PLIST_STRING) {
        char* s = nullptr;
        plist_get_string_val(node, &s);
        v.string = s ? s : "";
        std::free(s);
    } else if (plist_get_node_type(node) == PLIST_DICT) {
        v.isDict = true;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        std::unique_ptr<void, void (*)(void*)> owner(it, std::free);
        for (;;) {
            char* key = nullptr;
            plist_t child = nullptr;
            plist_dict_next_item(node, it, &key, &child);
            if (!key) break;
            v.dict[key] = convert(child);
            std::free(key);
        }
    }
    return v;
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

std::optional<PlistValue> parsePlist(std::string const& bytes)
{
    if (bytes.empty()) return std::nullopt;
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
    if (!root) return std::nullopt;
    std::unique_ptr<void, void (*)(plist_t)> owner(root, plist_free);
    return convert(root);
}

std::optional<PlistValue> dictionaryWithContentsOfURL(std::string const& url, FetchLimits const& limits)
{
    auto bytes = fetch(url, limits);
    if (!bytes) return std::nullopt;
    auto v = parsePlist(*bytes);
    if (!v || !v->isDict) return std::nullopt;
    return v;
}

namespace {
struct Source {
    std::string text;
    std::size_t pos = 0;
};
std::size_t readMail(char* buf, std::size_t size, std::size_t n, void* user)
{
    auto* s = static_cast<Source*>(user);
    std::size_t k = std::min(size * n, s->text.size() - s->pos);
    std::memcpy(buf, s->text.data() + s->pos, k);
    s->pos += k;
    return k;
}
} // namespace

bool sendMail(Mail const& mail, std::string* error, long timeoutMs)
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
    curl_easy_setopt(c.get(), CURLOPT_CONNECTTIMEOUT_MS, std::min(timeoutMs, 5000L));
    curl_easy_setopt(c.get(), CURLOPT_TIMEOUT_MS, timeoutMs);
    curl_easy_setopt(c.get(), CURLOPT_NOSIGNAL, 1L);
    CURLcode rc = curl_easy_perform(c.get());
    if (rc != CURLE_OK) {
        if (error) *error = curl_easy_strerror(rc);
        return false;
    }
    return true;
}

} // namespace net
