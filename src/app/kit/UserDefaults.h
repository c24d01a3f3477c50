// The user-defaults store: what the user changed (QSettings) over factory
// defaults registered from a property list, with typed accessors that take
// one process-wide recursive lock for every access.
#pragma once

#include <QSettings>
#include <QString>
#include <QVariant>

#include <memory>
#include <mutex>
#include <string>

namespace kit {

class Defaults {
public:
    // The store of this process. Tests may point it at another settings file.
    static Defaults& standard();
    static void useSettingsFile(QString const& path); // before first use

    // Registers factory values from plist data (XML or binary). Returns
    // false for data that is not a dictionary plist.
    bool registerDefaultsFromPlist(QByteArray const& data);
    void registerDefault(QString const& key, QVariant const& value);

    // The user's value, else the registered one, else an invalid QVariant.
    QVariant value(QString const& key) const;
    void setValue(QString const& key, QVariant const& value);
    void removeValue(QString const& key);
    // Writes changed values out.
    void synchronize();

    static std::recursive_mutex& lock();

private:
    Defaults();
    std::unique_ptr<QSettings> settings_;
    QVariantMap registered_;
};

// Holds the process-wide defaults lock for its lifetime.
class UserDefaultsLock {
public:
    UserDefaultsLock() : guard_(Defaults::lock()) {}

private:
    std::lock_guard<std::recursive_mutex> guard_;
};

// Typed access to one key; every read goes to the store. A key neither set
// nor registered reads as false, 0 or 0.0.
template <class T>
class UserDefaults {
public:
    explicit UserDefaults(std::string const& key) : key_(QString::fromStdString(key)) {}
    operator T() const
    {
        UserDefaultsLock held;
        QVariant v = Defaults::standard().value(key_);
        return v.isValid() ? v.value<T>() : T{};
    }
    UserDefaults& operator=(T const& value)
    {
        UserDefaultsLock held;
        Defaults::standard().setValue(key_, QVariant::fromValue(value));
        return *this;
    }
    QString const& key() const { return key_; }

private:
    QString key_;
};

} // namespace kit
