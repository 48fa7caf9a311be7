#include "ConversationMemoryStore.h"

#include "ZenAPIService.h"
#include "settings/FileSaveError.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QStandardPaths>

#include <algorithm>
#include <cmath>
#include <numeric>

namespace {

constexpr qsizetype maxKeptMessages = 80;
// A memory file is a few dozen kilobytes; one far larger than this is not ours to parse.
constexpr qint64 maxFileBytes = 64 * 1024 * 1024;
// What is written stays well below what is read back, so every file written can be loaded again:
// the oldest messages give way first, and no single text is kept longer than this.
constexpr qint64 maxWrittenBytes = 16 * 1024 * 1024;
constexpr qsizetype maxStoredTextLength = 200'000;
// Counts round-trip through JSON doubles; beyond this they would not come back exactly.
constexpr double maxExactCount = 9007199254740992.0;

const QString fileName = QStringLiteral("conversation-memory.json");

QString defaultDirectory()
{
    QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (base.isEmpty())
        base = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    return base + QStringLiteral("/Kelo");
}

QList<ChatMessage> lastMessages(const QList<ChatMessage> &messages)
{
    return messages.size() <= maxKeptMessages ? messages : messages.mid(messages.size() - maxKeptMessages);
}

qint64 userMessageCount(const QList<ChatMessage> &messages)
{
    return std::count_if(messages.cbegin(), messages.cend(),
        [](const ChatMessage &message) { return message.role == ChatMessage::Role::user; });
}

std::optional<qint64> count(const QJsonValue &value)
{
    const double number = value.toDouble(-1);
    if (!value.isDouble() || number < 0 || number > maxExactCount || std::trunc(number) != number)
        return std::nullopt;
    return static_cast<qint64>(number);
}

struct Snapshot
{
    QString summary;
    QList<ChatMessage> messages;
    qint64 summarizedUserCount = 0;
    // Some messages in the file could not be read and were left out.
    bool droppedMessages = false;
};

std::optional<Snapshot> decodeSnapshot(const QByteArray &data)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    const QJsonObject object = document.object();
    const QJsonValue summary = object.value(QLatin1String("summary"));
    const QJsonValue messages = object.value(QLatin1String("messages"));
    const auto summarized = count(object.value(QLatin1String("summarizedUserCount")));
    if (!summary.isString() || !messages.isArray() || !summarized)
        return std::nullopt;

    Snapshot snapshot { summary.toString(), {}, *summarized };
    for (const QJsonValue &value : messages.toArray()) {
        if (auto message = ChatMessage::fromJson(value))
            snapshot.messages.append(std::move(*message));
        else
            snapshot.droppedMessages = true;
    }
    return snapshot;
}

QString cutToStoredLength(const QString &text)
{
    if (text.size() <= maxStoredTextLength)
        return text;
    qsizetype end = maxStoredTextLength;
    if (text.at(end - 1).isHighSurrogate())
        --end;
    return text.left(end) + QStringLiteral("…");
}

qint64 encodedSize(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).size();
}

// The newest messages whose encoding, with the summary, fits in maxWrittenBytes.
QJsonArray boundedMessages(const QList<ChatMessage> &messages, qint64 summaryBytes)
{
    QList<QJsonObject> encoded;
    QList<qint64> sizes;
    for (const ChatMessage &message : messages) {
        ChatMessage stored = message;
        stored.text = cutToStoredLength(message.text);
        encoded.append(stored.toJson());
        sizes.append(encodedSize(encoded.last()) + 1);
    }
    qint64 total = summaryBytes + std::accumulate(sizes.cbegin(), sizes.cend(), qint64(0));
    qsizetype first = 0;
    for (; first < encoded.size() && total > maxWrittenBytes; ++first)
        total -= sizes.at(first);
    QJsonArray array;
    for (qsizetype i = first; i < encoded.size(); ++i)
        array.append(encoded.at(i));
    return array;
}

QByteArray encodeSnapshot(const QString &summary, const QList<ChatMessage> &messages, qint64 summarizedUserCount)
{
    const QString storedSummary = cutToStoredLength(summary);
    const QJsonArray encodedMessages = boundedMessages(messages, storedSummary.size() * 6 + 1024);
    const QJsonObject object {
        { QStringLiteral("summary"), storedSummary },
        { QStringLiteral("messages"), encodedMessages },
        { QStringLiteral("summarizedUserCount"), static_cast<double>(summarizedUserCount) },
        { QStringLiteral("updatedAt"), ReferenceDate::secondsSinceReference(QDateTime::currentDateTimeUtc()) },
    };
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// A free name beside the file, stamped with the time it was found unreadable.
QString recoveryPathFor(const QString &filePath)
{
    const QFileInfo info(filePath);
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    const QString stem = info.dir().filePath(info.completeBaseName() + QStringLiteral(".unreadable-") + stamp);
    QString candidate = stem + QStringLiteral(".json");
    for (int attempt = 2; QFile::exists(candidate); ++attempt)
        candidate = stem + QStringLiteral("-%1.json").arg(attempt);
    return candidate;
}

} // namespace

