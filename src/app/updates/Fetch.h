// Network access with libcurl: reading a property list from a web address
// (http, https or file) with timeouts, a size cap and limits on its shape,
// and sending a mail.
#pragma once

#include <QString>

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace net {

// What a property list from the network may hold. The update document needs
// two levels (a dictionary of per-application dictionaries of strings); a
// document beyond these limits is refused before any tree is built from it.
struct PlistLimits {
    int maxDepth = 4;            // dictionaries and arrays nested in each other, the root counting 1
    std::size_t maxNodes = 20000; // values and keys in all; a value that a binary list
                                  // refers to from several places counts once per reference
};

struct FetchLimits {
    long connectTimeoutMs = 5000;
    long totalTimeoutMs = 15000;
    std::size_t maxBytes = 1 << 20; // larger documents are refused
    PlistLimits plist;
};

// The document's bytes, or nullopt with `error` set.
std::optional<std::string> fetch(std::string const& url, FetchLimits const& limits, std::string* error = nullptr);

// A property-list value: a string, or a dictionary of values.
struct PlistValue {
    std::optional<std::string> string;
    std::map<std::string, PlistValue> dict;
    bool isDict = false;
};
// Parses an XML or binary property list into strings and dictionaries
// (other values are kept as empty placeholders); nullopt with `error` set
// when it is none or exceeds `limits`. Never recurses on the document's
// structure, so no document can exhaust the stack.
std::optional<PlistValue> parsePlist(std::string const& bytes, PlistLimits const& limits = {}, std::string* error = nullptr);
// fetch + parse; nullopt (with `error` set) unless the document is a dictionary.
std::optional<PlistValue> dictionaryWithContentsOfURL(std::string const& url, FetchLimits const& limits = {},
                                                      std::string* error = nullptr);

struct Mail {
    std::string server; // smtp://host:port
    std::string from;
    std::string to;
    std::string subject;
    std::string body;
};
// Told how much of the message has gone out (bytes sent, bytes in all;
// total 0 while connecting); returning false cancels the transfer. Called on
// the sending thread.
using MailProgress = std::function<bool(std::size_t sent, std::size_t total)>;
// Hands the message to the SMTP server; false with `error` set on failure.
// Blocks: call it off the GUI thread.
bool sendMail(Mail const& mail, std::string* error = nullptr, long timeoutMs = 10000, MailProgress const& progress = {});

} // namespace net
