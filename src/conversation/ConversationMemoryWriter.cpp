#include "ConversationMemoryWriter.h"

#include <QFile>
#include <QSaveFile>

ConversationMemoryWriter::ConversationMemoryWriter(QString filePath)
    : m_filePath(std::move(filePath))
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
        carryOut(operation, contents);
    }
}

// Failures are dropped: the state in memory is unchanged and the next request writes it again.
void ConversationMemoryWriter::carryOut(Operation operation, const QByteArray &contents) const
{
    if (operation == Operation::remove) {
        QFile::remove(m_filePath);
        return;
    }
    QSaveFile file(m_filePath);
    if (!file.open(QIODevice::WriteOnly))
        return;
    file.write(contents);
    if (file.commit())
        QFile::setPermissions(m_filePath, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
}