ConversationMemoryStore::ConversationMemoryStore(QObject *parent)
    : ConversationMemoryStore(defaultDirectory(), parent)
{ }

ConversationMemoryStore::~ConversationMemoryStore() = default;

ConversationMemoryStore::ConversationMemoryStore(const QString &directory, QObject *parent)
    : QObject(parent)
    , m_filePath(QDir(directory).filePath(fileName))
    , m_writer(std::make_unique<ConversationMemoryWriter>(m_filePath, [this] {
        QMetaObject::invokeMethod(this, &ConversationMemoryStore::takeWriterOutcome, Qt::QueuedConnection);
    }))
{
    QDir().mkpath(directory);
    load();
}

// Individual messages that cannot be read are left out, and the file is then kept aside exactly as
// it was, like a wholly unreadable one: the next write would otherwise drop them for good.
void ConversationMemoryStore::load()
{
    QFile file(m_filePath);
    if (!file.exists())
        return;
    std::optional<Snapshot> snapshot;
    if (file.size() <= maxFileBytes && file.open(QIODevice::ReadOnly))
        snapshot = decodeSnapshot(file.readAll());
    file.close();

    if (!snapshot || snapshot->droppedMessages)
        keepUnreadableCopy();
    if (!snapshot)
        return;
    m_summary = snapshot->summary;
    m_messages = snapshot->messages;
    m_summarizedUserCount = snapshot->summarizedUserCount;
}

void ConversationMemoryStore::keepUnreadableCopy()
{
    const QString target = recoveryPathFor(m_filePath);
    if (QFile::copy(m_filePath, target))
        m_recoveredCopyPath = target;
    else
        m_writesSuspended = true; // no safe copy: leave the original untouched rather than lose it
}

void ConversationMemoryStore::persist(const QList<ChatMessage> &messages)
{
    m_messages = lastMessages(messages);
    write();
}

void ConversationMemoryStore::updateSummary(const QString &summary, const QList<ChatMessage> &basedOn)
{
    const QString trimmed = summary.trimmed();
    const bool changed = trimmed != m_summary;
    m_summary = trimmed;
    m_summarizedUserCount = userMessageCount(basedOn);
    m_messages = lastMessages(basedOn);
    write();
    if (changed)
        Q_EMIT summaryChanged();
}

bool ConversationMemoryStore::shouldRefreshSummary(const QList<ChatMessage> &messages) const
{
    const qint64 users = userMessageCount(messages);
    return users >= 4 && users - m_summarizedUserCount > 3;
}

QString ConversationMemoryStore::transcriptForSummary(const QList<ChatMessage> &messages) const
{
    QStringList lines;
    lines.reserve(messages.size());
    for (const ChatMessage &message : messages) {
        QString label;
        switch (message.role) {
        case ChatMessage::Role::user:
            label = QStringLiteral("Utilizator");
            break;
        case ChatMessage::Role::assistant:
            label = QStringLiteral("Kelo");
            break;
        case ChatMessage::Role::system:
            label = QStringLiteral("Sistem");
            break;
        }
        lines.append(label + QStringLiteral(": ") + message.text);
    }
    return lines.join(QLatin1Char('\n'));
}

void ConversationMemoryStore::clearAll()
{
    const bool changed = !m_summary.isEmpty();
    m_summary.clear();
    m_messages.clear();
    m_summarizedUserCount = 0;
    // Clearing is the user's explicit wish to forget, so it applies even to a file we could not read.
    m_writer->remove();
    m_writesSuspended = false;
    setSaveError({});
    if (changed)
        Q_EMIT summaryChanged();
}

void ConversationMemoryStore::write()
{
    if (m_writesSuspended)
        setSaveError(FileSaveError(FileSaveError::Kind::unreadableOriginal, m_filePath).description());
    else
        m_writer->write(encodeSnapshot(m_summary, m_messages, m_summarizedUserCount));
}

void ConversationMemoryStore::waitForWrites()
{
    m_writer->waitForDone();
    takeWriterOutcome();
}

void ConversationMemoryStore::takeWriterOutcome()
{
    if (!m_writesSuspended)
        setSaveError(m_writer->lastFailure());
}

void ConversationMemoryStore::setSaveError(const QString &text)
{
    if (text == m_saveError)
        return;
    m_saveError = text;
    Q_EMIT saveErrorChanged();
}

QCoro::Task<> ConversationMemoryStore::compactIfDue(
    ZenAPIService *zen, QString apiKey, QString modelID, QList<ChatMessage> messages)
{
    if (!shouldRefreshSummary(messages))
        co_return;
    try {
        const QString fresh = co_await zen->summarizeMemory(apiKey, modelID, summary(), transcriptForSummary(messages));
        if (!fresh.trimmed().isEmpty())
            updateSummary(fresh, messages);
    } catch (...) {
        // Tried again after the next turn.
    }
}
