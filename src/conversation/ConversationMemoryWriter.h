#pragma once

#include <QByteArray>
#include <QMutex>
#include <QString>
#include <QThreadPool>

#include <functional>

// Puts the memory file on disk off the caller's thread: an atomic replace ends with a sync to disk,
// which can take far longer than the UI may wait. Only the newest request matters, so one still
// waiting is replaced by the next (a removal included); requests are carried out in order.
// A write that fails leaves the file as it was; lastFailure() says why.
class ConversationMemoryWriter
{
public:
    // `carriedOut` runs on the writer's thread after each request, failed or not.
    explicit ConversationMemoryWriter(QString filePath, std::function<void()> carriedOut = {});
    // Waits for the last request, so nothing asked for is lost at exit.
    ~ConversationMemoryWriter();

    ConversationMemoryWriter(const ConversationMemoryWriter &) = delete;
    ConversationMemoryWriter &operator=(const ConversationMemoryWriter &) = delete;

    void write(QByteArray contents);
    void remove();
    // Returns once every request made so far is on disk (or has failed).
    void waitForDone();
    // Why the last request carried out failed, in Romanian; empty when it succeeded.
    QString lastFailure() const;

private:
    enum class Operation { none, write, remove };

    void schedule(Operation operation, QByteArray contents);
    void drain();
    // The failure's text, or an empty one.
    QString carryOut(Operation operation, const QByteArray &contents) const;

    const QString m_filePath;
    const std::function<void()> m_carriedOut;
    QThreadPool m_pool;
    mutable QMutex m_mutex;
    QString m_lastFailure;
    Operation m_pending = Operation::none;
    QByteArray m_pendingContents;
    bool m_draining = false;
};
