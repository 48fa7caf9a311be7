#pragma once

#include "ChatMessage.h"
#include "ConversationMemoryWriter.h"

#include <QCoroTask>
#include <QObject>
#include <QtQml/qqmlregistration.h>

#include <memory>

// What Kelo remembers between launches: the model-written summary, the last 80 messages and how many
// user messages the summary covers, in "conversation-memory.json" under the data directory.
class ZenAPIService;

class ConversationMemoryStore : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("ConversationMemoryStore belongs to the ChatStore")
    Q_PROPERTY(QString summary READ summary NOTIFY summaryChanged)
    Q_PROPERTY(QString saveError READ saveError NOTIFY saveErrorChanged)

public:
    // The directory is GenericDataLocation + "/Kelo" unless given.
    explicit ConversationMemoryStore(QObject *parent = nullptr);
    ConversationMemoryStore(const QString &directory, QObject *parent);
    // Waits for the last write.
    ~ConversationMemoryStore() override;

    QString summary() const { return m_summary; }
    QList<ChatMessage> messages() const { return m_messages; }
    qint64 summarizedUserCount() const { return m_summarizedUserCount; }
    QString filePath() const { return m_filePath; }
    // Where a memory file found at start was copied, before anything could overwrite it, because
    // it (or some of its messages) could not be read; empty when there was none.
    QString recoveredCopyPath() const { return m_recoveredCopyPath; }

    void persist(const QList<ChatMessage> &messages);
    void updateSummary(const QString &summary, const QList<ChatMessage> &basedOn);
    bool shouldRefreshSummary(const QList<ChatMessage> &messages) const;
    QString transcriptForSummary(const QList<ChatMessage> &messages) const;
    // Asks the model for a new summary when one is due; a failure is tried again after the next turn.
    QCoro::Task<> compactIfDue(ZenAPIService *zen, QString apiKey, QString modelID, QList<ChatMessage> messages);
    void clearAll();
    // The file is written on a background thread; this returns once every change so far is on disk
    // (or has failed, which saveError then tells).
    void waitForWrites();
    // Why the memory could not be saved, in Romanian; empty while saving works. Written files are
    // replaced whole, so the file on disk then still holds the last state that could be saved.
    QString saveError() const { return m_saveError; }

Q_SIGNALS:
    void summaryChanged();
    void saveErrorChanged();

private:
    void load();
    void keepUnreadableCopy();
    void write();
    void setSaveError(const QString &text);
    void takeWriterOutcome();

    QString m_summary;
    QList<ChatMessage> m_messages;
    qint64 m_summarizedUserCount = 0;
    QString m_filePath;
    std::unique_ptr<ConversationMemoryWriter> m_writer;
    QString m_recoveredCopyPath;
    // Set when an unreadable file could not be copied aside: it is then never overwritten.
    bool m_writesSuspended = false;
    QString m_saveError;
};
