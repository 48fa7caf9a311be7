#include "conversation/ChatStore.h"

#include "AsyncTest.h"
#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "TemporaryHome.h"
#include "conversation/ConversationMemoryStore.h"
#include "settings/AppSettings.h"

#include <QFile>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

using Reply = FakeHttpServer::Reply;
using ChatCompletionReplies::completion;
using ChatCompletionReplies::streamedCompletion;
using ChatCompletionReplies::toolCall;

Q_DECLARE_METATYPE(FakeHttpServer::Reply)

namespace {

QJsonArray sentMessages(const FakeHttpServer::Request &request)
{
    return request.json().value(u"messages"_s).toArray();
}

QStringList roles(const QJsonArray &messages)
{
    QStringList list;
    for (const QJsonValue &message : messages)
        list.append(message[u"role"_s].toString());
    return list;
}

QString content(const QJsonValue &message)
{
    return message[u"content"_s].toString();
}

bool isCompaction(const FakeHttpServer::Request &request)
{
    return content(sentMessages(request).first()).startsWith(u"Ești un compactor"_s);
}

QStringList texts(const QList<ChatMessage> &messages)
{
    QStringList list;
    for (const ChatMessage &message : messages)
        list.append(message.text);
    return list;
}

// A stream that sends `shown`, then stays open without ending the answer.
Reply streamThatStalls(const QString &shown)
{
    Reply reply = Reply::eventStreamChunks(streamedCompletion({ shown }).mid(0, 1));
    reply.holdOpenAfterChunks = true;
    return reply;
}

} // namespace

// A whole ChatStore against a loopback model service and encyclopedia, in a temporary home.
class ChatStoreTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;
    std::unique_ptr<FakeHttpServer> m_service;
    std::unique_ptr<ScopedEnvironment> m_zenURL;
    std::unique_ptr<ScopedEnvironment> m_wikiURL;
    std::unique_ptr<ScopedEnvironment> m_key;
    // The pages the model reads live on loopback, which the page reader refuses by default.
    std::unique_ptr<ScopedEnvironment> m_allowPrivate;

    QList<FakeHttpServer::Request> chatRequests() const { return m_service->requests(u"/chat/completions"_s); }

    void answerWith(const QList<QJsonObject> &replies)
    {
        for (const QJsonObject &reply : replies)
            m_service->enqueue("POST", u"/chat/completions"_s, Reply::json(reply));
    }

    // The messages a restarted store would load.
    QList<ChatMessage> reloaded(ChatStore &store) const
    {
        store.memory()->waitForWrites();
        return ConversationMemoryStore(m_home->dataHome() + u"/Kelo"_s, nullptr).messages();
    }

    void writeMemoryFile(int messageCount)
    {
        QJsonArray messages;
        for (int i = 0; i < messageCount; ++i) {
            const auto role = i % 2 == 0 ? ChatMessage::Role::user : ChatMessage::Role::assistant;
            messages.append(ChatMessage::make(role, u"mesaj %1"_s.arg(i)).toJson());
        }
        const QJsonObject snapshot { { u"summary"_s, QString() }, { u"messages"_s, messages },
            { u"summarizedUserCount"_s, 0 }, { u"updatedAt"_s, 0.0 } };
        QDir().mkpath(m_home->dataHome() + u"/Kelo"_s);
        QFile file(m_home->dataHome() + u"/Kelo/conversation-memory.json"_s);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QJsonDocument(snapshot).toJson());
    }

