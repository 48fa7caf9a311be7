#include "CloudVoiceProvider.h"

#include "NeuralVoice.h"
#include "SpeechText.h"
#include "net/Endpoints.h"
#include "net/HeaderValues.h"
#include "net/JsonSupport.h"
#include "net/URLError.h"
#include "settings/AppSettings.h"

#include <QCollator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QUrl>

#include <algorithm>

namespace {

QString encoded(const QString &value)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(value));
}

QNetworkRequest requestTo(const QString &url)
{
    return QNetworkRequest { QUrl(url) };
}

QJsonDocument parse(const QByteArray &body)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError)
        throw URLError(URLError::cannotDecodeContentData);
    return document;
}

QJsonArray voicesArrayOfObject(const QByteArray &body)
{
    const QJsonDocument document = parse(body);
    if (!document.isObject())
        throw URLError(URLError::cannotDecodeContentData);
    return document.object().value(QLatin1StringView("voices")).toArray();
}

bool isRomanian(const QString &languageCode)
{
    return languageCode.compare(QLatin1StringView("ro-RO"), Qt::CaseInsensitive) == 0;
}

std::optional<QString> nonEmpty(const QString &value)
{
    return value.isEmpty() ? std::nullopt : std::optional<QString>(value);
}

QList<CloudVoice> sortedByName(QList<CloudVoice> voices)
{
    QCollator collator;
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(voices.begin(), voices.end(),
        [&](const CloudVoice &a, const CloudVoice &b) { return collator.compare(a.name, b.name) < 0; });
    return voices;
}

QString onlyKeyMissing(const CloudVoiceCredentials &credentials, const QString &text)
{
    return credentials.apiKey.isEmpty() ? text : QString();
}

// --- Google Cloud ---

const QString googleKeyMissing = QStringLiteral("Introdu cheia Google Cloud Text-to-Speech.");

QByteArray googleBody(const QString &text, const CloudVoiceCredentials &credentials)
{
    const QString name = credentials.voice.isEmpty() ? QStringLiteral("ro-RO-Wavenet-B") : credentials.voice;
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

QByteArray googleAudio(const QByteArray &body)
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

// "ro-RO-Wavenet-B" → "Wavenet", "ro-RO-Chirp3-HD-Aoede" → "Chirp3".
std::optional<QString> googleFamily(const QString &name)
{
    const QStringList parts = name.split(QLatin1Char('-'));
    if (parts.size() < 4)
        return std::nullopt;
    return parts.at(2);
}

QList<CloudVoice> parseGoogleVoices(const QByteArray &body)
{
    QList<CloudVoice> voices;
    for (const QJsonValue &entry : voicesArrayOfObject(body)) {
        const QJsonObject object = entry.toObject();
        const QString name = object.value(QLatin1StringView("name")).toString();
        const QJsonArray languages = object.value(QLatin1StringView("languageCodes")).toArray();
        const bool romanian = std::any_of(
            languages.begin(), languages.end(), [](const QJsonValue &code) { return isRomanian(code.toString()); });
        if (name.isEmpty() || !romanian)
            continue;
        voices.append({ name, name, VoiceEnginePreset::googleCloud,
            CloudVoiceProvider::genderLabel(object.value(QLatin1StringView("ssmlGender")).toString()),
            googleFamily(name) });
    }
    return sortedByName(voices);
}

CloudVoiceProvider google()
{
    return {
        VoiceEnginePreset::googleCloud,
        QStringLiteral("Google Cloud"),
        [](const AppSettings &settings) {
            return CloudVoiceCredentials { settings.googleTTSAPIKey().trimmed(), {}, settings.googleVoiceName() };
        },
        [](const CloudVoiceCredentials &credentials) { return onlyKeyMissing(credentials, googleKeyMissing); },
        [](const CloudVoiceCredentials &credentials) { return onlyKeyMissing(credentials, googleKeyMissing); },
        [](const CloudVoiceCredentials &credentials) {
            QNetworkRequest request = requestTo(Endpoints::googleTTSBaseURL()
                + QStringLiteral("/v1/text:synthesize?key=") + encoded(credentials.apiKey));
            request.setRawHeader("Content-Type", "application/json");
            return request;
        },
        &googleBody,
        &googleAudio,
        [](const CloudVoiceCredentials &credentials) {
            return requestTo(
                Endpoints::googleTTSBaseURL() + QStringLiteral("/v1/voices?key=") + encoded(credentials.apiKey));
        },
        &parseGoogleVoices,
    };
}

// --- Azure Speech ---

QString azureSettingsMissing(const CloudVoiceCredentials &credentials)
{
    if (credentials.apiKey.isEmpty() || credentials.region.isEmpty())
        return QStringLiteral("Introdu cheia și regiunea Azure Speech.");
    return {};
}

// Only a plain host label: anything else could send the key to another host.
QString azureBaseURL(const QString &region)
{
    static const QRegularExpression hostLabel(QStringLiteral("^[A-Za-z0-9-]+$"));
    if (!hostLabel.match(region).hasMatch())
        throw URLError(URLError::badURL, region);
    return Endpoints::azureTTSBaseURL(region);
}

QNetworkRequest azureRequest(const QString &url, const CloudVoiceCredentials &credentials)
{
    QNetworkRequest request = requestTo(url);
    HeaderValues::set(request, "Ocp-Apim-Subscription-Key", credentials.apiKey.toUtf8());
    request.setRawHeader("User-Agent", "KeloCompanion");
    return request;
}

QByteArray azureSSML(const QString &text, const CloudVoiceCredentials &credentials)
{
    const QString name = credentials.voice.isEmpty() ? QStringLiteral("ro-RO-AlinaNeural") : credentials.voice;
    const QString ssml = QStringLiteral("<speak version=\"1.0\" xml:lang=\"ro-RO\">\n  <voice name=\"")
        + SpeechText::escapeForSSML(name) + QStringLiteral("\">") + SpeechText::escapeForSSML(text)
        + QStringLiteral("</voice>\n</speak>");
    return ssml.toUtf8();
}

QList<CloudVoice> parseAzureVoices(const QByteArray &body)
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
        voices.append({ shortName, displayName.isEmpty() ? shortName : displayName, VoiceEnginePreset::azureSpeech,
            CloudVoiceProvider::genderLabel(object.value(QLatin1StringView("Gender")).toString()),
            nonEmpty(object.value(QLatin1StringView("VoiceType")).toString()) });
    }
    return sortedByName(voices);
}

