#pragma once

#include "CloudVoice.h"
#include "CloudVoiceProvider.h"
#include "net/HttpReply.h"

#include <QCoroTask>
#include <QNetworkRequest>
#include <QObject>

class HttpClient;

// Talks to the cloud voices described by CloudVoiceProvider: one POST per text answered with one MP3,
// and the voice list of an account. Failures are thrown: URLError for transport problems and
// undecodable answers, ProviderError for refusals. Callers pass the cleaned text and credentials
// their provider accepted.
class CloudSpeechClient : public QObject
{
    Q_OBJECT

public:
    static constexpr int requestTimeoutMs = 30'000;
    // The MP3 of a long answer is a few megabytes: a minute covers a slow line, not a stalled one.
    static constexpr int synthesisDeadlineMs = 60'000;
    static constexpr int voiceListDeadlineMs = 45'000;

    explicit CloudSpeechClient(QObject *parent = nullptr);

    QCoro::Task<QByteArray> synthesize(
        const CloudVoiceProvider &provider, QString text, CloudVoiceCredentials credentials);
    QCoro::Task<QList<CloudVoice>> voices(const CloudVoiceProvider &provider, CloudVoiceCredentials credentials);
    // Ends every request under way (their callers see a transport error) and refuses new ones.
    void abortAll();

    // Throws ProviderError for any answer outside 200…299.
    static void validate(const HttpReply &reply, const QString &provider);

private:
    HttpClient *m_http;
};
