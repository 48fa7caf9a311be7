#include "voice/CloudSpeechClient.h"

#include "AsyncTest.h"
#include "VoiceTestSupport.h"
#include "net/URLError.h"
#include "voice/ProviderError.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

using Reply = FakeHttpServer::Reply;
using Headers = FakeHttpServer::Headers;
using VoiceTestSupport::FakeCloudVoices;

Q_DECLARE_METATYPE(CloudVoiceCredentials)
Q_DECLARE_METATYPE(FakeHttpServer::Reply)

namespace {

const CloudVoiceProvider &provider(VoiceEnginePreset engine)
{
    return *CloudVoiceProvider::forEngine(engine);
}

QStringList field(const QList<CloudVoice> &voices, const std::function<QString(const CloudVoice &)> &read)
{
    QStringList values;
    for (const CloudVoice &voice : voices)
        values.append(read(voice));
    return values;
}

} // namespace

// Every row of the cloud voice table against a loopback server: the exact requests, and what every
// kind of bad answer turns into.
class CloudSpeechClientTest : public QObject
{
    Q_OBJECT

    QByteArray m_mp3;
    std::unique_ptr<FakeCloudVoices> m_fake;

private Q_SLOTS:
    void initTestCase()
    {
        m_mp3 = VoiceTestSupport::makeSpeechMp3(QStringLiteral("Salut."));
        if (m_mp3.isEmpty())
            QSKIP("espeak-ng and lame are needed to make test audio (scripts/install-deps.sh)");
    }

    void init() { m_fake = std::make_unique<FakeCloudVoices>(); }
    void cleanup() { m_fake.reset(); }

