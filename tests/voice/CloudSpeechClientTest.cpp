#include "voice/CloudSpeechClient.h"

#include "AsyncTest.h"
#include "VoiceTestSupport.h"
#include "net/KeloError.h"

#include <QTest>

using namespace Qt::StringLiterals;
using Reply = FakeHttpServer::Reply;
using Headers = FakeHttpServer::Headers;
using VoiceTestSupport::FakeCloudVoices;

Q_DECLARE_METATYPE(FakeHttpServer::Reply)

namespace {

// What the user reads of a call: the voices listed ("id/gender/detail" each), or the error.
template<typename T> QString outcome(QCoro::Task<T> task)
{
    try {
        [[maybe_unused]] const T result = AsyncTest::await(std::move(task));
        QStringList voices;
        if constexpr (std::is_same_v<T, QList<CloudVoice>>) {
            for (const CloudVoice &voice : result)
                voices.append(voice.id + u'/' + voice.genderOrEmpty() + u'/' + voice.detailOrEmpty());
        }
        return voices.join(u' ');
    } catch (const KeloError &error) {
        return error.description();
    }
}

// The client passes the audio on undecoded: any bytes stand for an MP3.
const QByteArray mp3 = "ID3\x04 audio/mpeg";
const QString undecodable = u"Datele primite nu au putut fi decodate."_s;
const QString badURL = u"Adresa URL nu este validă."_s;

} // namespace

// Every row of the cloud voice table against a loopback server: its requests and what answers become.
class CloudSpeechClientTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<FakeCloudVoices> m_fake;

