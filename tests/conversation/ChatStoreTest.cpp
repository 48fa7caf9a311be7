#include "conversation/ChatStore.h"

#include "AsyncTest.h"
#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "TemporaryHome.h"
#include "conversation/ConversationMemoryStore.h"
#include "conversation/MCPToolCache.h"
#include "settings/AppSettings.h"

#include <QFile>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

using Reply = FakeHttpServer::Reply;
using ChatCompletionReplies::completion;
using ChatCompletionReplies::streamedCompletion;
using ChatCompletionReplies::toolCall;

Q_DECLARE_METATYPE(FakeHttpServer::Reply)

namespace {

QJsonArray sentMessages(const FakeHttpServer::Request &request)
{
    return request.json().value(QStringLiteral("messages")).toArray();
}

QStringList roles(const QJsonArray &messages)
{
    QStringList list;
    for (const QJsonValue &message : messages)
        list.append(message[QStringLiteral("role")].toString());
    return list;
}

QString content(const QJsonValue &message)
{
    return message[QStringLiteral("content")].toString();
}

bool isCompaction(const FakeHttpServer::Request &request)
{
    return content(sentMessages(request).first()).startsWith(QStringLiteral("Ești un compactor"));
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

    QList<FakeHttpServer::Request> chatRequests() const
    {
        return m_service->requests(QStringLiteral("/chat/completions"));
    }

    void answerWith(const QList<QJsonObject> &replies)
    {
        for (const QJsonObject &reply : replies)
            m_service->enqueue("POST", QStringLiteral("/chat/completions"), Reply::json(reply));
    }

    // The messages a restarted store would load.
    QList<ChatMessage> reloaded(ChatStore &store) const
    {
        store.memory()->waitForWrites();
        return ConversationMemoryStore(m_home->dataHome() + QStringLiteral("/Kelo"), nullptr).messages();
    }

    void writeMemoryFile(int messageCount)
    {
        QJsonArray messages;
        for (int i = 0; i < messageCount; ++i) {
            const auto role = i % 2 == 0 ? ChatMessage::Role::user : ChatMessage::Role::assistant;
            messages.append(ChatMessage::make(role, QStringLiteral("mesaj %1").arg(i)).toJson());
        }
        const QJsonObject snapshot { { QStringLiteral("summary"), QString() }, { QStringLiteral("messages"), messages },
            { QStringLiteral("summarizedUserCount"), 0 }, { QStringLiteral("updatedAt"), 0.0 } };
        QDir().mkpath(m_home->dataHome() + QStringLiteral("/Kelo"));
        QFile file(m_home->dataHome() + QStringLiteral("/Kelo/conversation-memory.json"));
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
        m_key = std::make_unique<ScopedEnvironment>("KELO_ZEN_API_KEY", QStringLiteral("test-key"));
        m_allowPrivate = std::make_unique<ScopedEnvironment>("KELO_FETCH_ALLOW_PRIVATE", QStringLiteral("1"));
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
        store.setDraft(QStringLiteral("  \n\t "));
        AsyncTest::await(store.send());
        QCOMPARE(store.messages().size(), 1);

        store.settings()->setZenAPIKey(QStringLiteral("   "));
        QSignalSpy finished(&store, &ChatStore::turnFinished);
        AsyncTest::await(store.send(QStringLiteral("Salut")));
        QCOMPARE(store.messages().constLast().text, QStringLiteral("Adaugă cheia OpenCode Zen în Setări"));
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
        const QString pageURL = m_service->baseUrl() + QStringLiteral("/pagina");
        m_service->on("GET", QStringLiteral("/w/rest.php/v1/search/page"),
            Reply::json(QJsonObject { { QStringLiteral("pages"),
                QJsonArray { QJsonObject { { QStringLiteral("title"), QStringLiteral("Constantin Brâncuși") },
                    { QStringLiteral("description"), QStringLiteral("sculptor român") } } } } }));
        m_service->on("GET", QStringLiteral("/pagina"),
            Reply::text("<html><script>x()</script><p>Coloana <b>infinitului</b></p></html>", 200, "text/html"));
        answerWith({
            completion(QString(),
                { toolCall(QStringLiteral("c1"), QStringLiteral("kelo_web_search"),
                    { { QStringLiteral("query"), QStringLiteral("Brâncuși") } }) }),
            completion(QString(),
                { toolCall(
                    QStringLiteral("c2"), QStringLiteral("kelo_fetch_url"), { { QStringLiteral("url"), pageURL } }) }),
            completion(QStringLiteral("<think>caut</think>\n Brâncuși a creat Coloana infinitului. ")),
        });
        ChatStore store;
        QStringList statuses;
        QList<ChatStore::Activity> activities;
        connect(&store, &ChatStore::toolStatusChanged, this, [&] {
            if (!store.toolStatus().isEmpty())
                statuses.append(store.toolStatus());
        });
        connect(&store, &ChatStore::activityChanged, this, [&] { activities.append(store.activity()); });

        AsyncTest::await(store.send(QStringLiteral("Ce a sculptat Brâncuși?")));

        QCOMPARE(store.messages().constLast().text, QStringLiteral("Brâncuși a creat Coloana infinitului."));
        QCOMPARE(statuses, (QStringList { QStringLiteral("Caut pe internet…"), QStringLiteral("Citesc pagina…") }));
        using A = ChatStore::Activity;
        QCOMPARE(activities, (QList<A> { A::Thinking, A::Searching, A::UsingTool, A::Speaking, A::Idle }));
        const auto requests = chatRequests();
        QCOMPARE(requests.size(), 3);

        const QJsonObject first = requests.at(0).json();
        QCOMPARE(first[QStringLiteral("tools")].toArray().size(), 2);
        QCOMPARE(first[QStringLiteral("tools")][0][QStringLiteral("function")][QStringLiteral("name")].toString(),
            QStringLiteral("kelo_web_search"));
        QCOMPARE(roles(sentMessages(requests.at(0))), (QStringList { "system", "assistant", "user" }));
        QCOMPARE(requests.at(0).header("Authorization"), QByteArray("Bearer test-key"));

        const QJsonArray second = sentMessages(requests.at(1));
        QCOMPARE(roles(second).mid(3), (QStringList { "assistant", "tool" }));
        QCOMPARE(second.at(3)[QStringLiteral("tool_calls")][0][QStringLiteral("id")].toString(), QStringLiteral("c1"));
        QCOMPARE(second.at(4)[QStringLiteral("tool_call_id")].toString(), QStringLiteral("c1"));
        QCOMPARE(content(second.at(4)), QStringLiteral("• Constantin Brâncuși: sculptor român"));
        const QString page = content(sentMessages(requests.at(2)).at(6));
        QVERIFY(page.contains(QStringLiteral("Coloana infinitului")) && !page.contains(QStringLiteral("x()")));

        QCOMPARE(texts(reloaded(store)).mid(1),
            (QStringList {
                QStringLiteral("Ce a sculptat Brâncuși?"), QStringLiteral("Brâncuși a creat Coloana infinitului.") }));
    }

    // The answer grows in one row of the conversation as pieces arrive, reasoning never shows, the
    // sentences come out for the voice, and the whole answer is stored once.
    void aStreamedAnswerGrowsInPlaceAndIsCutIntoSentences()
    {
        m_service->on("POST", QStringLiteral("/chat/completions"),
            Reply::eventStreamChunks(streamedCompletion({ QStringLiteral("<thi"),
                                         QStringLiteral("nk>hmm</think>Bună ziua! "), QStringLiteral("Capitala este "),
                                         QStringLiteral("București, dl. Popescu. "), QStringLiteral("Altceva?") }),
                20));
        ChatStore store;
        QSignalSpy grew(&store, &ChatStore::answerGrew);
        QSignalSpy sentences(&store, &ChatStore::sentenceReady);
        QSignalSpy inserted(store.conversation(), &QAbstractItemModel::rowsInserted);
        QList<ChatStore::Activity> activities;
        connect(&store, &ChatStore::activityChanged, this, [&] { activities.append(store.activity()); });

        AsyncTest::await(store.send(QStringLiteral("Care e capitala?")));

        const QString answer = QStringLiteral("Bună ziua! Capitala este București, dl. Popescu. Altceva?");
        QVERIFY(grew.size() >= 3);
        for (const QList<QVariant> &growth : grew)
            QVERIFY2(answer.startsWith(growth.first().toString()), qPrintable(growth.first().toString()));
        QStringList spoken;
        for (const QList<QVariant> &sentence : sentences)
            spoken.append(sentence.first().toString());
        QCOMPARE(spoken.join(QLatin1Char(' ')), answer);
        QVERIFY(spoken.size() >= 2);
        QCOMPARE(inserted.size(), 2); // the question, then the answer's one row
        QCOMPARE(store.conversation()->get(2).value(QStringLiteral("text")).toString(), answer);
        using A = ChatStore::Activity;
        QCOMPARE(activities, (QList<A> { A::Thinking, A::Speaking, A::Idle }));
        QCOMPARE(texts(reloaded(store)).mid(1), (QStringList { QStringLiteral("Care e capitala?"), answer }));
    }

    // Barge-in by each of its ways, while the answer is still being written: what was shown stays,
    // nothing is reported as a failure, and a new message gets its own turn.
    void bargingInKeepsWhatWasShown_data()
    {
        QTest::addColumn<QString>("how");
        QTest::newRow("interrupt") << QStringLiteral("interrupt");
        QTest::newRow("typing in the composer") << QStringLiteral("type");
        QTest::newRow("sending a new message") << QStringLiteral("send");
    }

    void bargingInKeepsWhatWasShown()
    {
        QFETCH(QString, how);
        m_service->enqueue(
            "POST", QStringLiteral("/chat/completions"), streamThatStalls(QStringLiteral("Prima parte. ")));
        answerWith({ completion(QStringLiteral("Alt răspuns.")) });
        ChatStore store;
        QSignalSpy finished(&store, &ChatStore::turnFinished);
        store.setDraft(QStringLiteral("Spune o poveste"));
        store.sendDraft();
        QVERIFY(AsyncTest::waitUntil([&] { return store.activity() == ChatStore::Activity::Speaking; }));

        if (how == QLatin1String("interrupt"))
            store.interrupt();
        else if (how == QLatin1String("type"))
            store.setDraft(QStringLiteral("S"));
        else
            AsyncTest::await(store.send(QStringLiteral("Altceva")));

        QVERIFY(AsyncTest::waitUntil([&] { return !store.isThinking(); }));
        QCOMPARE(finished.first().first().toBool(), false);
        QStringList expected { ChatStore::welcomeText(), QStringLiteral("Spune o poveste"),
            QStringLiteral("Prima parte.") };
        if (how == QLatin1String("send"))
            expected << QStringLiteral("Altceva") << QStringLiteral("Alt răspuns.");
        QCOMPARE(texts(store.messages()).replaceInStrings(QRegularExpression(QStringLiteral("\\s+$")), {}), expected);
        QCOMPARE(store.conversation()->count(), expected.size());
        QVERIFY(store.zenError().isEmpty());
    }

    void requestCarriesSystemPromptAndLastSixteenMessages()
    {
        writeMemoryFile(19);
        answerWith({ completion(QStringLiteral("bine")) });
        ChatStore store;
        QCOMPARE(store.messages().size(), 19);

        AsyncTest::await(store.send(QStringLiteral("al douăzecilea")));
        const QJsonArray sent = sentMessages(chatRequests().first());
        QCOMPARE(sent.size(), 17);
        QCOMPARE(sent.first()[QStringLiteral("role")].toString(), QStringLiteral("system"));
        QVERIFY(content(sent.first()).startsWith(QStringLiteral("Ești Kelo")));
        QCOMPARE(content(sent.at(1)), QStringLiteral("mesaj 4"));
        QCOMPARE(content(sent.last()), QStringLiteral("al douăzecilea"));
    }

    void endlessToolCallsStopAfterTheFourthRound()
    {
        m_service->on("POST", QStringLiteral("/chat/completions"), [](const FakeHttpServer::Request &request) {
            if (sentMessages(request).last()[QStringLiteral("role")].toString() == QStringLiteral("system"))
                return Reply::json(completion(QStringLiteral("Gata, fără instrumente.")));
            return Reply::json(
                completion(QString(), { toolCall(QStringLiteral("x"), QStringLiteral("nu_exista"), {}) }));
        });
        ChatStore store;

        AsyncTest::await(store.send(QStringLiteral("Folosește instrumente")));

        const auto requests = chatRequests();
        QCOMPARE(requests.size(), 5);
        const QJsonArray last = sentMessages(requests.last());
        QCOMPARE(content(last.last()),
            QStringLiteral("Returnează acum răspunsul final pentru utilizator, fără a mai apela instrumente."));
        QCOMPARE(content(last.at(last.size() - 2)), QStringLiteral("Instrument necunoscut: nu_exista"));
        QCOMPARE(roles(last).count(QStringLiteral("tool")), 4);
        QCOMPARE(store.messages().constLast().text, QStringLiteral("Gata, fără instrumente."));
    }

    void aReplyAskingForThousandsOfToolsRunsOnlyTheFirstFew()
    {
        QJsonArray calls;
        for (int i = 0; i < 20'000; ++i)
            calls.append(toolCall(QString::number(i), QStringLiteral("nu_exista"), {}));
        answerWith({ completion(QString(), calls), completion(QStringLiteral("Am terminat.")) });
        ChatStore store;

        AsyncTest::await(store.send(QStringLiteral("Folosește instrumente")));

        const QJsonArray second = sentMessages(chatRequests().last());
        QCOMPARE(roles(second).count(QStringLiteral("tool")), 8);
        QCOMPARE(second.at(second.size() - 9)[QStringLiteral("tool_calls")].toArray().size(), 8);
        QCOMPARE(store.messages().constLast().text, QStringLiteral("Am terminat."));
    }

    // Bad arguments and failing tools go back to the model as text; the turn goes on.
    void toolFailuresAreReportedToTheModel()
    {
        m_service->on("GET", QStringLiteral("/w/rest.php/v1/search/page"), Reply::text("oops", 503));
        answerWith({
            completion(QString(),
                { toolCall(QStringLiteral("a"), QStringLiteral("kelo_web_search"), {}),
                    toolCall(QStringLiteral("b"), QStringLiteral("kelo_fetch_url"), { { QStringLiteral("url"), 42 } }),
                    toolCall(QStringLiteral("c"), QStringLiteral("kelo_web_search"),
                        { { QStringLiteral("query"), QStringLiteral("q") } }),
                    toolCall(QStringLiteral("d"), QStringLiteral("kelo_fetch_url"),
                        { { QStringLiteral("url"), QStringLiteral("ftp://exemplu.ro") } }) }),
            completion(QStringLiteral("Nu am găsit nimic.")),
        });
        ChatStore store;
        AsyncTest::await(store.send(QStringLiteral("x")));
        const QJsonArray sent = sentMessages(chatRequests().at(1));
        QStringList results;
        for (qsizetype i = sent.size() - 4; i < sent.size(); ++i)
            results.append(content(sent.at(i)));
        QCOMPARE(results.mid(0, 2),
            (QStringList { QStringLiteral("Lipsește parametrul query."), QStringLiteral("Lipsește parametrul url.") }));
        QVERIFY2(results.at(2).startsWith(QStringLiteral("Căutarea web a eșuat: ")), qPrintable(results.at(2)));
        QVERIFY2(results.at(3).startsWith(QStringLiteral("Citirea URL-ului a eșuat: ")), qPrintable(results.at(3)));
        QCOMPARE(store.messages().constLast().text, QStringLiteral("Nu am găsit nimic."));
    }

    // A server switched off while its tools are being discovered: that discovery is not kept.
    void aServerSwitchedOffMidDiscoveryIsNotCached()
    {
        FakeHttpServer mcp;
        mcp.on("POST", QStringLiteral("/mcp"), [](const FakeHttpServer::Request &request) {
            const QJsonObject call = request.json();
            const QString method = call[QStringLiteral("method")].toString();
            if (method.startsWith(QStringLiteral("notifications/")))
                return Reply::text({}, 202);
            const QJsonObject tool { { QStringLiteral("name"), QStringLiteral("echo") } };
            Reply reply = Reply::json(QJsonObject { { QStringLiteral("jsonrpc"), QStringLiteral("2.0") },
                { QStringLiteral("id"), call[QStringLiteral("id")] },
                { QStringLiteral("result"), QJsonObject { { QStringLiteral("tools"), QJsonArray { tool } } } } });
            reply.delayMs = method == QStringLiteral("tools/list") ? 500 : 0;
            return reply;
        });
        ChatStore store;
        MCPToolCache *tools = store.mcpTools();
        MCPServerConfig server { QUuid::createUuid(), QStringLiteral("Lent"), mcp.baseUrl() + QStringLiteral("/mcp") };
        store.settings()->setMcpServers({ server });
        QCOMPARE(AsyncTest::await(tools->currentBindings()).size(), 1);
        store.invalidateMCPBindings();

        auto discovery = tools->currentBindings();
        QTRY_COMPARE(
            mcp.requests().constLast().json()[QStringLiteral("method")].toString(), QStringLiteral("tools/list"));
        server.enabled = false;
        store.settings()->setMcpServers({ server });
        QCOMPARE(AsyncTest::await(std::move(discovery)).size(), 0);
        const qsizetype asked = mcp.requests().size();
        QCOMPARE(AsyncTest::await(tools->currentBindings()).size(), 0);
        QCOMPARE(mcp.requests().size(), asked);
    }

    // A failed turn ends with the app's own message after whatever of the answer was shown.
    void failuresEndTheTurnWithAMessage_data()
    {
        QTest::addColumn<QString>("baseURL");
        QTest::addColumn<Reply>("reply");
        QTest::addColumn<QStringList>("expected");
        const QString failed = QStringLiteral("Nu am putut termina răspunsul: ");
        QTest::newRow("refused with a reason")
            << QString()
            << Reply::json(QJsonObject { { "error", QJsonObject { { "message", "cotă depășită" } } } }, 429)
            << QStringList { failed + QStringLiteral("cotă depășită") };
        Reply dropped
            = Reply::eventStreamChunks(streamedCompletion({ QStringLiteral("Început de răspuns.") }).mid(0, 1));
        dropped.dropAfterChunks = true;
        QTest::newRow("stream dropped mid-answer")
            << QString() << dropped << QStringList { QStringLiteral("Început de răspuns."), failed };
        QTest::newRow("nobody listens") << QStringLiteral("http://127.0.0.1:1") << Reply() << QStringList { failed };
    }

    void failuresEndTheTurnWithAMessage()
    {
        QFETCH(QString, baseURL);
        QFETCH(Reply, reply);
        QFETCH(QStringList, expected);
        if (!baseURL.isEmpty())
            m_zenURL = std::make_unique<ScopedEnvironment>("KELO_ZEN_BASE_URL", baseURL);
        m_service->on("POST", QStringLiteral("/chat/completions"), reply);
        ChatStore store;
        QSignalSpy finished(&store, &ChatStore::turnFinished);
        AsyncTest::await(store.send(QStringLiteral("Salut")));

        const QList<ChatMessage> answers = store.messages().mid(2);
        QCOMPARE(answers.size(), expected.size());
        for (qsizetype i = 0; i < answers.size(); ++i)
            QVERIFY2(answers.at(i).text.trimmed().startsWith(expected.at(i)), qPrintable(answers.at(i).text));
        QVERIFY(answers.constLast().fromApp && answers.constLast().text.size() > 35);
        QCOMPARE(store.zenError(), QStringLiteral("Eroare de conexiune"));
        QCOMPARE(finished.first().first().toBool(), false);
        QVERIFY(!store.isThinking() && store.toolStatus().isEmpty());
        QCOMPARE(texts(reloaded(store)), texts(store.messages()));
    }

    void aStoreClosedMidTurnEndsTheTurnWithoutATrace()
    {
        Reply hang;
        hang.neverAnswer = true;
        m_service->on("POST", QStringLiteral("/chat/completions"), hang);
        {
            ChatStore store;
            store.setDraft(QStringLiteral("Salut"));
            store.sendDraft();
            QVERIFY(AsyncTest::waitUntil([&] { return chatRequests().size() == 1; }));
            QVERIFY(store.isThinking());
        }
        // The turn ended with the store (LeakSanitizer reports a turn left waiting) and stored no
        // failure of its own making.
        ChatStore reopened;
        QCOMPARE(reopened.messages().constLast().text, QStringLiteral("Salut"));
    }

    void settingsShapeTheToolsAndTheNudge()
    {
        answerWith({ completion(QStringLiteral("unu")), completion(QStringLiteral("doi")) });
        ChatStore store;
        store.setForceInternetNext(true);
        AsyncTest::await(store.send(QStringLiteral("primul")));
        QVERIFY(content(sentMessages(chatRequests().at(0)).last()).contains(QStringLiteral("kelo_web_search")));
        QVERIFY(!store.forceInternetNext());

        store.settings()->setInternetEnabled(false);
        AsyncTest::await(store.send(QStringLiteral("al doilea")));
        const auto second = chatRequests().at(1);
        QVERIFY(!second.json().contains(QStringLiteral("tools")));
        QCOMPARE(content(sentMessages(second).last()), QStringLiteral("al doilea"));
    }

    void memoryIsCompactedAfterFourUserMessages()
    {
        m_service->on("POST", QStringLiteral("/chat/completions"), [](const FakeHttpServer::Request &request) {
            return Reply::json(completion(
                isCompaction(request) ? QStringLiteral("  • Îi place sculptura.  ") : QStringLiteral("Am notat.")));
        });
        ChatStore store;
        for (int i = 1; i <= 3; ++i)
            AsyncTest::await(store.send(QStringLiteral("mesajul %1").arg(i)));
        QCOMPARE(chatRequests().size(), 3);

        AsyncTest::await(store.send(QStringLiteral("mesajul 4")));
        const auto requests = chatRequests();
        QCOMPARE(requests.size(), 5);
        QVERIFY(isCompaction(requests.last()));
        QVERIFY(content(sentMessages(requests.last()).last()).contains(QStringLiteral("Utilizator: mesajul 4")));
        QCOMPARE(store.memory()->summary(), QStringLiteral("• Îi place sculptura."));
        QCOMPARE(store.memory()->summarizedUserCount(), 4);

        // The summary now reaches the system prompt of the next turn.
        AsyncTest::await(store.send(QStringLiteral("mesajul 5")));
        QVERIFY(content(sentMessages(chatRequests().constLast()).first())
                    .contains(QStringLiteral("Memorie de conversație:\n• Îi place sculptura.")));
    }

    void newConversationAndMemoryReset()
    {
        answerWith({ completion(QStringLiteral("salut")) });
        ChatStore store;
        AsyncTest::await(store.send(QStringLiteral("salut")));
        store.clearConversation();
        QCOMPARE(texts(store.messages()),
            QStringList { QStringLiteral("Conversație nouă. Memoria utilă rămâne disponibilă.") });
        QCOMPARE(store.conversation()->count(), 1);
        QVERIFY(store.messages().first().fromApp);

        store.clearMemory();
        QCOMPARE(store.messages().first().text, QStringLiteral("Memoria a fost resetată. Putem începe de la zero."));
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
        QCOMPARE(store.activityText(), QStringLiteral("Adaugă cheia OpenCode Zen în Setări"));
        QCOMPARE(store.selectedZenModel(), ZenModel::bigPickle());

        QSignalSpy keyChanged(&store, &ChatStore::hasZenKeyChanged);
        store.settings()->setZenAPIKey(QStringLiteral("k"));
        QCOMPARE(keyChanged.size(), 1);
        QCOMPARE(store.activityText(), QStringLiteral("Ține apăsat pentru a vorbi"));

        m_service->on("GET", QStringLiteral("/models"),
            Reply::json(QJsonObject { { QStringLiteral("data"),
                QJsonArray { QJsonObject { { QStringLiteral("id"), QStringLiteral("m-1") },
                    { QStringLiteral("name"), QStringLiteral("Model Unu") } } } } }));
        const QString result = AsyncTest::await(store.testZenConnection());
        QVERIFY2(result.startsWith(QStringLiteral("Conectat")), qPrintable(result));
        store.settings()->setZenModelID(QStringLiteral("m-1"));
        QCOMPARE(store.selectedZenModel().name, QStringLiteral("Model Unu"));
        store.settings()->setZenAPIKey(QString());
    }
};

QTEST_GUILESS_MAIN(ChatStoreTest)
#include "ChatStoreTest.moc"
