#include "voice/CloudSpeechClient.h"

#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "TemporaryHome.h"
#include "VoiceTestSupport.h"
#include "net/URLError.h"
#include "voice/CloudVoiceCatalog.h"
#include "voice/ProviderError.h"

#include <QJsonArray>
#include <QTest>

using Reply = FakeHttpServer::Reply;

// The exact requests of the three cloud voices and their voice lists, and what every kind of bad
// answer turns into, against a loopback server.
class CloudSpeechClientTest : public QObject
{
    Q_OBJECT

    QByteArray m_mp3;
    std::unique_ptr<FakeHttpServer> m_server;
    std::vector<std::unique_ptr<ScopedEnvironment>> m_environment;

private Q_SLOTS:
    void initTestCase()
    {
        m_mp3 = VoiceTestSupport::makeSpeechMp3(QStringLiteral("Salut."));
        if (m_mp3.isEmpty())
            QSKIP("espeak-ng and lame are needed to make test audio (scripts/install-deps.sh)");
    }

    void init()
    {
        m_server = std::make_unique<FakeHttpServer>();
        for (const auto &[variable, suffix] : { std::pair { "KELO_GOOGLE_TTS_BASE_URL", "" },
                 std::pair { "KELO_AZURE_TTS_BASE_URL", "/" }, std::pair { "KELO_ELEVENLABS_BASE_URL", "" } })
            m_environment.push_back(std::make_unique<ScopedEnvironment>(variable, m_server->baseUrl() + suffix));
    }

    void cleanup()
    {
        m_environment.clear();
        m_server.reset();
    }

    void googleSendsJsonAndDecodesBase64Audio()
    {
        m_server->on("POST", "/v1/text:synthesize",
            Reply::json(QJsonObject { { "audioContent", QString::fromLatin1(m_mp3.toBase64()) } }));
        CloudSpeechClient client;

        const QByteArray audio
            = AsyncTest::await(client.synthesizeGoogle(QStringLiteral("Bună ziua."), QStringLiteral("k&y+1"), {}));
        QCOMPARE(audio, m_mp3);

        const FakeHttpServer::Request request = m_server->requests().first();
        QCOMPARE(request.query.queryItemValue("key", QUrl::FullyDecoded), QStringLiteral("k&y+1"));
        QCOMPARE(request.header("Content-Type"), QByteArray("application/json"));
        const QJsonObject body = request.json();
        QCOMPARE(body["input"].toObject(), (QJsonObject { { "text", "Bună ziua." } }));
        QCOMPARE(
            body["voice"].toObject(), (QJsonObject { { "languageCode", "ro-RO" }, { "name", "ro-RO-Wavenet-B" } }));
        QCOMPARE(body["audioConfig"].toObject(), (QJsonObject { { "audioEncoding", "MP3" }, { "speakingRate", 1.0 } }));

        AsyncTest::await(
            client.synthesizeGoogle(QStringLiteral("x"), QStringLiteral("k"), QStringLiteral("ro-RO-Chirp3-HD-Aoede")));
        QCOMPARE(m_server->requests().last().json()["voice"].toObject()["name"].toString(),
            QStringLiteral("ro-RO-Chirp3-HD-Aoede"));
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
        m_server->on("POST", "/v1/text:synthesize", Reply::text(body, 200, "application/json"));
        CloudSpeechClient client;
        const auto error = AsyncTest::awaitError<URLError>(client.synthesizeGoogle("x", "k", {}));
        QVERIFY(error);
        QCOMPARE(error->code(), URLError::cannotDecodeContentData);
    }

    void azureSendsEscapedSsmlWithItsHeadersToAValidRegion()
    {
        m_server->on("POST", "/cognitiveservices/v1", Reply::text(m_mp3, 200, "audio/mpeg"));
        CloudSpeechClient client;

        const QString hostile = QStringLiteral("Tom & Jerry: <b>\"da\"</b> 'nu' ]]></voice><voice name=\"x\">");
        const QByteArray audio = AsyncTest::await(client.synthesizeAzure(
            hostile, QStringLiteral("key1"), QStringLiteral("westeurope"), QStringLiteral("a\"b")));
        QCOMPARE(audio, m_mp3);

        const FakeHttpServer::Request request = m_server->requests().first();
        QCOMPARE(request.header("Ocp-Apim-Subscription-Key"), QByteArray("key1"));
        QCOMPARE(request.header("Content-Type"), QByteArray("application/ssml+xml"));
        QCOMPARE(request.header("X-Microsoft-OutputFormat"), QByteArray("audio-24khz-48kbitrate-mono-mp3"));
        QCOMPARE(request.header("User-Agent"), QByteArray("KeloCompanion"));
        QCOMPARE(QString::fromUtf8(request.body),
            QStringLiteral("<speak version=\"1.0\" xml:lang=\"ro-RO\">\n  <voice name=\"a&quot;b\">"
                           "Tom &amp; Jerry: &lt;b&gt;&quot;da&quot;&lt;/b&gt; &apos;nu&apos; ]]&gt;&lt;/voice&gt;"
                           "&lt;voice name=&quot;x&quot;&gt;</voice>\n</speak>"));

        AsyncTest::await(client.synthesizeAzure("x", "k", "westeurope", {}));
        QVERIFY(m_server->requests().last().body.contains("<voice name=\"ro-RO-AlinaNeural\">"));

        // The region becomes part of the host name: anything but a label is refused before sending.
        for (const QString region : { "evil.example.com#", "west europe", "a/b" }) {
            const auto error = AsyncTest::awaitError<URLError>(client.synthesizeAzure("x", "k", region, {}));
            QVERIFY2(error && error->code() == URLError::badURL, qPrintable(region));
        }
        QCOMPARE(m_server->requests().size(), 2);
    }

