#include "CloudSpeechClient.h"

#include "ProviderError.h"
#include "SpeechText.h"
#include "net/Endpoints.h"
#include "net/HeaderValues.h"
#include "net/HttpClient.h"
#include "net/JsonSupport.h"
#include "net/URLError.h"

#include <QJsonObject>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QUrl>

namespace {

// An MP3 of a long answer is a few megabytes; anything far beyond is not a voice.
constexpr qint64 maxAudioBytes = 48 * 1024 * 1024;

QNetworkRequest requestTo(const QString &url)
{
    return QNetworkRequest { QUrl(url) };
}

QString encoded(const QString &value)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(value));
}

QByteArray googleBody(const QString &text, const QString &voiceName)
{
    const QString name = voiceName.isEmpty() ? QStringLiteral("ro-RO-Wavenet-B") : voiceName;
    QJsonObject body;
    body.insert(QStringLiteral("input"), QJsonObject { { QStringLiteral("text"), text } });
    body.insert(QStringLiteral("voice"),
        QJsonObject { { QStringLiteral("languageCode"), QStringLiteral("ro-RO") }, { QStringLiteral("name"), name } });
    // The rate setting belongs to the local engine; cloud voices always speak at their own pace.
    body.insert(QStringLiteral("audioConfig"),
        QJsonObject {
            { QStringLiteral("audioEncoding"), QStringLiteral("MP3") }, { QStringLiteral("speakingRate"), 1.0 } });
    return JsonSupport::compact(body);
}

QByteArray elevenLabsBody(const QString &text)
{
    const QJsonObject voiceSettings { { QStringLiteral("stability"), 0.46 },
        { QStringLiteral("similarity_boost"), 0.82 }, { QStringLiteral("style"), 0.18 },
        { QStringLiteral("use_speaker_boost"), true } };
    const QJsonObject body { { QStringLiteral("text"), text },
        { QStringLiteral("model_id"), QStringLiteral("eleven_multilingual_v2") },
        { QStringLiteral("voice_settings"), voiceSettings } };
    return JsonSupport::compact(body);
}

} // namespace

CloudSpeechClient::CloudSpeechClient(QObject *parent)
    : QObject(parent)
    , m_http(new HttpClient(this))
{ }

QCoro::Task<QByteArray> CloudSpeechClient::synthesizeGoogle(QString text, QString apiKey, QString voiceName)
{
    QNetworkRequest request
        = requestTo(Endpoints::googleTTSBaseURL() + QStringLiteral("/v1/text:synthesize?key=") + encoded(apiKey));
    request.setRawHeader("Content-Type", "application/json");
    const HttpReply reply = co_await post(request, googleBody(text, voiceName));
    validate(reply, googleProvider());
    co_return googleAudio(reply.body);
}

QCoro::Task<QByteArray> CloudSpeechClient::synthesizeAzure(
    QString text, QString apiKey, QString region, QString voiceName)
{
    QNetworkRequest request = requestTo(azureBaseURL(region) + QStringLiteral("/cognitiveservices/v1"));
    HeaderValues::set(request, "Ocp-Apim-Subscription-Key", apiKey.toUtf8());
    request.setRawHeader("Content-Type", "application/ssml+xml");
    request.setRawHeader("X-Microsoft-OutputFormat", "audio-24khz-48kbitrate-mono-mp3");
    request.setRawHeader("User-Agent", "KeloCompanion");
    const HttpReply reply = co_await post(request, azureSSML(text, voiceName));
    validate(reply, azureProvider());
    co_return reply.body;
}

QCoro::Task<QByteArray> CloudSpeechClient::synthesizeElevenLabs(QString text, QString apiKey, QString voiceID)
{
    QNetworkRequest request = requestTo(Endpoints::elevenLabsBaseURL() + QStringLiteral("/v1/text-to-speech/")
        + encoded(voiceID) + QStringLiteral("?output_format=mp3_44100_128"));
    HeaderValues::set(request, "xi-api-key", apiKey.toUtf8());
    request.setRawHeader("Content-Type", "application/json");
    request.setRawHeader("Accept", "audio/mpeg");
    const HttpReply reply = co_await post(request, elevenLabsBody(text));
    validate(reply, elevenLabsProvider());
    co_return reply.body;
}

void CloudSpeechClient::validate(const HttpReply &reply, const QString &provider)
{
    if (!reply.isSuccess())
        throw ProviderError::fromResponse(provider, reply.status, reply.body);
}

QByteArray CloudSpeechClient::azureSSML(const QString &text, const QString &voiceName)
{
    const QString name = voiceName.isEmpty() ? QStringLiteral("ro-RO-AlinaNeural") : voiceName;
    const QString ssml = QStringLiteral("<speak version=\"1.0\" xml:lang=\"ro-RO\">\n  <voice name=\"")
        + SpeechText::escapeForSSML(name) + QStringLiteral("\">") + SpeechText::escapeForSSML(text)
        + QStringLiteral("</voice>\n</speak>");
    return ssml.toUtf8();
}

QString CloudSpeechClient::azureBaseURL(const QString &region)
{
    static const QRegularExpression hostLabel(QStringLiteral("^[A-Za-z0-9-]+$"));
    if (!hostLabel.match(region).hasMatch())
        throw URLError(URLError::badURL, region);
    return Endpoints::azureTTSBaseURL(region);
}

QByteArray CloudSpeechClient::googleAudio(const QByteArray &body)
{
    const std::optional<QJsonObject> object = JsonSupport::parseObject(body);
    if (!object)
        throw URLError(URLError::cannotDecodeContentData);
    const std::optional<QString> content = JsonSupport::string(*object, QLatin1StringView("audioContent"));
    if (!content)
        throw URLError(URLError::cannotDecodeContentData);
    // Characters outside Latin-1 become '?', which is itself invalid base64.
    const auto decoded = QByteArray::fromBase64Encoding(content->toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        throw URLError(URLError::cannotDecodeContentData);
    return *decoded;
}

QCoro::Task<HttpReply> CloudSpeechClient::post(QNetworkRequest request, QByteArray body)
{
    HttpClient::Options options;
    options.timeoutMs = requestTimeoutMs;
    options.deadlineMs = synthesisDeadlineMs;
    options.maxBodyBytes = maxAudioBytes;
    co_return co_await m_http->post(std::move(request), std::move(body), options);
}
