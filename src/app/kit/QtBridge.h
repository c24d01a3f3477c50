// Bridging between the system's value types and Qt's: a comparable string
// value for keys of standard containers, conversions, stream output, and an
// iterator over a set of selected rows.
#pragma once

#include <QString>

#include <iosfwd>
#include <set>
#include <string>

// An immutable string value, never null, ordered by a case-sensitive,
// literal comparison of its UTF-16 code units (so "B" sorts before "a").
class NSStringWrapper {
public:
    NSStringWrapper() = default;
    NSStringWrapper(QString s) : s_(s.isNull() ? QString("") : std::move(s)) {}
    // A one-character string of this UTF-16 unit (key codes such as the
    // arrow keys' function characters).
    explicit NSStringWrapper(char16_t unit) : s_(QChar(unit)) {}
    NSStringWrapper(char const* utf8) : s_(QString::fromUtf8(utf8)) {}

    QString const& string() const { return s_; }
    std::string asString() const { return s_.toStdString(); }

    bool operator==(NSStringWrapper const& o) const { return s_ == o.s_; }
    bool operator<(NSStringWrapper const& o) const { return QString::compare(s_, o.s_, Qt::CaseSensitive) < 0; }
    NSStringWrapper& operator+=(NSStringWrapper const& o)
    {
        s_ += o.s_;
        return *this;
    }

private:
    QString s_ = QString("");
};

inline NSStringWrapper operator+(NSStringWrapper a, NSStringWrapper const& b) { return a += b; }

// UTF-8 conversions; a null QString gives "".
inline std::string QStringToString(QString const& s) { return s.toStdString(); }
inline QString stringToQString(std::string const& s) { return QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size())); }
std::ostream& operator<<(std::ostream& os, QString const& s);

// The selected rows of a table, ascending.
using IndexSet = std::set<int>;
