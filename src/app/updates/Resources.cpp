#include "Resources.h"

#include <plist/plist.h>

#include <QFile>
#include <cstdlib>
#include <memory>

namespace resources {

std::optional<QString> plistString(QString const& resource, QString const& key)
{
    QFile file(resource);
    if (!file.open(QIODevice::ReadOnly)) return std::nullopt;
    QByteArray data = file.readAll();
    plist_t root = nullptr;
    plist_from_memory(data.constData(), static_cast<std::uint32_t>(data.size()), &root);
    if (!root) return std::nullopt;
    std::unique_ptr<void, void (*)(plist_t)> owner(root, plist_free);
    if (plist_get_node_type(root) != PLIST_DICT) return std::nullopt;
    plist_t node = plist_dict_get_item(root, key.toUtf8().constData());
    if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
    char* s = nullptr;
    plist_get_string_val(node, &s);
    QString value = QString::fromUtf8(s ? s : "");
    std::free(s);
    return value;
}

QString infoString(QString const& key) { return plistString(":/Info.plist", key).value_or(QString()); }

QString localized(QString const& key, QString const& table)
{
    auto v = plistString(":/" + table + ".strings", key);
    return v && !v->isEmpty() ? *v : key;
}

} // namespace resources