CloudVoiceProvider azure()
{
    return {
        VoiceEnginePreset::azureSpeech,
        QStringLiteral("Azure Speech"),
        [](const AppSettings &settings) {
            return CloudVoiceCredentials { settings.azureSpeechKey().trimmed(), settings.azureRegion().trimmed(),
                settings.azureVoiceName() };
        },
        &azureSettingsMissing,
        &azureSettingsMissing,
        [](const CloudVoiceCredentials &credentials) {
            QNetworkRequest request
                = azureRequest(azureBaseURL(credentials.region) + QStringLiteral("/cognitiveservices/v1"), credentials);
            request.setRawHeader("Content-Type", "application/ssml+xml");
            request.setRawHeader("X-Microsoft-OutputFormat", "audio-24khz-48kbitrate-mono-mp3");
            return request;
        },
        &azureSSML,
        [](const QByteArray &body) { return body; },
        [](const CloudVoiceCredentials &credentials) {
            return azureRequest(
                azureBaseURL(credentials.region) + QStringLiteral("/cognitiveservices/voices/list"), credentials);
        },
        &parseAzureVoices,
    };
}

// --- ElevenLabs ---

const QString elevenKeyMissing = QStringLiteral("Introdu cheia ElevenLabs.");

QString elevenSpeechMissing(const CloudVoiceCredentials &credentials)
{
    if (credentials.apiKey.isEmpty())
        return elevenKeyMissing;
    if (credentials.voice.isEmpty())
        return QStringLiteral("Alege o voce ElevenLabs înainte de test.");
    return {};
}

QByteArray elevenBody(const QString &text, const CloudVoiceCredentials &)
{
    const QJsonObject voiceSettings { { QStringLiteral("stability"), 0.46 },
        { QStringLiteral("similarity_boost"), 0.82 }, { QStringLiteral("style"), 0.18 },
        { QStringLiteral("use_speaker_boost"), true } };
    const QJsonObject body { { QStringLiteral("text"), text },
        { QStringLiteral("model_id"), QStringLiteral("eleven_multilingual_v2") },
        { QStringLiteral("voice_settings"), voiceSettings } };
    return JsonSupport::compact(body);
}

// Every voice of the account: these voices are multilingual, so none is filtered out.
QList<CloudVoice> parseElevenVoices(const QByteArray &body)
{
    QList<CloudVoice> voices;
    for (const QJsonValue &entry : voicesArrayOfObject(body)) {
        const std::optional<NeuralVoice> neural = NeuralVoice::fromJson(entry.toObject());
        if (neural)
            voices.append({ neural->voiceID, neural->name, VoiceEnginePreset::elevenLabs,
                CloudVoiceProvider::genderLabel(neural->gender), nonEmpty(neural->category) });
    }
    return sortedByName(voices);
}

CloudVoiceProvider eleven()
{
    return {
        VoiceEnginePreset::elevenLabs,
        QStringLiteral("ElevenLabs"),
        [](const AppSettings &settings) {
            return CloudVoiceCredentials { settings.elevenAPIKey().trimmed(), {}, settings.elevenVoiceID() };
        },
        &elevenSpeechMissing,
        [](const CloudVoiceCredentials &credentials) { return onlyKeyMissing(credentials, elevenKeyMissing); },
        [](const CloudVoiceCredentials &credentials) {
            QNetworkRequest request = requestTo(Endpoints::elevenLabsBaseURL() + QStringLiteral("/v1/text-to-speech/")
                + encoded(credentials.voice) + QStringLiteral("?output_format=mp3_44100_128"));
            HeaderValues::set(request, "xi-api-key", credentials.apiKey.toUtf8());
            request.setRawHeader("Content-Type", "application/json");
            request.setRawHeader("Accept", "audio/mpeg");
            return request;
        },
        &elevenBody,
        [](const QByteArray &body) { return body; },
        [](const CloudVoiceCredentials &credentials) {
            QNetworkRequest request = requestTo(Endpoints::elevenLabsBaseURL() + QStringLiteral("/v1/voices"));
            HeaderValues::set(request, "xi-api-key", credentials.apiKey.toUtf8());
            request.setRawHeader("Accept", "application/json");
            return request;
        },
        &parseElevenVoices,
    };
}

} // namespace

const QList<CloudVoiceProvider> &CloudVoiceProvider::all()
{
    static const QList<CloudVoiceProvider> providers { google(), azure(), eleven() };
    return providers;
}

const CloudVoiceProvider *CloudVoiceProvider::forEngine(VoiceEnginePreset engine)
{
    for (const CloudVoiceProvider &provider : all()) {
        if (provider.engine == engine)
            return &provider;
    }
    return nullptr;
}

std::optional<QString> CloudVoiceProvider::genderLabel(const QString &providerValue)
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