private Q_SLOTS:
    void init() { m_fake = std::make_unique<FakeCloudVoices>(); }
    void cleanup() { m_fake.reset(); }

    // The exact request of each provider ("path?query", headers, body) and the MP3 it answers with.
    void synthesisRequestsAndAudio_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<CloudVoiceCredentials>("credentials");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("address");
        QTest::addColumn<Headers>("headers");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("google") << VoiceEnginePreset::googleCloud << CloudVoiceCredentials { "k&y+1", {}, {} }
                                << "Bună ziua." << u"/v1/text:synthesize?key=k%26y%2B1"_s
                                << Headers { { "Content-Type", "application/json" } }
                                << QByteArray(R"({"audioConfig":{"audioEncoding":"MP3","speakingRate":1},
                                   "input":{"text":"Bună ziua."},"voice":{"languageCode":"ro-RO","name":"ro-RO-Wavenet-B"}})");
        QTest::newRow("azure, markup escaped")
            << VoiceEnginePreset::azureSpeech << CloudVoiceCredentials { "key1", "westeurope", "a\"b" }
            << "Tom & Jerry: <b>\"da\"</b> 'nu' ]]></voice><voice name=\"x\">" << u"/cognitiveservices/v1?"_s
            << Headers { { "Ocp-Apim-Subscription-Key", "key1" }, { "Content-Type", "application/ssml+xml" },
                   { "X-Microsoft-OutputFormat", "audio-24khz-48kbitrate-mono-mp3" },
                   { "User-Agent", "KeloCompanion" } }
            << QByteArray("<speak version=\"1.0\" xml:lang=\"ro-RO\">\n  <voice name=\"a&quot;b\">"
                          "Tom &amp; Jerry: &lt;b&gt;&quot;da&quot;&lt;/b&gt; &apos;nu&apos; ]]&gt;&lt;/voice&gt;"
                          "&lt;voice name=&quot;x&quot;&gt;</voice>\n</speak>");
        QTest::newRow("elevenlabs")
            << VoiceEnginePreset::elevenLabs << CloudVoiceCredentials { "xi", {}, "voice 1" } << "Salut"
            << u"/v1/text-to-speech/voice 1?output_format=mp3_44100_128"_s
            << Headers { { "xi-api-key", "xi" }, { "Content-Type", "application/json" }, { "Accept", "audio/mpeg" } }
            << QByteArray(R"({"text":"Salut","model_id":"eleven_multilingual_v2","voice_settings":{"stability":0.46,
                          "similarity_boost":0.82,"style":0.18,"use_speaker_boost":true}})");
    }

    void synthesisRequestsAndAudio()
    {
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(CloudVoiceCredentials, credentials);
        QFETCH(QString, text);
        QFETCH(QString, address);
        QFETCH(Headers, headers);
        QFETCH(QByteArray, body);
        m_fake->server.on("POST", address.section(u'?', 0, 0), FakeCloudVoices::audio(engine, mp3));
        CloudSpeechClient client;
        QCOMPARE(AsyncTest::await(client.synthesize(*CloudVoiceProvider::forEngine(engine), text, credentials)), mp3);
        const FakeHttpServer::Request request = m_fake->server.requests().first();
        QCOMPARE(request.path + u'?' + request.query.toString(QUrl::FullyEncoded), address);
        for (const auto &[name, value] : headers)
            QCOMPARE(request.header(name), value);
        if (body.startsWith('{'))
            QCOMPARE(QJsonDocument::fromJson(request.body), QJsonDocument::fromJson(body));
        else
            QCOMPARE(request.body, body);
    }

    // Synthesis answers that hold no audio, refusals, and voice lists good, odd and wrong.
    void answers_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<bool>("list");
        QTest::addColumn<Reply>("reply");
        QTest::addColumn<QString>("expected");
        const auto google = VoiceEnginePreset::googleCloud, azure = VoiceEnginePreset::azureSpeech,
                   eleven = VoiceEnginePreset::elevenLabs;
        const auto body
            = [](const QByteArray &body, int status = 200) { return Reply::text(body, status, "application/json"); };
        QTest::newRow("google: not JSON") << google << false << body(mp3) << undecodable;
        QTest::newRow("google: an array") << google << false << body("[1,2]") << undecodable;
        QTest::newRow("google: no audioContent") << google << false << body(R"({"audio":"AAAA"})") << undecodable;
        QTest::newRow("google: audio a number") << google << false << body(R"({"audioContent":12})") << undecodable;
        QTest::newRow("google: not base64") << google << false << body(R"({"audioContent":"*** ***"})") << undecodable;
        QTest::newRow("google: non-ASCII")
            << google << false << body(R"({"audioContent":"QUJD\u0219"})") << undecodable;
        const QByteArray keyError = R"({"detail":{"status":"invalid_api_key","message":"Invalid API key"}})";
        QTest::newRow("elevenlabs: 401 with JSON")
            << eleven << false << body(keyError, 401) << QString::fromUtf8(keyError);
        // Two-byte and four-byte characters: the cut counts characters, never splits one.
        const QString cut = u"ă"_s.repeated(599) + u"😀"_s;
        QTest::newRow("google: 429, long body cut") << google << false << body((cut + u"xx"_s).toUtf8(), 429) << cut;
        QTest::newRow("azure: 502, body not UTF-8") << azure << false << body(QByteArray("\xff\xfe\0garbage", 10), 502)
                                                    << u"Azure Speech nu a putut fi redat."_s;

        QTest::newRow("google voices")
            << google << true
            << body(R"({"voices":[{"languageCodes":["ro-RO"],"name":"ro-RO-Wavenet-B","ssmlGender":"MALE"},
                {"languageCodes":["en-US"],"name":"en-US-Wavenet-A"},
                {"languageCodes":["ro-RO"],"name":"ro-RO-Standard-A","ssmlGender":"FEMALE"},
                {"languageCodes":"ro-RO","name":"malformed"}, {"languageCodes":["ro-RO"],"ssmlGender":"FEMALE"},
                "not an object"]})")
            << u"ro-RO-Standard-A/feminină/Standard ro-RO-Wavenet-B/masculină/Wavenet"_s;
        QTest::newRow("azure voices")
            << azure << true
            << body(R"([{"ShortName":"ro-RO-EmilNeural","DisplayName":"Emil","Locale":"ro-RO","Gender":"Male",
                "VoiceType":"Neural"}, {"ShortName":"de-DE-KatjaNeural","DisplayName":"Katja","Locale":"de-DE"},
                {"ShortName":"ro-RO-AlinaNeural","DisplayName":"Alina","Locale":"ro-RO","Gender":"neutral"}])")
            << u"ro-RO-AlinaNeural/neutră/ ro-RO-EmilNeural/masculină/Neural"_s;
        QTest::newRow("elevenlabs voices, every language")
            << eleven << true
            << body(R"({"voices":[{"voice_id":"v2","name":"Rachel","category":"premade","labels":{"gender":"female"}},
                {"voice_id":"v1","name":"andrei","category":"cloned"}, {"voice_id":7,"name":"wrong type"},
                {"name":"no id"}]})")
            << u"v1//cloned v2/feminină/premade"_s;
        QTest::newRow("voices: html") << eleven << true << body("<html>oops</html>") << undecodable;
        QTest::newRow("voices: google array") << google << true << body("[]") << undecodable;
        QTest::newRow("voices: azure object") << azure << true << body(R"({"voices":[]})") << undecodable;
        QTest::newRow("voices: cut short") << azure << true << body("[{\"ShortName\":\"ro-") << undecodable;
    }

    void answers()
    {
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(bool, list);
        QFETCH(Reply, reply);
        QFETCH(QString, expected);
        const CloudVoiceProvider &provider = *CloudVoiceProvider::forEngine(engine);
        const CloudVoiceCredentials credentials = FakeCloudVoices::credentials;
        const QString listPath = provider.voiceListRequest(credentials).url().path();
        m_fake->server.on(list ? "GET" : "POST", list ? listPath : FakeCloudVoices::synthesisPath(engine), reply);
        CloudSpeechClient client;
        QCOMPARE(list ? outcome(client.voices(provider, credentials))
                      : outcome(client.synthesize(provider, "x", credentials)),
            expected);
    }

    void credentialsCannotSendTheKeyElsewhere()
    {
        CloudSpeechClient client;
        const CloudVoiceProvider &azure = *CloudVoiceProvider::forEngine(VoiceEnginePreset::azureSpeech);
        // The region becomes part of the host name: anything but a label is refused before sending.
        for (const QString &region : { u"evil.example.com#"_s, u"west europe"_s, u"a/b"_s }) {
            QCOMPARE(outcome(client.synthesize(azure, "x", { "k", region, {} })), badURL);
            QCOMPARE(outcome(client.voices(azure, { "k", region, {} })), badURL);
        }
        QVERIFY(m_fake->server.requests().isEmpty());
        // A voice id stays one path segment.
        outcome(client.synthesize(
            *CloudVoiceProvider::forEngine(VoiceEnginePreset::elevenLabs), "x", { "k", {}, "../../voices" }));
        QCOMPARE(m_fake->server.requests().size(), 1);
        QCOMPARE(m_fake->server.requests().first().path, u"/v1/text-to-speech/../../voices"_s);
    }
};

QTEST_GUILESS_MAIN(CloudSpeechClientTest)
#include "CloudSpeechClientTest.moc"
