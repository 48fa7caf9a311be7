#include "AsyncTest.h"
#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "RandomWhisperModel.h"
#include "TemporaryHome.h"
#include "VoiceSamples.h"
#include "conversation/ChatStore.h"
#include "voice/WavFile.h"
#include "voice/WavFileInput.h"
#include "voice/WhisperModelManager.h"

#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

using Reply = FakeHttpServer::Reply;

// Voice turns through the whole store: a spoken WAV, a random-weights recogniser, a loopback model service.
class ChatStoreVoiceTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_modelPath, m_spokenPath;
    TemporaryHome m_home;
    FakeHttpServer m_service;
    ScopedEnvironment m_zenURL { "KELO_ZEN_BASE_URL", m_service.baseUrl() };
    ScopedEnvironment m_key { "KELO_ZEN_API_KEY", u"cheie"_s };

    void prepare(ChatStore &store, const QString &wavPath)
    {
        store.setSpeaksAnswers(false);
        store.recognizer()->recognitionModels()->setModelPath(m_modelPath);
        store.recognizer()->setAudioInputFactory(
            [wavPath] { return std::unique_ptr<AudioInput>(new WavFileInput(WavFile::read(wavPath))); });
    }

    QList<FakeHttpServer::Request> turns() const { return m_service.requests(u"/chat/completions"_s); }

private Q_SLOTS:
    void initTestCase()
    {
        m_modelPath = m_dir.filePath(u"ggml-random.bin"_s);
        RandomWhisperModel::write(m_modelPath, RandomWhisperModel::tiny());
        m_spokenPath = VoiceSamples::speakRomanian(m_dir.path(), u"Care este capitala României?"_s);
        m_service.on("POST", u"/chat/completions"_s,
            Reply::json(ChatCompletionReplies::completion(u"Capitala este București."_s)));
    }

    // Taps and silence send nothing; speech becomes a turn, and only its spoken answer resumes listening.
    void speechBecomesATurnAndListeningResumesHandsFree()
    {
        const QString silence = m_dir.filePath(u"silence.wav"_s);
        VoiceSamples::writeWav(silence, QVector<float>(16000, 0.0f), 16000, 1);
        ChatStore store;
        prepare(store, silence);
        for (int i = 0; i < 2; ++i) {
            AsyncTest::await(store.beginPushToTalk());
            AsyncTest::await(store.beginPushToTalk()); // a second press while held changes nothing
            AsyncTest::await(store.endPushToTalk());
            QVERIFY(AsyncTest::waitUntil([&] { return !store.recognizer()->isListening(); }, 30'000));
        }
        QTest::qWait(200);
        QVERIFY(!store.isPushToTalkActive() && turns().isEmpty() && store.messages().size() == 1);
        {
            ChatStore closing;
            prepare(closing, silence);
            closing.startPushToTalk(); // closed while its run loads the model: the sanitizer build watches
        }
        QTest::qWait(100);

        if (m_spokenPath.isEmpty())
            QSKIP("espeak-ng is not installed");
        prepare(store, m_spokenPath);
        AsyncTest::await(store.send(u"Salut"_s));
        Q_EMIT store.synthesizer()->playbackFinished();
        QTest::qWait(1'000);
        QVERIFY(!store.recognizer()->isListening());

        QStringList statuses;
        connect(&store, &ChatStore::toolStatusChanged, this, [&] { statuses.append(store.toolStatus()); });
        AsyncTest::await(store.beginPushToTalk());
        QVERIFY(store.isPushToTalkActive() && store.recognizer()->isListening());
        QCOMPARE(statuses.value(0), u"Kelo este gata"_s);
        QVERIFY(AsyncTest::waitUntil([&] { return !store.recognizer()->transcript().isEmpty(); }, 60'000));
        AsyncTest::await(store.endPushToTalk());
        QVERIFY(!store.isPushToTalkActive());
        QVERIFY(AsyncTest::waitUntil([&] { return turns().size() == 2 && !store.isThinking(); }, 90'000));
        const QList<ChatMessage> messages = store.messages();
        QCOMPARE(messages.constLast().text, u"Capitala este București."_s);
        const ChatMessage &question = messages.at(messages.size() - 2);
        QVERIFY(question.role == ChatMessage::Role::user && !question.text.isEmpty());
        QCOMPARE(question.text, question.text.trimmed());
        QCOMPARE(turns().last().json()[u"messages"_s].toArray().last()[u"content"_s].toString(), question.text);

        Q_EMIT store.synthesizer()->playbackFinished();
        QVERIFY(AsyncTest::waitUntil([&] { return store.recognizer()->isListening(); }, 20'000));
        QVERIFY(AsyncTest::waitUntil([&] { return turns().size() == 3; }, 90'000));
    }
};

QTEST_GUILESS_MAIN(ChatStoreVoiceTest)
#include "ChatStoreVoiceTest.moc"