    void elevenLabsSendsItsModelAndVoiceSettings()
    {
        m_server->on("POST", "/v1/text-to-speech/voice 1", Reply::text(m_mp3, 200, "audio/mpeg"));
        CloudSpeechClient client;

        const QByteArray audio = AsyncTest::await(client.synthesizeElevenLabs("Salut", "xi", "voice 1"));
        QCOMPARE(audio, m_mp3);
        const FakeHttpServer::Request request = m_server->requests().first();
        QCOMPARE(request.query.queryItemValue("output_format"), QStringLiteral("mp3_44100_128"));
        QCOMPARE(request.header("xi-api-key"), QByteArray("xi"));
        QCOMPARE(request.header("Content-Type"), QByteArray("application/json"));
        QCOMPARE(request.header("Accept"), QByteArray("audio/mpeg"));
        const QJsonObject expectedSettings { { "stability", 0.46 }, { "similarity_boost", 0.82 }, { "style", 0.18 },
            { "use_speaker_boost", true } };
        QCOMPARE(request.json(),
            (QJsonObject { { "text", "Salut" }, { "model_id", "eleven_multilingual_v2" },
                { "voice_settings", expectedSettings } }));
    }

    void elevenLabsVoiceIdCannotLeaveItsPath()
    {
        m_server->on("POST", "/v1/voices", Reply::text("wrong endpoint", 200));
        CloudSpeechClient client;
        const auto error = AsyncTest::awaitError<ProviderError>(client.synthesizeElevenLabs("x", "k", "../../voices"));
        QVERIFY(error);
        QCOMPARE(m_server->requestCount("/v1/voices"), 0);
        QCOMPARE(m_server->requests().first().path, QStringLiteral("/v1/text-to-speech/../../voices"));
    }

    void refusalsCarryStatusAndBody()
    {
        const QByteArray jsonError = R"({"detail":{"status":"invalid_api_key","message":"Invalid API key"}})";
        m_server->on("POST", "/v1/text-to-speech/v", Reply::text(jsonError, 401, "application/json"));
        m_server->on("POST", "/cognitiveservices/v1", Reply::text({}, 500));
        m_server->on("POST", "/v1/text:synthesize", Reply::text(QByteArray(2000, 'e'), 429));
        CloudSpeechClient client;

        const auto eleven = AsyncTest::awaitError<ProviderError>(client.synthesizeElevenLabs("x", "k", "v"));
        QVERIFY(eleven);
        QCOMPARE(eleven->domain(), QStringLiteral("Kelo.ElevenLabs"));
        QCOMPARE(eleven->code(), 401);
        QCOMPARE(eleven->description(), QString::fromUtf8(jsonError));

        const auto azure = AsyncTest::awaitError<ProviderError>(client.synthesizeAzure("x", "k", "westeurope", {}));
        QVERIFY(azure);
        QCOMPARE(azure->domain(), QStringLiteral("Kelo.Azure Speech"));
        QCOMPARE(azure->code(), 500);
        QCOMPARE(azure->description(), QStringLiteral("Azure Speech nu a putut fi redat."));

        const auto google = AsyncTest::awaitError<ProviderError>(client.synthesizeGoogle("x", "k", {}));
        QVERIFY(google);
        QCOMPARE(google->description(), QString(600, 'e'));
    }

    void aDeadServerIsATransportError()
    {
        const QString base = m_server->baseUrl();
        m_server.reset();
        ScopedEnvironment dead("KELO_ELEVENLABS_BASE_URL", base);
        CloudSpeechClient client;
        const auto error = AsyncTest::awaitError<URLError>(client.synthesizeElevenLabs("x", "k", "v"));
        QVERIFY(error);
        QCOMPARE(error->code(), URLError::cannotConnectToHost);
    }

