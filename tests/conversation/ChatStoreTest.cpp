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

using Reply = FakeHttpServer::Reply;
using ChatCompletionReplies::completion;
using ChatCompletionReplies::toolCall;

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

bool isCompaction(const FakeHttpServer::Request &request)
{
    return sentMessages(request).first()[QStringLiteral("content")].toString().startsWith(
        QStringLiteral("Ești un compactor"));
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

    void freshStoreGreetsAndBlankTextSendsNothing()
    {
        ChatStore store;
        QCOMPARE(store.messages().size(), 1);
        QCOMPARE(store.messages().first().text, ChatStore::welcomeText());

        store.setDraft(QStringLiteral("  \n\t "));
        AsyncTest::await(store.send());
        QCOMPARE(store.messages().size(), 1);
        QCOMPARE(m_service->requests().size(), 0);
    }

    void missingKeyNeverReachesTheNetwork()
    {
        m_key = std::make_unique<ScopedEnvironment>("KELO_ZEN_API_KEY", QString());
        ChatStore store;
        store.settings()->setZenAPIKey(QStringLiteral("   "));
        QSignalSpy finished(&store, &ChatStore::turnFinished);

        AsyncTest::await(store.send(QStringLiteral("Salut")));
        QCOMPARE(store.messages().constLast().text, QStringLiteral("Adaugă cheia OpenCode Zen în Setări"));
        QCOMPARE(m_service->requests().size(), 0);
        QCOMPARE(finished.size(), 1);
        QCOMPARE(finished.first().first().toBool(), false);
        QVERIFY(!store.isThinking());
    }

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
        connect(&store, &ChatStore::toolStatusChanged, this, [&] {
            if (!store.toolStatus().isEmpty())
                statuses.append(store.toolStatus());
        });

        AsyncTest::await(store.send(QStringLiteral("Ce a sculptat Brâncuși?")));

        QCOMPARE(store.messages().constLast().text, QStringLiteral("Brâncuși a creat Coloana infinitului."));
        QCOMPARE(statuses, (QStringList { QStringLiteral("Caut pe internet…"), QStringLiteral("Citesc pagina…") }));
        QVERIFY(store.toolStatus().isEmpty());
        const auto requests = chatRequests();
        QCOMPARE(requests.size(), 3);

        const QJsonObject first = requests.at(0).json();
        QCOMPARE(first[QStringLiteral("tools")].toArray().size(), 2);
        QCOMPARE(first[QStringLiteral("tools")][0][QStringLiteral("function")][QStringLiteral("name")].toString(),
            QStringLiteral("kelo_web_search"));
        QCOMPARE(roles(sentMessages(requests.at(0))), (QStringList { "system", "assistant", "user" }));
        QCOMPARE(requests.at(0).header("Authorization"), QByteArray("Bearer test-key"));

        // Each later request echoes the model's tool call and carries the tool's result.
        const QJsonArray second = sentMessages(requests.at(1));
        QCOMPARE(roles(second).mid(3), (QStringList { "assistant", "tool" }));
        QCOMPARE(second.at(3)[QStringLiteral("tool_calls")][0][QStringLiteral("id")].toString(), QStringLiteral("c1"));
        QCOMPARE(second.at(4)[QStringLiteral("tool_call_id")].toString(), QStringLiteral("c1"));
        QCOMPARE(second.at(4)[QStringLiteral("content")].toString(),
            QStringLiteral("• Constantin Brâncuși: sculptor român"));
        const QJsonArray third = sentMessages(requests.at(2));
        QVERIFY(third.at(6)[QStringLiteral("content")].toString().contains(QStringLiteral("Coloana infinitului")));
        QVERIFY(!third.at(6)[QStringLiteral("content")].toString().contains(QStringLiteral("x()")));

        // The turn is on disk: the greeting, the question and the answer.
        store.memory()->waitForWrites();
        ConversationMemoryStore reloaded(m_home->dataHome() + QStringLiteral("/Kelo"), nullptr);
        QCOMPARE(reloaded.messages().size(), 3);
        QCOMPARE(reloaded.messages().constLast().text, QStringLiteral("Brâncuși a creat Coloana infinitului."));
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
        QVERIFY(sent.first()[QStringLiteral("content")].toString().startsWith(QStringLiteral("Ești Kelo")));
        QCOMPARE(sent.at(1)[QStringLiteral("content")].toString(), QStringLiteral("mesaj 4"));
        QCOMPARE(sent.last()[QStringLiteral("content")].toString(), QStringLiteral("al douăzecilea"));
    }

    void endlessToolCallsStopAfterTheFourthRound()
    {
        m_service->on("POST", QStringLiteral("/chat/completions"), [](const FakeHttpServer::Request &request) {
            const QJsonArray messages = request.json()[QStringLiteral("messages")].toArray();
            if (messages.last()[QStringLiteral("role")].toString() == QStringLiteral("system"))
                return Reply::json(completion(QStringLiteral("Gata, fără instrumente.")));
            return Reply::json(
                completion(QString(), { toolCall(QStringLiteral("x"), QStringLiteral("nu_exista"), {}) }));
        });
        ChatStore store;

        AsyncTest::await(store.send(QStringLiteral("Folosește instrumente")));

        const auto requests = chatRequests();
        QCOMPARE(requests.size(), 5);
        const QJsonArray last = sentMessages(requests.last());
        QCOMPARE(last.last()[QStringLiteral("content")].toString(),
            QStringLiteral("Returnează acum răspunsul final pentru utilizator, fără a mai apela instrumente."));
        // The unknown tool's result went back to the model each round.
        QCOMPARE(last.at(last.size() - 2)[QStringLiteral("content")].toString(),
            QStringLiteral("Instrument necunoscut: nu_exista"));
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
        MCPServerConfig server { QUuid::createUuid(), QStringLiteral("Lent"), mcp.baseUrl() + QStringLiteral("/mcp") };
        store.settings()->setMcpServers({ server });
        QCOMPARE(AsyncTest::await(store.currentMCPBindings()).size(), 1);
        store.invalidateMCPBindings();

        auto discovery = store.currentMCPBindings();
        QTRY_COMPARE(
            mcp.requests().constLast().json()[QStringLiteral("method")].toString(), QStringLiteral("tools/list"));
        server.enabled = false;
        store.settings()->setMcpServers({ server });
        QCOMPARE(AsyncTest::await(std::move(discovery)).size(), 0);
        const qsizetype asked = mcp.requests().size();
        QCOMPARE(AsyncTest::await(store.currentMCPBindings()).size(), 0);
        QCOMPARE(mcp.requests().size(), asked);
    }

    void missingToolArgumentsAreReportedToTheModel()
    {
        answerWith({
            completion(QString(),
                { toolCall(QStringLiteral("a"), QStringLiteral("kelo_web_search"), {}),
                    toolCall(
                        QStringLiteral("b"), QStringLiteral("kelo_fetch_url"), { { QStringLiteral("url"), 42 } }) }),
            completion(QStringLiteral("ok")),
        });
        ChatStore store;
        AsyncTest::await(store.send(QStringLiteral("x")));
        const QJsonArray sent = sentMessages(chatRequests().at(1));
        QCOMPARE(sent.at(sent.size() - 2)[QStringLiteral("content")].toString(),
            QStringLiteral("Lipsește parametrul query."));
        QCOMPARE(sent.last()[QStringLiteral("content")].toString(), QStringLiteral("Lipsește parametrul url."));
        QCOMPARE(m_service->requests().size(), 2);
    }

    void failedToolsDoNotEndTheTurn()
    {
        m_service->on("GET", QStringLiteral("/w/rest.php/v1/search/page"), Reply::text("oops", 503));
        answerWith({
            completion(QString(),
                { toolCall(QStringLiteral("a"), QStringLiteral("kelo_web_search"),
                      { { QStringLiteral("query"), QStringLiteral("q") } }),
                    toolCall(QStringLiteral("b"), QStringLiteral("kelo_fetch_url"),
                        { { QStringLiteral("url"), QStringLiteral("ftp://exemplu.ro") } }) }),
            completion(QStringLiteral("Nu am găsit nimic.")),
        });
        ChatStore store;
        AsyncTest::await(store.send(QStringLiteral("x")));
        const QJsonArray sent = sentMessages(chatRequests().at(1));
        QVERIFY(sent.at(sent.size() - 2)[QStringLiteral("content")].toString().startsWith(
            QStringLiteral("Căutarea web a eșuat: ")));
        QVERIFY(
            sent.last()[QStringLiteral("content")].toString().startsWith(QStringLiteral("Citirea URL-ului a eșuat: ")));
        QCOMPARE(store.messages().constLast().text, QStringLiteral("Nu am găsit nimic."));
    }

    void serviceFailureBecomesTheAssistantMessage()
    {
        m_service->on("POST", QStringLiteral("/chat/completions"),
            Reply::json(QJsonObject { { QStringLiteral("error"),
                            QJsonObject { { QStringLiteral("message"), QStringLiteral("cotă depășită") } } } },
                429));
        ChatStore store;
        QSignalSpy finished(&store, &ChatStore::turnFinished);
        AsyncTest::await(store.send(QStringLiteral("Salut")));

        QCOMPARE(store.messages().constLast().text, QStringLiteral("Nu am putut termina răspunsul: cotă depășită"));
        QCOMPARE(store.zenError(), QStringLiteral("Eroare de conexiune"));
        QCOMPARE(finished.first().first().toBool(), false);
        QVERIFY(!store.isThinking());
        QVERIFY(store.toolStatus().isEmpty());
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

    void unreachableServiceFailsCleanly()
    {
        m_zenURL = std::make_unique<ScopedEnvironment>("KELO_ZEN_BASE_URL", QStringLiteral("http://127.0.0.1:1"));
        ChatStore store;
        AsyncTest::await(store.send(QStringLiteral("Salut")));
        QVERIFY(store.messages().constLast().text.startsWith(QStringLiteral("Nu am putut termina răspunsul: ")));
        QVERIFY(store.messages().constLast().text.size() > 35);
    }

    void settingsShapeTheToolsAndTheNudge()
    {
        answerWith({ completion(QStringLiteral("unu")), completion(QStringLiteral("doi")) });
        ChatStore store;
        store.setForceInternetNext(true);
        AsyncTest::await(store.send(QStringLiteral("primul")));
        QVERIFY(sentMessages(chatRequests().at(0))
                    .last()[QStringLiteral("content")]
                    .toString()
                    .contains(QStringLiteral("kelo_web_search")));
        QVERIFY(!store.forceInternetNext());

        store.settings()->setInternetEnabled(false);
        AsyncTest::await(store.send(QStringLiteral("al doilea")));
        const auto second = chatRequests().at(1);
        QVERIFY(!second.json().contains(QStringLiteral("tools")));
        QCOMPARE(sentMessages(second).last()[QStringLiteral("content")].toString(), QStringLiteral("al doilea"));
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
        QVERIFY(sentMessages(requests.last())
                    .last()[QStringLiteral("content")]
                    .toString()
                    .contains(QStringLiteral("Utilizator: mesajul 4")));
        QCOMPARE(store.memory()->summary(), QStringLiteral("• Îi place sculptura."));
        QCOMPARE(store.memory()->summarizedUserCount(), 4);

        // The summary now reaches the system prompt of the next turn.
        AsyncTest::await(store.send(QStringLiteral("mesajul 5")));
        QVERIFY(sentMessages(chatRequests().constLast())
                    .first()[QStringLiteral("content")]
                    .toString()
                    .contains(QStringLiteral("Memorie de conversație:\n• Îi place sculptura.")));
    }

    void newConversationAndMemoryReset()
    {
        answerWith({ completion(QStringLiteral("salut")) });
        ChatStore store;
        AsyncTest::await(store.send(QStringLiteral("salut")));
        store.clearConversation();
        QCOMPARE(store.messages().size(), 1);
        QCOMPARE(store.messages().first().text, QStringLiteral("Conversație nouă. Memoria utilă rămâne disponibilă."));

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