private Q_SLOTS:
    void init()
    {
        m_home = std::make_unique<TemporaryHome>();
        m_service = std::make_unique<FakeHttpServer>();
        m_zenURL = std::make_unique<ScopedEnvironment>("KELO_ZEN_BASE_URL", m_service->baseUrl());
        m_wikiURL = std::make_unique<ScopedEnvironment>("KELO_WIKIPEDIA_BASE_URL", m_service->baseUrl());
        m_key = std::make_unique<ScopedEnvironment>("KELO_ZEN_API_KEY", u"test-key"_s);
        m_allowPrivate = std::make_unique<ScopedEnvironment>("KELO_FETCH_ALLOW_PRIVATE", u"1"_s);
    }

    void cleanup()
    {
        m_allowPrivate.reset();
        m_key.reset();
        m_wikiURL.reset();
        m_zenURL.reset();
        m_service.reset();
        m_home.reset();
    }

    void blankTextAndAMissingKeyNeverReachTheNetwork()
    {
        m_key = std::make_unique<ScopedEnvironment>("KELO_ZEN_API_KEY", QString());
        ChatStore store;
        QCOMPARE(texts(store.messages()), QStringList { ChatStore::welcomeText() });
        QVERIFY(store.messages().first().fromApp);
        store.setDraft(u"  \n\t "_s);
        AsyncTest::await(store.send());
        QCOMPARE(store.messages().size(), 1);

        store.settings()->setZenAPIKey(u"   "_s);
        QSignalSpy finished(&store, &ChatStore::turnFinished);
        AsyncTest::await(store.send(u"Salut"_s));
        QCOMPARE(store.messages().constLast().text, u"Adaugă cheia OpenCode Zen în Setări"_s);
        QVERIFY(store.messages().constLast().fromApp);
        QCOMPARE(m_service->requests().size(), 0);
        QCOMPARE(finished.size(), 1);
        QCOMPARE(finished.first().first().toBool(), false);
        QVERIFY(!store.isThinking());
    }

    // Search, then a page, then the answer: every request echoes the call and carries the result, the
    // orb follows the tool that runs, and the answer is stored clean.
    void twoRoundsOfWebToolsThenACleanAnswer()
    {
        const QString pageURL = m_service->baseUrl() + u"/pagina"_s;
        m_service->on("GET", u"/w/rest.php/v1/search/page"_s,
            Reply::json(QJsonObject { { u"pages"_s,
                QJsonArray { QJsonObject {
                    { u"title"_s, u"Constantin Brâncuși"_s }, { u"description"_s, u"sculptor român"_s } } } } }));
        m_service->on("GET", u"/pagina"_s,
            Reply::text("<html><script>x()</script><p>Coloana <b>infinitului</b></p></html>", 200, "text/html"));
        answerWith({
            completion(QString(), { toolCall(u"c1"_s, u"kelo_web_search"_s, { { u"query"_s, u"Brâncuși"_s } }) }),
            completion(QString(), { toolCall(u"c2"_s, u"kelo_fetch_url"_s, { { u"url"_s, pageURL } }) }),
            completion(u"<think>caut</think>\n Brâncuși a creat Coloana infinitului. "_s),
        });
        ChatStore store;
        QStringList statuses;
        QList<ChatStore::Activity> activities;
        connect(&store, &ChatStore::toolStatusChanged, this, [&] {
            if (!store.toolStatus().isEmpty())
                statuses.append(store.toolStatus());
        });
        connect(&store, &ChatStore::activityChanged, this, [&] { activities.append(store.activity()); });

        AsyncTest::await(store.send(u"Ce a sculptat Brâncuși?"_s));

        QCOMPARE(store.messages().constLast().text, u"Brâncuși a creat Coloana infinitului."_s);
        QCOMPARE(statuses, (QStringList { u"Caut pe internet…"_s, u"Citesc pagina…"_s }));
        using A = ChatStore::Activity;
        QCOMPARE(activities, (QList<A> { A::Thinking, A::Searching, A::UsingTool, A::Speaking, A::Idle }));
        const auto requests = chatRequests();
        QCOMPARE(requests.size(), 3);

        const QJsonObject first = requests.at(0).json();
        QCOMPARE(first[u"tools"_s].toArray().size(), 2);
        QCOMPARE(first[u"tools"_s][0][u"function"_s][u"name"_s].toString(), u"kelo_web_search"_s);
        QCOMPARE(roles(sentMessages(requests.at(0))), (QStringList { "system", "assistant", "user" }));
        QCOMPARE(requests.at(0).header("Authorization"), QByteArray("Bearer test-key"));

        const QJsonArray second = sentMessages(requests.at(1));
        QCOMPARE(roles(second).mid(3), (QStringList { "assistant", "tool" }));
        QCOMPARE(second.at(3)[u"tool_calls"_s][0][u"id"_s].toString(), u"c1"_s);
        QCOMPARE(second.at(4)[u"tool_call_id"_s].toString(), u"c1"_s);
        QCOMPARE(content(second.at(4)), u"• Constantin Brâncuși: sculptor român"_s);
        const QString page = content(sentMessages(requests.at(2)).at(6));
        QVERIFY(page.contains(u"Coloana infinitului"_s) && !page.contains(u"x()"_s));

        QCOMPARE(texts(reloaded(store)).mid(1),
            (QStringList { u"Ce a sculptat Brâncuși?"_s, u"Brâncuși a creat Coloana infinitului."_s }));
    }

    // The answer grows in one row of the conversation as pieces arrive, reasoning never shows, the
    // sentences come out for the voice, and the whole answer is stored once.
    void aStreamedAnswerGrowsInPlaceAndIsCutIntoSentences()
    {
        m_service->on("POST", u"/chat/completions"_s,
            Reply::eventStreamChunks(streamedCompletion({ u"<thi"_s, u"nk>hmm</think>Bună ziua! "_s,
                                         u"Capitala este "_s, u"București, dl. Popescu. "_s, u"Altceva?"_s }),
                20));
        ChatStore store;
        QSignalSpy grew(&store, &ChatStore::answerGrew);
        QSignalSpy sentences(&store, &ChatStore::sentenceReady);
        QSignalSpy inserted(store.conversation(), &QAbstractItemModel::rowsInserted);
        QList<ChatStore::Activity> activities;
        connect(&store, &ChatStore::activityChanged, this, [&] { activities.append(store.activity()); });

        AsyncTest::await(store.send(u"Care e capitala?"_s));

        const QString answer = u"Bună ziua! Capitala este București, dl. Popescu. Altceva?"_s;
        QVERIFY(grew.size() >= 3);
        for (const QList<QVariant> &growth : grew)
            QVERIFY2(answer.startsWith(growth.first().toString()), qPrintable(growth.first().toString()));
        QStringList spoken;
        for (const QList<QVariant> &sentence : sentences)
            spoken.append(sentence.first().toString());
        QCOMPARE(spoken.join(QLatin1Char(' ')), answer);
        QVERIFY(spoken.size() >= 2);
        QCOMPARE(inserted.size(), 2); // the question, then the answer's one row
        QCOMPARE(store.conversation()->get(2).value(u"text"_s).toString(), answer);
        using A = ChatStore::Activity;
        QCOMPARE(activities, (QList<A> { A::Thinking, A::Speaking, A::Idle }));
        QCOMPARE(texts(reloaded(store)).mid(1), (QStringList { u"Care e capitala?"_s, answer }));
    }

    // Barge-in by each of its ways, while the answer is still being written: what was shown stays,
    // nothing is reported as a failure, and a new message gets its own turn.
    void bargingInKeepsWhatWasShown_data()
    {
        QTest::addColumn<QString>("how");
        QTest::newRow("interrupt") << u"interrupt"_s;
        QTest::newRow("typing in the composer") << u"type"_s;
        QTest::newRow("sending a new message") << u"send"_s;
    }

    void bargingInKeepsWhatWasShown()
    {
        QFETCH(QString, how);
        m_service->enqueue("POST", u"/chat/completions"_s, streamThatStalls(u"Prima parte. "_s));
        answerWith({ completion(u"Alt răspuns."_s) });
        ChatStore store;
        QSignalSpy finished(&store, &ChatStore::turnFinished);
        store.setDraft(u"Spune o poveste"_s);
        store.sendDraft();
        QVERIFY(AsyncTest::waitUntil([&] { return store.activity() == ChatStore::Activity::Speaking; }));

        if (how == QLatin1String("interrupt"))
            store.interrupt();
        else if (how == QLatin1String("type"))
            store.setDraft(u"S"_s);
        else
            AsyncTest::await(store.send(u"Altceva"_s));

        QVERIFY(AsyncTest::waitUntil([&] { return !store.isThinking(); }));
        QCOMPARE(finished.first().first().toBool(), false);
        QStringList expected { ChatStore::welcomeText(), u"Spune o poveste"_s, u"Prima parte."_s };
        if (how == QLatin1String("send"))
            expected << u"Altceva"_s << u"Alt răspuns."_s;
        QCOMPARE(texts(store.messages()).replaceInStrings(QRegularExpression(u"\\s+$"_s), {}), expected);
        QCOMPARE(store.conversation()->count(), expected.size());
        QVERIFY(store.zenError().isEmpty());
    }

    // A reply asking for thousands of calls, then a call in every round: only the first eight of a
    // round run (and are echoed), and after the fourth round the model is told to answer.
    void toolCallsAreBounded()
    {
        QJsonArray thousands;
        for (int i = 0; i < 20'000; ++i)
            thousands.append(toolCall(QString::number(i), u"nu_exista"_s, {}));
        m_service->on("POST", u"/chat/completions"_s, [&thousands](const FakeHttpServer::Request &request) {
            const QJsonArray sent = sentMessages(request);
            if (sent.last()[u"role"_s].toString() == u"system"_s)
                return Reply::json(completion(u"Gata."_s));
            const bool first = !roles(sent).contains(u"tool"_s);
            return Reply::json(completion({}, first ? thousands : QJsonArray { toolCall(u"x"_s, u"nu_exista"_s, {}) }));
        });
        ChatStore store;
        AsyncTest::await(store.send(u"Folosește instrumente"_s));

        const auto requests = chatRequests();
        QCOMPARE(requests.size(), 5);
        const QJsonArray second = sentMessages(requests.at(1));
        QCOMPARE(roles(second).count(u"tool"_s), 8);
        QCOMPARE(second.at(second.size() - 9)[u"tool_calls"_s].toArray().size(), 8);
        const QJsonArray last = sentMessages(requests.last());
        QCOMPARE(content(last.last()),
            u"Returnează acum răspunsul final pentru utilizator, fără a mai apela instrumente."_s);
        QCOMPARE(content(last.at(last.size() - 2)), u"Instrument necunoscut: nu_exista"_s);
        QCOMPARE(roles(last).count(u"tool"_s), 11);
        QCOMPARE(store.messages().constLast().text, u"Gata."_s);
    }

    // Bad arguments and failing tools go back to the model as text; the turn goes on.
    void toolFailuresAreReportedToTheModel()
    {
        m_service->on("GET", u"/w/rest.php/v1/search/page"_s, Reply::text("oops", 503));
        answerWith({
            completion(QString(),
                { toolCall(u"a"_s, u"kelo_web_search"_s, {}),
                    toolCall(u"b"_s, u"kelo_fetch_url"_s, { { u"url"_s, 42 } }),
                    toolCall(u"c"_s, u"kelo_web_search"_s, { { u"query"_s, u"q"_s } }),
                    toolCall(u"d"_s, u"kelo_fetch_url"_s, { { u"url"_s, u"ftp://exemplu.ro"_s } }) }),
            completion(u"Nu am găsit nimic."_s),
        });
        ChatStore store;
        AsyncTest::await(store.send(u"x"_s));
        const QJsonArray sent = sentMessages(chatRequests().at(1));
        QStringList results;
        for (qsizetype i = sent.size() - 4; i < sent.size(); ++i)
            results.append(content(sent.at(i)));
        QCOMPARE(results.mid(0, 2), (QStringList { u"Lipsește parametrul query."_s, u"Lipsește parametrul url."_s }));
        QVERIFY2(results.at(2).startsWith(u"Căutarea web a eșuat: "_s), qPrintable(results.at(2)));
        QVERIFY2(results.at(3).startsWith(u"Citirea URL-ului a eșuat: "_s), qPrintable(results.at(3)));
        QCOMPARE(store.messages().constLast().text, u"Nu am găsit nimic."_s);
    }

    // A failed turn ends with the app's own message after whatever of the answer was shown.
    void failuresEndTheTurnWithAMessage_data()
    {
        QTest::addColumn<QString>("baseURL");
        QTest::addColumn<Reply>("reply");
        QTest::addColumn<QStringList>("expected");
        const QString failed = u"Nu am putut termina răspunsul: "_s;
        QTest::newRow("refused with a reason")
            << QString()
            << Reply::json(QJsonObject { { "error", QJsonObject { { "message", "cotă depășită" } } } }, 429)
            << QStringList { failed + u"cotă depășită"_s };
        Reply dropped = Reply::eventStreamChunks(streamedCompletion({ u"Început de răspuns."_s }).mid(0, 1));
        dropped.dropAfterChunks = true;
        QTest::newRow("stream dropped mid-answer")
            << QString() << dropped << QStringList { u"Început de răspuns."_s, failed };
        QTest::newRow("nobody listens") << u"http://127.0.0.1:1"_s << Reply() << QStringList { failed };
    }

    void failuresEndTheTurnWithAMessage()
    {
        QFETCH(QString, baseURL);
        QFETCH(Reply, reply);
        QFETCH(QStringList, expected);
        if (!baseURL.isEmpty())
            m_zenURL = std::make_unique<ScopedEnvironment>("KELO_ZEN_BASE_URL", baseURL);
        m_service->on("POST", u"/chat/completions"_s, reply);
        ChatStore store;
        QSignalSpy finished(&store, &ChatStore::turnFinished);
        AsyncTest::await(store.send(u"Salut"_s));

        const QList<ChatMessage> answers = store.messages().mid(2);
        QCOMPARE(answers.size(), expected.size());
        for (qsizetype i = 0; i < answers.size(); ++i)
            QVERIFY2(answers.at(i).text.trimmed().startsWith(expected.at(i)), qPrintable(answers.at(i).text));
        QVERIFY(answers.constLast().fromApp && answers.constLast().text.size() > 35);
        QCOMPARE(store.zenError(), u"Eroare de conexiune"_s);
        QCOMPARE(finished.first().first().toBool(), false);
        QVERIFY(!store.isThinking() && store.toolStatus().isEmpty());
        QCOMPARE(texts(reloaded(store)), texts(store.messages()));
    }

    void aStoreClosedMidTurnEndsTheTurnWithoutATrace()
    {
        Reply hang;
        hang.neverAnswer = true;
        m_service->on("POST", u"/chat/completions"_s, hang);
        {
            ChatStore store;
            store.setDraft(u"Salut"_s);
            store.sendDraft();
            QVERIFY(AsyncTest::waitUntil([&] { return chatRequests().size() == 1; }));
            QVERIFY(store.isThinking());
        }
        // The turn ended with the store (LeakSanitizer reports a turn left waiting) and stored no
        // failure of its own making.
        ChatStore reopened;
        QCOMPARE(reopened.messages().constLast().text, u"Salut"_s);
    }

    // The system prompt and the last sixteen messages; the nudge to search once; no tools offline.
    void theRequestFollowsTheConversationAndTheSettings()
    {
        writeMemoryFile(19);
        answerWith({ completion(u"unu"_s), completion(u"doi"_s) });
        ChatStore store;
        QCOMPARE(store.messages().size(), 19);
        store.setForceInternetNext(true);
        AsyncTest::await(store.send(u"al douăzecilea"_s));
        const QJsonArray sent = sentMessages(chatRequests().first());
        QCOMPARE(sent.size(), 18);
        QVERIFY(content(sent.first()).startsWith(u"Ești Kelo"_s));
        QCOMPARE(content(sent.at(1)), u"mesaj 4"_s);
        QCOMPARE(content(sent.at(16)), u"al douăzecilea"_s);
        QVERIFY(content(sent.last()).contains(u"kelo_web_search"_s));
        QVERIFY(!store.forceInternetNext());

        store.settings()->setInternetEnabled(false);
        AsyncTest::await(store.send(u"al doilea"_s));
        const auto second = chatRequests().constLast(); // after the compaction the long history asked for
        QVERIFY(!second.json().contains(u"tools"_s));
        QCOMPARE(content(sentMessages(second).last()), u"al doilea"_s);
    }

    void memoryIsCompactedAfterFourUserMessages()
    {
        m_service->on("POST", u"/chat/completions"_s, [](const FakeHttpServer::Request &request) {
            return Reply::json(completion(isCompaction(request) ? u"  • Îi place sculptura.  "_s : u"Am notat."_s));
        });
        ChatStore store;
        for (int i = 1; i <= 3; ++i)
            AsyncTest::await(store.send(u"mesajul %1"_s.arg(i)));
        QCOMPARE(chatRequests().size(), 3);

        AsyncTest::await(store.send(u"mesajul 4"_s));
        const auto requests = chatRequests();
        QCOMPARE(requests.size(), 5);
        QVERIFY(isCompaction(requests.last()));
        QVERIFY(content(sentMessages(requests.last()).last()).contains(u"Utilizator: mesajul 4"_s));
        QCOMPARE(store.memory()->summary(), u"• Îi place sculptura."_s);
        QCOMPARE(store.memory()->summarizedUserCount(), 4);

        // The summary now reaches the system prompt of the next turn.
        AsyncTest::await(store.send(u"mesajul 5"_s));
        QVERIFY(content(sentMessages(chatRequests().constLast()).first())
                    .contains(u"Memorie de conversație:\n• Îi place sculptura."_s));
    }

    void newConversationAndMemoryReset()
    {
        answerWith({ completion(u"salut"_s) });
        ChatStore store;
        AsyncTest::await(store.send(u"salut"_s));
        store.clearConversation();
        QCOMPARE(texts(store.messages()), QStringList { u"Conversație nouă. Memoria utilă rămâne disponibilă."_s });
        QCOMPARE(store.conversation()->count(), 1);
        QVERIFY(store.messages().first().fromApp);

        store.clearMemory();
        QCOMPARE(store.messages().first().text, u"Memoria a fost resetată. Putem începe de la zero."_s);
        store.memory()->waitForWrites();
        QVERIFY(!QFile::exists(store.memory()->filePath()));
        ChatStore restarted;
        QCOMPARE(restarted.messages().first().text, ChatStore::welcomeText());
    }

    void derivedValuesFollowTheSettings()
    {
        m_key = std::make_unique<ScopedEnvironment>("KELO_ZEN_API_KEY", QString());
        ChatStore store;
        store.settings()->setZenAPIKey(QString());
        QVERIFY(!store.hasZenKey());
        QCOMPARE(store.activityText(), u"Adaugă cheia OpenCode Zen în Setări"_s);
        QCOMPARE(store.selectedZenModel(), ZenModel::bigPickle());

        QSignalSpy keyChanged(&store, &ChatStore::hasZenKeyChanged);
        store.settings()->setZenAPIKey(u"k"_s);
        QCOMPARE(keyChanged.size(), 1);
        QCOMPARE(store.activityText(), u"Ține apăsat pentru a vorbi"_s);

        m_service->on("GET", u"/models"_s,
            Reply::json(QJsonObject {
                { u"data"_s, QJsonArray { QJsonObject { { u"id"_s, u"m-1"_s }, { u"name"_s, u"Model Unu"_s } } } } }));
        const QString result = AsyncTest::await(store.testZenConnection());
        QVERIFY2(result.startsWith(u"Conectat"_s), qPrintable(result));
        store.settings()->setZenModelID(u"m-1"_s);
        QCOMPARE(store.selectedZenModel().name, u"Model Unu"_s);
        store.settings()->setZenAPIKey(QString());
    }
};

QTEST_GUILESS_MAIN(ChatStoreTest)
#include "ChatStoreTest.moc"