    void synthesisRequestsAndAudio_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<CloudVoiceCredentials>("credentials");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("query");
        QTest::addColumn<Headers>("headers");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("google")
            << VoiceEnginePreset::googleCloud << CloudVoiceCredentials { "k&y+1", {}, {} } << "Bună ziua."
            << "/v1/text:synthesize"
            << "key=k%26y%2B1" << Headers { { "Content-Type", "application/json" } }
            << QByteArray(
                   R"({"audioConfig":{"audioEncoding":"MP3","speakingRate":1},"input":{"text":"Bună ziua."},"voice":{"languageCode":"ro-RO","name":"ro-RO-Wavenet-B"}})");
        QTest::newRow("azure, markup escaped")
            << VoiceEnginePreset::azureSpeech << CloudVoiceCredentials { "key1", "westeurope", "a\"b" }
            << "Tom & Jerry: <b>\"da\"</b> 'nu' ]]></voice><voice name=\"x\">"
            << "/cognitiveservices/v1"
            << ""
            << Headers { { "Ocp-Apim-Subscription-Key", "key1" }, { "Content-Type", "application/ssml+xml" },
                   { "X-Microsoft-OutputFormat", "audio-24khz-48kbitrate-mono-mp3" },
                   { "User-Agent", "KeloCompanion" } }
            << QByteArray("<speak version=\"1.0\" xml:lang=\"ro-RO\">\n  <voice name=\"a&quot;b\">"
                          "Tom &amp; Jerry: &lt;b&gt;&quot;da&quot;&lt;/b&gt; &apos;nu&apos; ]]&gt;&lt;/voice&gt;"
                          "&lt;voice name=&quot;x&quot;&gt;</voice>\n</speak>");
        QTest::newRow("elevenlabs")
            << VoiceEnginePreset::elevenLabs << CloudVoiceCredentials { "xi", {}, "voice 1" } << "Salut"
            << "/v1/text-to-speech/voice 1"
            << "output_format=mp3_44100_128"
            << Headers { { "xi-api-key", "xi" }, { "Content-Type", "application/json" }, { "Accept", "audio/mpeg" } }
            << QByteArray(
                   R"({"text":"Salut","model_id":"eleven_multilingual_v2","voice_settings":{"stability":0.46,"similarity_boost":0.82,"style":0.18,"use_speaker_boost":true}})");
    }

    void synthesisRequestsAndAudio()
    {
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(CloudVoiceCredentials, credentials);
        QFETCH(QString, text);
        QFETCH(QString, path);
        QFETCH(QString, query);
        QFETCH(Headers, headers);
        QFETCH(QByteArray, body);
        m_fake->server().on("POST", path, FakeCloudVoices::audio(engine, m_mp3));
        CloudSpeechClient client;

        QCOMPARE(AsyncTest::await(client.synthesize(provider(engine), text, credentials)), m_mp3);
        const FakeHttpServer::Request request = m_fake->server().requests().first();
        QCOMPARE(request.path, path);
        QCOMPARE(request.query.toString(QUrl::FullyEncoded), query);
        for (const auto &[name, value] : headers)
            QCOMPARE(request.header(name), value);
        if (body.startsWith('{'))
            QCOMPARE(QJsonDocument::fromJson(request.body), QJsonDocument::fromJson(body));
        else
            QCOMPARE(request.body, body);
    }

    void googleAnswersThatHoldNoAudio_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("not JSON") << m_mp3;
        QTest::newRow("an array") << QByteArray("[1,2]");
        QTest::newRow("no audioContent") << QByteArray(R"({"audio":"AAAA"})");
        QTest::newRow("audioContent not a string") << QByteArray(R"({"audioContent":12})");
        QTest::newRow("invalid base64") << QByteArray(R"({"audioContent":"*** not base64 ***"})");
        QTest::newRow("characters outside base64") << QByteArray(R"({"audioContent":"QUJD\u0219"})");
    }

    void googleAnswersThatHoldNoAudio()
    {
        QFETCH(QByteArray, body);
        m_fake->server().on("POST", "/v1/text:synthesize", Reply::text(body, 200, "application/json"));
        CloudSpeechClient client;
        const auto error = AsyncTest::awaitError<URLError>(
            client.synthesize(provider(VoiceEnginePreset::googleCloud), "x", FakeCloudVoices::credentials()));
        QVERIFY(error);
        QCOMPARE(error->code(), URLError::cannotDecodeContentData);
    }

    void credentialsCannotSendTheKeyElsewhere()
    {
        m_fake->server().on("POST", "/v1/voices", Reply::text("wrong endpoint", 200));
        CloudSpeechClient client;
        // The region becomes part of the host name: anything but a label is refused before sending.
        for (const QString region : { "evil.example.com#", "west europe", "a/b" }) {
            const auto error = AsyncTest::awaitError<URLError>(
                client.synthesize(provider(VoiceEnginePreset::azureSpeech), "x", { "k", region, {} }));
            QVERIFY2(error && error->code() == URLError::badURL, qPrintable(region));
            const auto listError = AsyncTest::awaitError<URLError>(
                client.voices(provider(VoiceEnginePreset::azureSpeech), { "k", region, {} }));
            QVERIFY2(listError && listError->code() == URLError::badURL, qPrintable(region));
        }
        QVERIFY(m_fake->server().requests().isEmpty());
        // A voice id stays one path segment.
        QVERIFY(AsyncTest::awaitError<ProviderError>(
            client.synthesize(provider(VoiceEnginePreset::elevenLabs), "x", { "k", {}, "../../voices" })));
        QCOMPARE(m_fake->server().requestCount("/v1/voices"), 0);
    }

    void refusalsCarryStatusAndBody_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("description");
        const QByteArray jsonError = R"({"detail":{"status":"invalid_api_key","message":"Invalid API key"}})";
        QTest::newRow("elevenlabs 401 with JSON")
            << VoiceEnginePreset::elevenLabs << 401 << jsonError << QString::fromUtf8(jsonError);
        QTest::newRow("azure 500 without body")
            << VoiceEnginePreset::azureSpeech << 500 << QByteArray() << "Azure Speech nu a putut fi redat.";
        QTest::newRow("google 429, long body cut")
            << VoiceEnginePreset::googleCloud << 429 << QByteArray(2000, 'e') << QString(600, 'e');
    }

    void refusalsCarryStatusAndBody()
    {
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, description);
        const Reply refusal = Reply::text(body, status, "application/json");
        m_fake->server().on("POST", FakeCloudVoices::synthesisPath(engine), refusal);
        m_fake->server().on(
            "GET", provider(engine).voiceListRequest(FakeCloudVoices::credentials()).url().path(), refusal);
        CloudSpeechClient client;

        const auto error = AsyncTest::awaitError<ProviderError>(
            client.synthesize(provider(engine), "x", FakeCloudVoices::credentials()));
        QVERIFY(error);
        QCOMPARE(error->domain(), QStringLiteral("Kelo.") + provider(engine).name);
        QCOMPARE(error->code(), status);
        QCOMPARE(error->description(), description);
        const auto listError
            = AsyncTest::awaitError<ProviderError>(client.voices(provider(engine), FakeCloudVoices::credentials()));
        QVERIFY(listError);
        QCOMPARE(listError->description(), description);
    }

    void aDeadServerIsATransportError()
    {
        auto gone = std::make_unique<FakeHttpServer>();
        ScopedEnvironment dead("KELO_ELEVENLABS_BASE_URL", gone->baseUrl());
        gone.reset();
        const auto error = AsyncTest::awaitError<URLError>(CloudSpeechClient().synthesize(
            provider(VoiceEnginePreset::elevenLabs), "x", FakeCloudVoices::credentials()));
        QVERIFY(error);
        QCOMPARE(error->code(), URLError::cannotConnectToHost);
    }

    void voiceListsKeepWellFormedRomanianVoices_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<Reply>("reply");
        QTest::addColumn<QStringList>("ids");
        QTest::addColumn<QStringList>("genders");
        QTest::addColumn<QStringList>("details");
        const QJsonArray google {
            QJsonObject {
                { "languageCodes", QJsonArray { "ro-RO" } }, { "name", "ro-RO-Wavenet-B" }, { "ssmlGender", "MALE" } },
            QJsonObject { { "languageCodes", QJsonArray { "en-US" } }, { "name", "en-US-Wavenet-A" } },
            QJsonObject { { "languageCodes", QJsonArray { "ro-RO" } }, { "name", "ro-RO-Standard-A" },
                { "ssmlGender", "FEMALE" } },
            QJsonObject { { "languageCodes", "ro-RO" }, { "name", "malformed" } },
            QJsonObject { { "languageCodes", QJsonArray { "ro-RO" } }, { "ssmlGender", "FEMALE" } },
            QJsonValue("not an object"),
        };
        QTest::newRow("google") << VoiceEnginePreset::googleCloud << Reply::json(QJsonObject { { "voices", google } })
                                << QStringList { "ro-RO-Standard-A", "ro-RO-Wavenet-B" }
                                << QStringList { "feminină", "masculină" } << QStringList { "Standard", "Wavenet" };
        const QJsonArray azure {
            QJsonObject { { "ShortName", "ro-RO-EmilNeural" }, { "DisplayName", "Emil" }, { "Locale", "ro-RO" },
                { "Gender", "Male" }, { "VoiceType", "Neural" } },
            QJsonObject { { "ShortName", "de-DE-KatjaNeural" }, { "DisplayName", "Katja" }, { "Locale", "de-DE" } },
            QJsonObject { { "ShortName", "ro-RO-AlinaNeural" }, { "DisplayName", "Alina" }, { "Locale", "ro-RO" },
                { "Gender", "neutral" } },
        };
        QTest::newRow("azure") << VoiceEnginePreset::azureSpeech << Reply::json(azure)
                               << QStringList { "ro-RO-AlinaNeural", "ro-RO-EmilNeural" }
                               << QStringList { "neutră", "masculină" } << QStringList { "", "Neural" };
        const QJsonArray eleven {
            QJsonObject { { "voice_id", "v2" }, { "name", "Rachel" }, { "category", "premade" },
                { "labels", QJsonObject { { "gender", "female" } } } },
            QJsonObject { { "voice_id", "v1" }, { "name", "andrei" }, { "category", "cloned" } },
            QJsonObject { { "voice_id", 7 }, { "name", "wrong type" } },
            QJsonObject { { "name", "no id" } },
        };
        QTest::newRow("elevenlabs, every language")
            << VoiceEnginePreset::elevenLabs << Reply::json(QJsonObject { { "voices", eleven } })
            << QStringList { "v1", "v2" } << QStringList { "", "feminină" } << QStringList { "cloned", "premade" };
    }

    void voiceListsKeepWellFormedRomanianVoices()
    {
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(Reply, reply);
        QFETCH(QStringList, ids);
        QFETCH(QStringList, genders);
        QFETCH(QStringList, details);
        const QNetworkRequest expected = provider(engine).voiceListRequest(FakeCloudVoices::credentials());
        m_fake->server().on("GET", expected.url().path(), reply);

        const QList<CloudVoice> voices
            = AsyncTest::await(CloudSpeechClient().voices(provider(engine), FakeCloudVoices::credentials()));
        QCOMPARE(field(voices, [](const CloudVoice &voice) { return voice.id; }), ids);
        QCOMPARE(field(voices, &CloudVoice::genderOrEmpty), genders);
        QCOMPARE(field(voices, &CloudVoice::detailOrEmpty), details);
        QVERIFY(std::all_of(voices.begin(), voices.end(), [&](const CloudVoice &v) { return v.provider == engine; }));
        const FakeHttpServer::Request request = m_fake->server().requests().first();
        QCOMPARE(request.query.toString(), expected.url().query());
        for (const QByteArray &header : expected.rawHeaderList())
            QCOMPARE(request.header(header), expected.rawHeader(header));
    }

    void voiceListsThatAreNotTheProvidersDocument_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("html") << VoiceEnginePreset::elevenLabs << QByteArray("<html>oops</html>");
        QTest::newRow("google array") << VoiceEnginePreset::googleCloud << QByteArray("[]");
        QTest::newRow("azure object") << VoiceEnginePreset::azureSpeech << QByteArray(R"({"voices":[]})");
        QTest::newRow("cut short") << VoiceEnginePreset::azureSpeech << QByteArray("[{\"ShortName\":\"ro-");
    }

    void voiceListsThatAreNotTheProvidersDocument()
    {
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(QByteArray, body);
        const QString path = provider(engine).voiceListRequest(FakeCloudVoices::credentials()).url().path();
        m_fake->server().on("GET", path, Reply::text(body, 200, "application/json"));
        const auto error = AsyncTest::awaitError<URLError>(
            CloudSpeechClient().voices(provider(engine), FakeCloudVoices::credentials()));
        QVERIFY(error && error->code() == URLError::cannotDecodeContentData);
    }
};

QTEST_GUILESS_MAIN(CloudSpeechClientTest)
#include "CloudSpeechClientTest.moc"
