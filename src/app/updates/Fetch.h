// Network access with libcurl: reading a property list from a web address
// (http, https or file) with timeouts and a size cap, and sending a mail.
#pragma once

#include <QString>

#include <map>
#include <optional>
#include <string>

namespace net {

struct FetchLimits {
    long connectTimeoutMs = 5000;
    long totalTimeoutMs = 15000;
    std::size_t maxBytes = 1 << 20; // larger documents are refused
};

// The document's bytes, or nullopt with `error` set.
std::optional<std::string> fetch(std::string const& url, FetchLimits const& limits, std::string* error = nullptr);

// A property-list value: a string, or a dictionary of values.
struct PlistValue {
    std::optional<std::string> string;
    std::map<std::string, PlistValue> dict;
    bool isDict = false;
};
// Parses an XML or binary property list; nullopt when it is none.
std::optional<PlistValue> parsePlist(std::string const& bytes);
// fetch + parse; nullopt unless the document is a dictionary.
std::optional<PlistValue> dictionaryWithContentsOfURL(std::string const& url, FetchLimits const& limits = {});

struct Mail {
    std::string server; // smtp://host:port
    std::string from;
    std::string to;
    std::string subject;
    std::string body;
};
// Hands the message to the SMTP server; false with `error` set on failure.
bool sendMail(Mail const& mail, std::string* error = nullptr, long timeoutMs = 10000);

} // namespace net