    void googleVoiceListIsRomanianOnly()
    {
        const QJsonArray voices {
            QJsonObject {
                { "languageCodes", QJsonArray { "ro-RO" } }, { "name", "ro-RO-Wavenet-B" }, { "ssmlGender", "MALE" } },
            QJsonObject { { "languageCodes", QJsonArray { "en-US" } }, { "name", "en-US-Wavenet-A" },
                { "ssmlGender", "FEMALE" } },
            QJsonObject { { "languageCodes", QJsonArray { "ro-RO" } }, { "name", "ro-RO-Standard-A" },
                { "ssmlGender", "FEMALE" } },
            QJsonObject { { "languageCodes", "ro-RO" }, { "name", "malformed" } },
            QJsonObject { { "languageCodes", QJsonArray { "ro-RO" } }, { "ssmlGender", "FEMALE" } },
            QJsonValue("not an object"),
        };
        m_server->on("GET", "/v1/voices", Reply::json(QJsonObject { { "voices", voices } }));

        const QList<CloudVoice> list = AsyncTest::await(CloudVoiceCatalog().googleVoices("g k"));
        QCOMPARE(m_server->requests().first().query.queryItemValue("key", QUrl::FullyDecoded), QStringLiteral("g k"));
        QCOMPARE(list.size(), 2);
        QCOMPARE(list[0].id, QStringLiteral("ro-RO-Standard-A"));
        QCOMPARE(list[0].gender, QStringLiteral("feminină"));
        QCOMPARE(list[0].detail, QStringLiteral("Standard"));
        QCOMPARE(list[1].id, QStringLiteral("ro-RO-Wavenet-B"));
        QCOMPARE(list[1].gender, QStringLiteral("masculină"));
        QCOMPARE(list[1].provider, VoiceEnginePreset::googleCloud);
    }

    void azureVoiceListIsRomanianOnly()
    {
        const QJsonArray voices {
            QJsonObject { { "ShortName", "ro-RO-EmilNeural" }, { "DisplayName", "Emil" }, { "Locale", "ro-RO" },
                { "Gender", "Male" }, { "VoiceType", "Neural" } },
            QJsonObject { { "ShortName", "de-DE-KatjaNeural" }, { "DisplayName", "Katja" }, { "Locale", "de-DE" } },
            QJsonObject { { "ShortName", "ro-RO-AlinaNeural" }, { "DisplayName", "Alina" }, { "Locale", "ro-RO" },
                { "Gender", "Female" }, { "VoiceType", "Neural" } },
        };
        m_server->on("GET", "/cognitiveservices/voices/list", Reply::json(voices));

        const QList<CloudVoice> list = AsyncTest::await(CloudVoiceCatalog().azureVoices("az", "westeurope"));
        QCOMPARE(m_server->requests().first().header("Ocp-Apim-Subscription-Key"), QByteArray("az"));
        QCOMPARE(list.size(), 2);
        QCOMPARE(list[0].id, QStringLiteral("ro-RO-AlinaNeural"));
        QCOMPARE(list[0].name, QStringLiteral("Alina"));
        QCOMPARE(list[1].gender, QStringLiteral("masculină"));
        QCOMPARE(list[1].detail, QStringLiteral("Neural"));
    }

    void elevenVoiceListKeepsEveryWellFormedVoice()
    {
        const QJsonArray voices {
            QJsonObject { { "voice_id", "v2" }, { "name", "Rachel" }, { "category", "premade" },
                { "labels", QJsonObject { { "gender", "female" } } } },
            QJsonObject { { "voice_id", "v1" }, { "name", "andrei" }, { "category", "cloned" } },
            QJsonObject { { "voice_id", 7 }, { "name", "wrong type" } },
            QJsonObject { { "name", "no id" } },
        };
        m_server->on("GET", "/v1/voices", Reply::json(QJsonObject { { "voices", voices } }));

        const QList<CloudVoice> list = AsyncTest::await(CloudVoiceCatalog().elevenVoices("xi"));
        QCOMPARE(m_server->requests().first().header("xi-api-key"), QByteArray("xi"));
        QCOMPARE(list.size(), 2);
        QCOMPARE(list[0].id, QStringLiteral("v1"));
        QCOMPARE(list[0].detail, QStringLiteral("cloned"));
        QVERIFY(!list[0].gender);
        QCOMPARE(list[1].name, QStringLiteral("Rachel"));
        QCOMPARE(list[1].gender, QStringLiteral("feminină"));
    }

    void voiceListFailures()
    {
        m_server->on("GET", "/v1/voices", Reply::text("<html>oops</html>", 200, "text/html"));
        m_server->on("GET", "/cognitiveservices/voices/list", Reply::text({}, 401));
        CloudVoiceCatalog catalog;

        const auto garbage = AsyncTest::awaitError<URLError>(catalog.elevenVoices("k"));
        QVERIFY(garbage && garbage->code() == URLError::cannotDecodeContentData);
        const auto refused = AsyncTest::awaitError<ProviderError>(catalog.azureVoices("k", "westeurope"));
        QVERIFY(refused);
        QCOMPARE(refused->description(), QStringLiteral("Azure Speech nu a putut fi redat."));
    }
};

QTEST_GUILESS_MAIN(CloudSpeechClientTest)
#include "CloudSpeechClientTest.moc"
