#pragma once

#include <QByteArray>
#include <QMutex>
#include <QString>
#include <QThreadPool>

// Puts the memory file on disk off the caller's thread: an atomic replace ends with a sync to disk,
// which can take far longer than the UI may wait. Only the newest request matters, so one still
// waiting is replaced by the next (a removal included); requests are carried out in order.
class ConversationMemoryWriter
{
public:
    explicit ConversationMemoryWriter(QString filePath);
    // Waits for the last request, so nothing asked for is lost at exit.
    ~ConversationMemoryWriter();

    ConversationMemoryWriter(const ConversationMemoryWriter &) = delete;
    ConversationMemoryWriter &operator=(const ConversationMemoryWriter &) = delete;

    void write(QByteArray contents);
    void remove();
    // Returns once every request made so far is on disk (or has failed).
    void waitForDone();

private:
    enum class Operation { none, write, remove };

    void schedule(Operation operation, QByteArray contents);
    void drain();
    void carryOut(Operation operation, const QByteArray &contents) const;

    const QString m_filePath;
    QThreadPool m_pool;
    QMutex m_mutex;
    Operation m_pending = Operation::none;
    QByteArray m_pendingContents;
    bool m_draining = false;
};
