#include "CloudSpeechQueue.h"

#include "CloudAudioOutput.h"
#include "CloudSpeechClient.h"
#include "ProviderError.h"
#include "net/KeloError.h"

#include <QPointer>

CloudSpeechQueue::CloudSpeechQueue(
    const CloudVoiceProvider &provider, CloudVoiceCredentials credentials, QObject *parent)
    : QObject(parent)
    , m_provider(provider)
    , m_credentials(std::move(credentials))
    , m_client(new CloudSpeechClient(this))
    , m_output(new CloudAudioOutput(this))
{
    connect(m_output, &CloudAudioOutput::finished, this, [this](bool successfully) {
        if (!m_stopped)
            Q_EMIT finished(successfully && m_anyPlayed);
    });
    connect(m_output, &CloudAudioOutput::pieceStarted, this, [this] {
        if (!m_playing.isEmpty())
            Q_EMIT pieceStarted(m_playing.dequeue());
    });
    connect(m_output, &CloudAudioOutput::pieceDamaged, this,
        [this] { report(ProviderError::audioNotPlayable().description()); });
}

CloudSpeechQueue::~CloudSpeechQueue()
{
    stop();
}

void CloudSpeechQueue::enqueue(const QString &text)
{
    if (m_stopped || m_finishing)
        return;
    m_waiting.enqueue(text);
    requestWhatFits();
}

void CloudSpeechQueue::finish()
{
    m_finishing = true;
    finishIfDone();
}

void CloudSpeechQueue::stop()
{
    if (m_stopped)
        return;
    m_stopped = true;
    m_waiting.clear();
    m_arrived.clear();
    m_output->stop();
    // The requests under way end now, with a transport error their coroutines ignore.
    m_client->abortAll();
}

void CloudSpeechQueue::requestWhatFits()
{
    while (!m_stopped && m_requestsInFlight < maxRequestsInFlight && !m_waiting.isEmpty())
        request(m_nextSequence++, m_waiting.dequeue());
}

QCoro::Task<> CloudSpeechQueue::request(int sequence, QString text)
{
    QPointer<CloudSpeechQueue> self(this);
    ++m_requestsInFlight;
    Result result;
    result.text = text;
    try {
        result.audio = co_await m_client->synthesize(m_provider, text, m_credentials);
    } catch (...) {
        result.error = describeException(std::current_exception());
    }
    if (!self)
        co_return;
    --m_requestsInFlight;
    if (m_stopped)
        co_return;
    m_arrived.insert(sequence, result);
    playWhatArrivedInOrder();
    requestWhatFits();
    finishIfDone();
}

void CloudSpeechQueue::playWhatArrivedInOrder()
{
    while (m_arrived.contains(m_nextToPlay)) {
        const Result result = m_arrived.take(m_nextToPlay++);
        if (!result.audio) {
            report(result.error);
            continue;
        }
        // Queued first: the device may pull the piece before append() returns.
        m_playing.enqueue(result.text);
        try {
            m_output->append(*result.audio);
        } catch (...) {
            m_playing.removeLast();
            report(describeException(std::current_exception()));
            continue;
        }
        if (!std::exchange(m_anyPlayed, true))
            Q_EMIT playing();
    }
}

void CloudSpeechQueue::finishIfDone()
{
    if (m_stopped || !m_finishing || !m_waiting.isEmpty() || m_requestsInFlight > 0 || !m_arrived.isEmpty())
        return;
    if (std::exchange(m_ended, true))
        return;
    if (m_anyPlayed)
        m_output->endInput();
    else
        Q_EMIT finished(false);
}

void CloudSpeechQueue::report(const QString &description)
{
    if (!std::exchange(m_reported, true))
        Q_EMIT failed(description);
}
