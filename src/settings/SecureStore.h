#pragma once

#include <QString>

#include <optional>

// Short secrets (API keys), one item per key, in the desktop keychain (Secret Service through
// QtKeychain). When no Secret Service answers, a 0600 JSON file in the config directory keeps the
// same semantics and usesFileFallback() says so, so the user can be told plainly.
// Failures are never reported: a failed read is an absent item, a failed write is dropped.
class SecureStore
{
public:
    // Reverse-DNS id of the app; the keychain service of every item.
    static QString appID();

    explicit SecureStore(QString service = appID());

    std::optional<QString> read(const QString &key) const;
    // An empty value deletes the item.
    void write(const QString &value, const QString &key);

    bool usesFileFallback() const;
    QString fallbackFilePath() const;

private:
    QString m_service;
    // Decided on first use: whether the Secret Service answered.
    mutable std::optional<bool> m_fileFallback;
};
