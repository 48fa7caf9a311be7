#include "CloudSpeechClient.h"

#include "ProviderError.h"
#include "net/HttpClient.h"

namespace {
// An MP3 of a long answer is a few megabytes; anything far beyond is not a voice.
constexpr qint64 maxAudioBytes = 48 * 1024 * 1024;
// Voice lists are a few hundred kilobytes even for the largest catalogue.
constexpr qint64 maxListBytes = 8 * 1024 * 1024;
} // namespace

CloudSpeechClient::CloudSpeechClient(QObject *parent)
    : QObject(parent)
    , m_http(new HttpClient(this))
{ }

QCoro::Task<QByteArray> CloudSpeechClient::synthesize(
    const CloudVoiceProvider &provider, QString text, CloudVoiceCredentials credentials)
{
    HttpClient::Options options;
    options.timeoutMs = requestTimeoutMs;
    options.deadlineMs = synthesisDeadlineMs;
    options.maxBodyBytes = maxAudioBytes;
    QNetworkRequest request = provider.synthesisRequest(credentials);
    const HttpReply reply = co_await m_http->post(request, provider.synthesisBody(text, credentials), options);
    validate(reply, provider.name);
    co_return provider.audioFromReply(reply.body);
}

QCoro::Task<QList<CloudVoice>> CloudSpeechClient::voices(
    const CloudVoiceProvider &provider, CloudVoiceCredentials credentials)
{
    HttpClient::Options options;
    options.timeoutMs = requestTimeoutMs;
    options.deadlineMs = voiceListDeadlineMs;
    options.maxBodyBytes = maxListBytes;
    QNetworkRequest request = provider.voiceListRequest(credentials);
    const HttpReply reply = co_await m_http->get(request, options);
    validate(reply, provider.name);
    co_return provider.parseVoiceList(reply.body);
}

void CloudSpeechClient::abortAll()
{
    HttpClient::closeAllUnder(this);
}

void CloudSpeechClient::validate(const HttpReply &reply, const QString &provider)
{
    if (!reply.isSuccess())
        throw ProviderError::fromResponse(provider, reply.status, reply.body);
}
