#include "CloudVoiceCatalog.h"

#include "CloudSpeechClient.h"
#include "NeuralVoice.h"
#include "net/Endpoints.h"
#include "net/HeaderValues.h"
#include "net/HttpClient.h"
#include "net/URLError.h"

#include <QCollator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkRequest>
#include <QUrl>

#include <algorithm>

namespace {

// Voice lists are a few hundred kilobytes even for Azure's full catalogue.
constexpr qint64 maxListBytes = 8 * 1024 * 1024;

bool isRomanian(const QString &languageCode)
{
    return languageCode.compare(QLatin1StringView("ro-RO"), Qt::CaseInsensitive) == 0;
}

QJsonDocument parse(const QByteArray &body)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError)
        throw URLError(URLError::cannotDecodeContentData);
    return document;
}

QList<CloudVoice> sortedByName(QList<CloudVoice> voices)
{
    QCollator collator;
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(voices.begin(), voices.end(),
        [&](const CloudVoice &a, const CloudVoice &b) { return collator.compare(a.name, b.name) < 0; });
    return voices;
}

// "ro-RO-Wavenet-B" → "Wavenet", "ro-RO-Chirp3-HD-Aoede" → "Chirp3".
std::optional<QString> googleFamily(const QString &name)
{
    const QStringList parts = name.split(QLatin1Char('-'));
    if (parts.size() < 4)
        return std::nullopt;
    return parts.at(2);
}

std::optional<QString> nonEmpty(const QString &value)
{
    return value.isEmpty() ? std::nullopt : std::optional<QString>(value);
}

} // namespace

CloudVoiceCatalog::CloudVoiceCatalog(QObject *parent)
    : QObject(parent)
    , m_http(new HttpClient(this))
{ }

QCoro::Task<QList<CloudVoice>> CloudVoiceCatalog::googleVoices(QString apiKey)
{
    const QString url = Endpoints::googleTTSBaseURL() + QStringLiteral("/v1/voices?key=")
        + QString::fromLatin1(QUrl::toPercentEncoding(apiKey));
    const QByteArray body = co_await fetch(QNetworkRequest(QUrl(url)), CloudSpeechClient::googleProvider());
    co_return parseGoogleVoices(body);
}

QList<CloudVoice> CloudVoiceCatalog::parseGoogleVoices(const QByteArray &body)
{
    const QJsonDocument document = parse(body);
    if (!document.isObject())
        throw URLError(URLError::cannotDecodeContentData);

    QList<CloudVoice> voices;
    for (const QJsonValue &entry : document.object().value(QLatin1StringView("voices")).toArray()) {
        const QJsonObject object = entry.toObject();
        const QString name = object.value(QLatin1StringView("name")).toString();
        const QJsonArray languages = object.value(QLatin1StringView("languageCodes")).toArray();
        const bool romanian = std::any_of(
            languages.begin(), languages.end(), [](const QJsonValue &code) { return isRomanian(code.toString()); });
        if (name.isEmpty() || !romanian)
            continue;
        CloudVoice voice;
        voice.id = name;
        voice.name = name;
        voice.provider = VoiceEnginePreset::googleCloud;
        voice.gender = genderLabel(object.value(QLatin1StringView("ssmlGender")).toString());
        voice.detail = googleFamily(name);
        voices.append(voice);
    }
    return sortedByName(voices);
}

QCoro::Task<QList<CloudVoice>> CloudVoiceCatalog::azureVoices(QString apiKey, QString region)
{
    QNetworkRequest request(
        QUrl(CloudSpeechClient::azureBaseURL(region) + QStringLiteral("/cognitiveservices/voices/list")));
    HeaderValues::set(request, "Ocp-Apim-Subscription-Key", apiKey.toUtf8());
    request.setRawHeader("User-Agent", "KeloCompanion");
    const QByteArray body = co_await fetch(request, CloudSpeechClient::azureProvider());
    co_return parseAzureVoices(body);
}

QList<CloudVoice> CloudVoiceCatalog::parseAzureVoices(const QByteArray &body)
{
    const QJsonDocument document = parse(body);
    if (!document.isArray())
        throw URLError(URLError::cannotDecodeContentData);

    QList<CloudVoice> voices;
    for (const QJsonValue &entry : document.array()) {
        const QJsonObject object = entry.toObject();
        const QString shortName = object.value(QLatin1StringView("ShortName")).toString();
        if (shortName.isEmpty() || !isRomanian(object.value(QLatin1StringView("Locale")).toString()))
            continue;
        const QString displayName = object.value(QLatin1StringView("DisplayName")).toString();
        CloudVoice voice;
        voice.id = shortName;
        voice.name = displayName.isEmpty() ? shortName : displayName;
        voice.provider = VoiceEnginePreset::azureSpeech;
        voice.gender = genderLabel(object.value(QLatin1StringView("Gender")).toString());
        voice.detail = nonEmpty(object.value(QLatin1StringView("VoiceType")).toString());
        voices.append(voice);
    }
    return sortedByName(voices);
}

QCoro::Task<QList<CloudVoice>> CloudVoiceCatalog::elevenVoices(QString apiKey)
{
    QNetworkRequest request(QUrl(Endpoints::elevenLabsBaseURL() + QStringLiteral("/v1/voices")));
    HeaderValues::set(request, "xi-api-key", apiKey.toUtf8());
    request.setRawHeader("Accept", "application/json");
    const QByteArray body = co_await fetch(request, CloudSpeechClient::elevenLabsProvider());
    co_return parseElevenVoices(body);
}

QList<CloudVoice> CloudVoiceCatalog::parseElevenVoices(const QByteArray &body)
{
    const QJsonDocument document = parse(body);
    if (!document.isObject())
        throw URLError(URLError::cannotDecodeContentData);

    QList<CloudVoice> voices;
    for (const QJsonValue &entry : document.object().value(QLatin1StringView("voices")).toArray()) {
        const std::optional<NeuralVoice> neural = NeuralVoice::fromJson(entry.toObject());
        if (!neural)
            continue;
        CloudVoice voice;
        voice.id = neural->voiceID;
        voice.name = neural->name;
        voice.provider = VoiceEnginePreset::elevenLabs;
        voice.gender = genderLabel(neural->gender);
        voice.detail = nonEmpty(neural->category);
        voices.append(voice);
    }
    return sortedByName(voices);
}

std::optional<QString> CloudVoiceCatalog::genderLabel(const QString &providerValue)
{
    const QString value = providerValue.trimmed().toLower();
    if (value == QLatin1StringView("female"))
        return QStringLiteral("feminină");
    if (value == QLatin1StringView("male"))
        return QStringLiteral("masculină");
    if (value == QLatin1StringView("neutral"))
        return QStringLiteral("neutră");
    return std::nullopt;
}

QCoro::Task<QByteArray> CloudVoiceCatalog::fetch(QNetworkRequest request, QString provider)
{
    HttpClient::Options options;
    options.timeoutMs = CloudSpeechClient::requestTimeoutMs;
    options.deadlineMs = CloudSpeechClient::voiceListDeadlineMs;
    options.maxBodyBytes = maxListBytes;
    const HttpReply reply = co_await m_http->get(std::move(request), options);
    CloudSpeechClient::validate(reply, provider);
    co_return reply.body;
}
