#pragma once

#include "CloudVoiceProvider.h"

#include <QCoroTask>
#include <QMap>
#include <QObject>
#include <QQueue>

#include <optional>

class CloudAudioOutput;
class CloudSpeechClient;

// The pieces of one answer spoken by a cloud voice: each piece is requested while the ones before it
// play (at most maxRequestsInFlight at a time) and the answers are played strictly in order through
// one CloudAudioOutput. A piece whose request fails is skipped and the failure reported once; the
// pieces after it still play.
class CloudSpeechQueue : public QObject
{
    Q_OBJECT

public:
    static constexpr int maxRequestsInFlight = 2;

    CloudSpeechQueue(const CloudVoiceProvider &provider, CloudVoiceCredentials credentials, QObject *parent = nullptr);
    ~CloudSpeechQueue() override;

    // A cleaned, non-empty piece of text.
    void enqueue(const QString &text);
    // No piece follows; finished() comes after the last one.
    void finish();
    // Silences the output and drops the pieces and requests; no signal follows.
    void stop();

    int requestsInFlight() const { return m_requestsInFlight; }
    CloudAudioOutput *output() const { return m_output; }

Q_SIGNALS:
    // The first piece started playing.
    void playing();
    // The output started pulling this piece.
    void pieceStarted(const QString &text);
    // The first failure of this answer, in Romanian.
    void failed(const QString &description);
    // Every piece was played or skipped; anyPlayed is false when none could be heard.
    void finished(bool anyPlayed);

private:
    struct Result
    {
        QString text;
        std::optional<QByteArray> audio;
        QString error;
    };

    void requestWhatFits();
    QCoro::Task<> request(int sequence, QString text);
    void playWhatArrivedInOrder();
    void finishIfDone();
    void report(const QString &description);

    const CloudVoiceProvider &m_provider;
    CloudVoiceCredentials m_credentials;
    CloudSpeechClient *m_client;
    CloudAudioOutput *m_output;
    QQueue<QString> m_waiting;
    QQueue<QString> m_playing;
    QMap<int, Result> m_arrived;
    int m_nextSequence = 0;
    int m_nextToPlay = 0;
    int m_requestsInFlight = 0;
    bool m_finishing = false;
    bool m_stopped = false;
    bool m_anyPlayed = false;
    bool m_reported = false;
    bool m_ended = false;
};
