#pragma once

#include "net/HttpReply.h"

#include <QCoroTask>
#include <QNetworkRequest>
#include <QObject>

class HttpClient;

// The three cloud voices: one POST per text, answered with one MP3 file. Failures are thrown:
// URLError for transport problems and undecodable answers, ProviderError for refusals.
// Callers pass the cleaned text and trimmed credentials.
class CloudSpeechClient : public QObject
{
    Q_OBJECT

public:
    static constexpr int requestTimeoutMs = 30'000;
    // The MP3 of a long answer is a few megabytes: a minute covers a slow line, not a stalled one.
    static constexpr int synthesisDeadlineMs = 60'000;
    // Voice lists are small.
    static constexpr int voiceListDeadlineMs = 45'000;

    static QString googleProvider() { return QStringLiteral("Google Cloud"); }
    static QString azureProvider() { return QStringLiteral("Azure Speech"); }
    static QString elevenLabsProvider() { return QStringLiteral("ElevenLabs"); }

    explicit CloudSpeechClient(QObject *parent = nullptr);

    QCoro::Task<QByteArray> synthesizeGoogle(QString text, QString apiKey, QString voiceName);
    QCoro::Task<QByteArray> synthesizeAzure(QString text, QString apiKey, QString region, QString voiceName);
    QCoro::Task<QByteArray> synthesizeElevenLabs(QString text, QString apiKey, QString voiceID);

    // Throws ProviderError for any answer outside 200…299.
    static void validate(const HttpReply &reply, const QString &provider);
    // The SSML document Azure reads.
    static QByteArray azureSSML(const QString &text, const QString &voiceName);
    // The regional base, refusing regions that are not a plain host label (they would redirect the
    // key to another host).
    static QString azureBaseURL(const QString &region);
    // The MP3 carried base64-encoded in Google's synthesis reply; throws URLError when there is none.
    static QByteArray googleAudio(const QByteArray &body);

private:
    QCoro::Task<HttpReply> post(QNetworkRequest request, QByteArray body);

    HttpClient *m_http;
};
