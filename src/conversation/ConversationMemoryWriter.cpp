#include "ConversationMemoryWriter.h"

#include "settings/SafeFileWriter.h"

#include <QFile>

ConversationMemoryWriter::ConversationMemoryWriter(QString filePath, std::function<void()> carriedOut)
    : m_filePath(std::move(filePath))
    , m_carriedOut(std::move(carriedOut))
{
    m_pool.setMaxThreadCount(1);
}

ConversationMemoryWriter::~ConversationMemoryWriter()
{
    waitForDone();
}

void ConversationMemoryWriter::write(QByteArray contents)
{
    schedule(Operation::write, std::move(contents));
}

void ConversationMemoryWriter::remove()
{
    schedule(Operation::remove, {});
}

void ConversationMemoryWriter::waitForDone()
{
    m_pool.waitForDone();
}

QString ConversationMemoryWriter::lastFailure() const
{
    const QMutexLocker lock(&m_mutex);
    return m_lastFailure;
}

void ConversationMemoryWriter::schedule(Operation operation, QByteArray contents)
{
    const QMutexLocker lock(&m_mutex);
    m_pending = operation;
    m_pendingContents = std::move(contents);
    if (m_draining)
        return;
    m_draining = true;
    m_pool.start([this] { drain(); });
}

void ConversationMemoryWriter::drain()
{
    for (;;) {
        Operation operation;
        QByteArray contents;
        {
            const QMutexLocker lock(&m_mutex);
            operation = std::exchange(m_pending, Operation::none);
            contents = std::exchange(m_pendingContents, {});
            if (operation == Operation::none) {
                m_draining = false;
                return;
            }
        }
        const QString failure = carryOut(operation, contents);
        {
            const QMutexLocker lock(&m_mutex);
            m_lastFailure = failure;
        }
        if (m_carriedOut)
            m_carriedOut();
    }
}

// The state in memory is unchanged by a failure, and the next request writes all of it again.
QString ConversationMemoryWriter::carryOut(Operation operation, const QByteArray &contents) const
{
    if (operation == Operation::remove) {
        // A symbolic link goes itself; what it points at is not ours.
        if (!QFile::remove(m_filePath) && QFile::exists(m_filePath))
            return QStringLiteral("Nu am putut șterge %1.").arg(m_filePath);
        return {};
    }
    try {
        SafeFileWriter::save(m_filePath, contents);
    } catch (const FileSaveError &error) {
        return error.description();
    }
    return {};
}
