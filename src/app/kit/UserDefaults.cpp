#include "UserDefaults.h"

#include <plist/plist.h>

#include <QCoreApplication>
#include <cstdlib>

namespace kit {

namespace {
QString settingsFile;

// A plist node as a QVariant (the kinds a defaults file holds).
QVariant toVariant(plist_t node)
{
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        std::uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return QVariant(b != 0);
    }
    case PLIST_UINT: {
        std::uint64_t v = 0;
        plist_get_uint_val(node, &v);
        // libplist returns negative integers as unsigned: keep the sign.
        return QVariant(static_cast<qlonglong>(static_cast<std::int64_t>(v)));
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return QVariant(d);
    }
    case PLIST_STRING: {
        char* s = nullptr;
        plist_get_string_val(node, &s);
        QVariant v(QString::fromUtf8(s ? s : ""));
        std::free(s);
        return v;
    }
    default: return {};
    }
}
} // namespace

Defaults& Defaults::standard()
{
    static Defaults* d = new Defaults; // lives until the process ends
    return *d;
}

void Defaults::useSettingsFile(QString const& path) { settingsFile = path; }

Defaults::Defaults()
{
    if (!settingsFile.isEmpty()) settings_ = std::make_unique<QSettings>(settingsFile, QSettings::IniFormat);
    else settings_ = std::make_unique<QSettings>(QSettings::IniFormat, QSettings::UserScope, "Dubmatch", "Dubmatch");
}

std::recursive_mutex& Defaults::lock()
{
    static std::recursive_mutex* l = new std::recursive_mutex;
    return *l;
}

bool Defaults::registerDefaultsFromPlist(QByteArray const& data)
{
    plist_t root = nullptr;
    plist_from_memory(data.constData(), static_cast<std::uint32_t>(data.size()), &root);
    if (!root) return false;
    std::unique_ptr<void, void (*)(plist_t)> owner(root, plist_free);
    if (plist_get_node_type(root) != PLIST_DICT) return false;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(root, &it);
    std::unique_ptr<void, void (*)(void*)> iterOwner(it, std::free);
    std::lock_guard<std::recursive_mutex> g(lock());
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(root, it, &key, &value);
        if (!key) break;
        QVariant v = toVariant(value);
        if (v.isValid()) registered_[QString::fromUtf8(key)] = v;
        std::free(key);
    }
    return true;
}

void Defaults::registerDefault(QString const& key, QVariant const& value)
{
    std::lock_guard<std::recursive_mutex> g(lock());
    registered_[key] = value;
}

QVariant Defaults::value(QString const& key) const
{
    std::lock_guard<std::recursive_mutex> g(lock());
    QVariant v = settings_->value(key);
    if (v.isValid()) return v;
    return registered_.value(key);
}

void Defaults::setValue(QString const& key, QVariant const& value)
{
    std::lock_guard<std::recursive_mutex> g(lock());
    settings_->setValue(key, value);
}

void Defaults::removeValue(QString const& key)
{
    std::lock_guard<std::recursive_mutex> g(lock());
    settings_->remove(key);
}

void Defaults::synchronize()
{
    std::lock_guard<std::recursive_mutex> g(lock());
    settings_->sync();
}

} // namespace kit
