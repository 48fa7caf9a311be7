#pragma once

#include "FileSaveError.h"

#include <QJsonObject>
#include <QPointer>
#include <QString>

#include <optional>

namespace QKeychain {
class Job;
}

// Short secrets (API keys), one item per key, in the desktop keychain (Secret Service through
// QtKeychain). When no Secret Service answers, a 0600 JSON file in the config directory keeps the
// same semantics and usesFileFallback() says so, so the user can be told plainly.
// A failed read is an absent item and a failed keychain write is dropped; a file that cannot be
// saved throws FileSaveError and keeps what it held.
//
// KELO_SECRET_STORE=file in the environment (read at construction) skips the keychain and uses the
// file, for machines without a desktop session and for tests.
// Use it from the GUI thread: keychain calls wait in a local event loop, bounded by a time-out.
class SecureStore
{
public:
    // Reverse-DNS id of the app; the keychain service of every item.
    static QString appID();

    explicit SecureStore(QString service = appID());

    std::optional<QString> read(const QString &key) const;
    // An empty value deletes the item. Throws FileSaveError when the fallback file cannot be saved.
    void write(const QString &value, const QString &key);

    bool usesFileFallback() const;
    QString fallbackFilePath() const;

private:
    enum class JobOutcome { finished, timedOut, keychainBusy };

    std::optional<bool> probeKeychain() const;
    JobOutcome run(QKeychain::Job *job) const;
    std::optional<QString> readKeychain(const QString &key) const;
    void writeKeychain(const QString &value, const QString &key) const;
    void moveFileItemsToKeychain() const;

    QJsonObject loadFile() const;
    void saveFile(const QJsonObject &services) const;
    std::optional<QString> readFile(const QString &key) const;
    void writeFile(const QString &value, const QString &key) const;

    QString m_service;
    // Decided on first use: whether the Secret Service answered.
    mutable std::optional<bool> m_fileFallback;
    // A keychain job that outlived its time-out. QtKeychain runs jobs one after another, so while
    // it hangs every later job would wait behind it; calls fail at once until it ends.
    mutable QPointer<QKeychain::Job> m_stuckJob;
};
