// The application's bundled resources: Info.plist values and strings tables
// (property-list dictionaries; a key missing from a table stands for itself).
#pragma once

#include <QString>
#include <optional>

namespace resources {
// A string of the property list at `resource` (e.g. ":/Info.plist"), or
// nullopt when the file or the key is missing or not a string.
std::optional<QString> plistString(QString const& resource, QString const& key);
QString infoString(QString const& key); // "" when missing
// The table's text for `key`, or the key itself.
QString localized(QString const& key, QString const& table = "Localizable");
} // namespace resources
