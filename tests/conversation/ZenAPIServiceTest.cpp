#include "conversation/ZenAPIService.h"

#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "conversation/ZenAPIError.h"
#include "net/URLError.h"

#include <QJsonArray>
#include <QTcpServer>
#include <QTest>

using Reply = FakeHttpServer::Reply;

namespace {

QJsonObject message(const QString &role, const QJsonValue &content)
{
    return { { QStringLiteral("role"), role }, { QStringLiteral("content"), content } };
}

QJsonArray oneUserMessage()
{
    return { message(QStringLiteral("user"), QStringLiteral("Salut")) };
}

Reply chatReply(const QJsonObject &assistantMessage)
{
    return Reply::json(QJsonObject { { "choices", QJsonArray { QJsonObject { { "message", assistantMessage } } } } });
}

Reply modelsReply(const QJsonArray &entries, const char *member = "data")
{
    return Reply::json(QJsonObject { { QLatin1String(member), entries } });
}

QStringList ids(const QList<ZenModel> &models)
{
    QStringList result;
    for (const ZenModel &model : models)
        result.append(model.id);
    return result;
}

ZenToolDefinition searchTool()
{
    return { QStringLiteral("kelo_web_search"), QStringLiteral("Caută"),
        QJsonObject { { "type", "object" },
            { "properties", QJsonObject { { "query", QJsonObject { { "type", "string" } } } } } } };
}

} // namespace

class ZenAPIServiceTest : public QObject
{
    Q_OBJECT

private:
    FakeHttpServer *m_server = nullptr;
    ZenAPIService *m_service = nullptr;

    ZenAPIService::AssistantResult chat(
        const QString &model, const QJsonArray &messages = oneUserMessage(), const QList<ZenToolDefinition> &tools = {})
    {
        return AsyncTest::await(m_service->completeChat(QStringLiteral("key"), model, messages, tools));
    }

    std::optional<ZenAPIError> chatError(const QString &model, const QString &key = QStringLiteral("key"))
    {
        return AsyncTest::awaitError<ZenAPIError>(m_service->completeChat(key, model, oneUserMessage(), {}));
    }

private Q_SLOTS:
    void init()
    {
        m_server = new FakeHttpServer(this);
        m_service = new ZenAPIService(m_server->baseUrl(), this);
    }

    void cleanup()
    {
        delete m_service;
        delete m_server;
    }

    void blankKeyFailsBeforeAnyTraffic()
    {
        const QString blank = QStringLiteral(" \n\t ");
        const auto models = AsyncTest::awaitError<ZenAPIError>(m_service->fetchModels(blank));
        QVERIFY(models && models->kind() == ZenAPIError::missingAPIKey);
        QCOMPARE(models->description(), QStringLiteral("Adaugă cheia OpenCode Zen în Setări."));
        for (const QString &model : { QStringLiteral("big-pickle"), QStringLiteral("gpt-4o") }) {
            const auto error = chatError(model, blank);
            QVERIFY2(error && error->kind() == ZenAPIError::missingAPIKey, qPrintable(model));
        }
        QVERIFY(m_server->requests().isEmpty());
    }

    void keyIsTrimmedAndHeadersAreSent()
    {
        m_server->on("POST", "/chat/completions", chatReply({ { "content", "Bună" } }));
        m_server->on("GET", "/models", modelsReply({}));
        AsyncTest::await(m_service->completeChat(QStringLiteral("  sk-1\n"), "big-pickle", oneUserMessage(), {}));
        AsyncTest::await(m_service->fetchModels(QStringLiteral("\tsk-2 ")));

        const auto post = m_server->requests("/chat/completions").first();
        QCOMPARE(post.header("Authorization"), QByteArray("Bearer sk-1"));
        QCOMPARE(post.header("Accept"), QByteArray("application/json"));
        QCOMPARE(post.header("Content-Type"), QByteArray("application/json"));
        const auto get = m_server->requests("/models").first();
        QCOMPARE(get.header("Authorization"), QByteArray("Bearer sk-2"));
        QCOMPARE(get.header("Accept"), QByteArray("application/json"));
    }

    void modelIdsChooseTheProtocol()
    {
        m_server->on("POST", "/responses", Reply::json(QJsonObject { { "output_text", "prin responses" } }));
        m_server->on("POST", "/chat/completions", chatReply({ { "content", "prin chat" } }));

        for (const QString &model : { QStringLiteral("gpt-4o"), QStringLiteral("GPT-5-mini"),
                 QStringLiteral("  Gpt-4.1 "), QStringLiteral("x-MUSE-SPARK-2") })
            QVERIFY2(chat(model).text == QLatin1String("prin responses"), qPrintable(model));
        // Containing "gpt-" is not beginning with it.
        QCOMPARE(chat(QStringLiteral("open-gpt-oss")).text, QStringLiteral("prin chat"));
        QCOMPARE(m_server->requestCount("/responses"), 4);
        QCOMPARE(m_server->requests("/responses").first().json().value("model").toString(), QStringLiteral("gpt-4o"));

        m_server->clearRequests();
        const auto unsupported = chatError(QStringLiteral(" JEV-Large "));
        QVERIFY(unsupported && unsupported->kind() == ZenAPIError::unsupportedModel);
        QCOMPARE(unsupported->payload(), QStringLiteral(" JEV-Large "));
        QCOMPARE(unsupported->description(),
            QStringLiteral("Modelul  JEV-Large  nu este compatibil cu acest mod de conversație."));
        QVERIFY(m_server->requests().isEmpty());
    }

    void chatBodyCarriesToolsOnlyWhenThereAreAny()
    {
        m_server->on("POST", "/chat/completions", chatReply({ { "content", "ok" } }));
        QJsonArray messages = oneUserMessage();
        messages.append(QJsonObject { { "role", "tool" }, { "tool_call_id", "c1" }, { "content", "rezultat" } });

        chat(QStringLiteral("big-pickle"), messages);
        const QJsonObject plain = m_server->requests().last().json();
        QCOMPARE(plain.value("model").toString(), QStringLiteral("big-pickle"));
        QCOMPARE(plain.value("messages").toArray(), messages);
        QCOMPARE(plain.value("temperature").toDouble(), 0.55);
        QVERIFY(!plain.contains("tools"));
        QVERIFY(!plain.contains("tool_choice"));

        chat(QStringLiteral("big-pickle"), messages, { searchTool() });
        const QJsonObject withTools = m_server->requests().last().json();
        QCOMPARE(withTools.value("tool_choice").toString(), QStringLiteral("auto"));
        const QJsonObject tool = withTools.value("tools").toArray().first().toObject();
        QCOMPARE(tool.value("type").toString(), QStringLiteral("function"));
        const QJsonObject function = tool.value("function").toObject();
        QCOMPARE(function.value("name").toString(), QStringLiteral("kelo_web_search"));
        QCOMPARE(function.value("description").toString(), QStringLiteral("Caută"));
        QCOMPARE(function.value("parameters").toObject(), searchTool().inputSchema);
    }

    void chatRepliesYieldTextAndToolCalls()
    {
        const QJsonArray toolCalls {
            QJsonObject { { "id", "c1" },
                { "function",
                    QJsonObject { { "name", "kelo_fetch_url" }, { "arguments", "{\"url\":\"https://a.ro\"}" } } } },
            QJsonObject { { "id", "c2" },
                { "function",
                    QJsonObject {
                        { "name", "kelo_web_search" }, { "arguments", QJsonObject { { "query", "x" } } } } } },
            QJsonObject {
                { "id", "c3" }, { "function", QJsonObject { { "name", "broken" }, { "arguments", "{\"url\": " } } } },
            QJsonObject { { "id", "c4" }, { "function", QJsonObject { { "arguments", "{}" } } } },
            QJsonObject {
                { "id", "c5" }, { "function", QJsonObject { { "name", "listed" }, { "arguments", "[1,2]" } } } },
            QJsonValue("not a call"),
        };
        m_server->enqueue("POST", "/chat/completions",
            chatReply({ { "content",
                            QJsonArray { QJsonObject { { "type", "text" }, { "text", "unu" } }, 7,
                                QJsonObject { { "type", "text" }, { "text", "doi" } } } },
                { "tool_calls", toolCalls } }));
        m_server->enqueue("POST", "/chat/completions", chatReply({ { "content", QJsonValue::Null } }));
        m_server->enqueue(
            "POST", "/chat/completions", chatReply({ { "content", "text simplu" }, { "tool_calls", "nu" } }));

        const auto withCalls = chat(QStringLiteral("big-pickle"));
        QCOMPARE(withCalls.text, QStringLiteral("unu\ndoi"));
        QCOMPARE(withCalls.toolCalls.size(), 4);
        QCOMPARE(withCalls.toolCalls.at(0),
            (ZenToolCall { "c1", "kelo_fetch_url", QJsonObject { { "url", "https://a.ro" } } }));
        QCOMPARE(
            withCalls.toolCalls.at(1), (ZenToolCall { "c2", "kelo_web_search", QJsonObject { { "query", "x" } } }));
        QCOMPARE(withCalls.toolCalls.at(2), (ZenToolCall { "c3", "broken", {} }));
        QCOMPARE(withCalls.toolCalls.at(3), (ZenToolCall { "c5", "listed", {} }));

        QCOMPARE(chat(QStringLiteral("big-pickle")).text, QString());
        const auto plain = chat(QStringLiteral("big-pickle"));
        QCOMPARE(plain.text, QStringLiteral("text simplu"));
        QVERIFY(plain.toolCalls.isEmpty());
    }

    void responsesPathSendsOnlyTheSpokenTurns()
    {
        m_server->on("POST", "/responses", Reply::json(QJsonObject { { "output_text", "gata" } }));
        const QJsonArray messages {
            message("system", "Ești Kelo."),
            message("user", "Caută ceva"),
            QJsonObject { { "role", "assistant" }, { "tool_calls", QJsonArray {} } },
            message("tool", "rezultat"),
            message("assistant", ""),
            message("developer", "notă"),
            message("assistant", QJsonArray { QJsonObject { { "type", "text" }, { "text", "parte" } } }),
        };
        const auto result = chat(QStringLiteral("gpt-4o"), messages, { searchTool() });
        QCOMPARE(result.text, QStringLiteral("gata"));
        QVERIFY(result.toolCalls.isEmpty());

        const QJsonObject body = m_server->requests("/responses").first().json();
        QVERIFY(!body.contains("tools"));
        QVERIFY(!body.contains("messages"));
        const QJsonArray expected { message("system", "Ești Kelo."), message("user", "Caută ceva"),
            message("user", "notă"), message("assistant", "parte") };
        QCOMPARE(body.value("input").toArray(), expected);
    }

    void responsesOutputIsCollectedWhenThereIsNoOutputText()
    {
        const QJsonArray output {
            QJsonObject { { "type", "reasoning" } },
            QJsonObject { { "content",
                QJsonArray { QJsonObject { { "type", "output_text" }, { "text", "primul" } },
                    QJsonObject { { "type", "refusal" } } } } },
            QJsonObject { { "content", QJsonArray { QJsonObject { { "text", "al doilea" } } } } },
        };
        m_server->enqueue(
            "POST", "/responses", Reply::json(QJsonObject { { "output_text", 3 }, { "output", output } }));
        m_server->enqueue("POST", "/responses", Reply::json(QJsonObject { { "id", "r1" } }));

        QCOMPARE(chat(QStringLiteral("gpt-4o")).text, QStringLiteral("primul\nal doilea"));
        const auto shapeless = chatError(QStringLiteral("gpt-4o"));
        QVERIFY(shapeless && shapeless->kind() == ZenAPIError::invalidResponse);
    }

    void failedStatusesCarryTheServersMessage_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("expected");

        QTest::newRow("error.message") << 500 << QByteArray(R"({"error":{"message":"x"},"message":"y"})") << "x";
        QTest::newRow("top-level message") << 429 << QByteArray(R"({"error":"limit","message":"y"})") << "y";
        QTest::newRow("plain text") << 502 << QByteArray("upstream down") << "upstream down";
        QTest::newRow("empty body") << 500 << QByteArray() << "internal server error";
        QTest::newRow("blank body") << 404 << QByteArray(" \n") << "not found";
        QTest::newRow("empty message falls through")
            << 401 << QByteArray(R"({"error":{"message":""}})") << R"({"error":{"message":""}})";
        QTest::newRow("long body") << 500 << QByteArray(600, 'a') << QString(500, QLatin1Char('a'));
        // 499 two-byte letters then an emoji: the cut keeps the emoji whole as the 500th character.
        QTest::newRow("long body, no half characters")
            << 500 << (QString(499, QChar(0x0103)) + QStringLiteral("😀tail")).toUtf8()
            << QString(499, QChar(0x0103)) + QStringLiteral("😀");
        QTest::newRow("invalid UTF-8") << 500 << QByteArray("bad \xff\xfe end")
                                       << QStringLiteral("bad \uFFFD\uFFFD end");
        QTest::newRow("unknown client status") << 499 << QByteArray() << "client error";
    }

    void failedStatusesCarryTheServersMessage()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, expected);
        m_server->on("POST", "/chat/completions", Reply::text(body, status));
        m_server->on("POST", "/responses", Reply::text(body, status));
        m_server->on("GET", "/models", Reply::text(body, status));

        for (const QString &model : { QStringLiteral("big-pickle"), QStringLiteral("gpt-4o") }) {
            const auto error = chatError(model);
            QVERIFY2(error && error->kind() == ZenAPIError::server, qPrintable(model));
            QCOMPARE(error->payload(), expected);
            QCOMPARE(error->description(), expected);
        }
        const auto models = AsyncTest::awaitError<ZenAPIError>(m_service->fetchModels(QStringLiteral("k")));
        QVERIFY(models && models->kind() == ZenAPIError::server);
        QCOMPARE(models->payload(), expected);
    }

    void malformedSuccessRepliesAreInvalidResponses_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("not JSON") << QByteArray("<html>ok</html>");
        QTest::newRow("truncated") << QByteArray("{\"choices\":[{\"message\":{\"content\":\"ju");
        QTest::newRow("array") << QByteArray(R"([{"message":{}}])");
        QTest::newRow("invalid UTF-8") << QByteArray("{\"choices\":[{\"message\":{\"content\":\"\xff\"}}]");
        QTest::newRow("no choices") << QByteArray(R"({"id":"x"})");
        QTest::newRow("choices not an array") << QByteArray(R"({"choices":{"message":{}}})");
        QTest::newRow("empty choices") << QByteArray(R"({"choices":[]})");
        QTest::newRow("message is text") << QByteArray(R"({"choices":[{"message":"hi"}]})");
        QTest::newRow("choice is a number") << QByteArray(R"({"choices":[1]})");
    }

    void malformedSuccessRepliesAreInvalidResponses()
    {
        QFETCH(QByteArray, body);
        m_server->on("POST", "/chat/completions", Reply::text(body, 200, "application/json"));
        const auto error = chatError(QStringLiteral("big-pickle"));
        QVERIFY(error && error->kind() == ZenAPIError::invalidResponse);
        QCOMPARE(error->description(), QStringLiteral("OpenCode Zen a returnat un răspuns neașteptat."));
    }

    void transportFailuresPassThrough()
    {
        FakeHttpServer hugeServer;
        hugeServer.on("POST", "/chat/completions", Reply::text(QByteArray(9 * 1024 * 1024, ' '), 200));
        ZenAPIService huge(hugeServer.baseUrl(), nullptr);
        const auto tooLarge = AsyncTest::awaitError<URLError>(
            huge.completeChat(QStringLiteral("k"), QStringLiteral("big-pickle"), oneUserMessage(), {}));
        QVERIFY(tooLarge && tooLarge->code() == URLError::dataLengthExceedsMaximum);

        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const quint16 port = closed.serverPort();
        closed.close();
        ZenAPIService unreachable(QStringLiteral("http://127.0.0.1:%1").arg(port), nullptr);
        const auto refused = AsyncTest::awaitError<URLError>(unreachable.fetchModels(QStringLiteral("k")));
        QVERIFY(refused && refused->code() == URLError::cannotConnectToHost);
    }

    void modelListIsFilteredCompletedAndSorted()
    {
        QLocale::setDefault(QLocale(QLocale::Romanian, QLocale::Romania));
        const QJsonArray entries {
            QJsonObject { { "id", "paid-z" }, { "name", "Zeta" } },
            QJsonObject { { "id", "free-b" }, { "display_name", "beta" }, { "free", true } },
            QJsonObject { { "id", "free-a" }, { "displayName", "Ăla" },
                { "pricing", QJsonObject { { "input", 0 }, { "output", "0.0" } } } },
            QJsonObject { { "id", "free-c" }, { "name", "alpha" },
                { "pricing", QJsonObject { { "input", " 0 " }, { "output", 0 } } } },
            QJsonObject { { "id", "paid-half" }, { "name", "Half" }, { "pricing", QJsonObject { { "input", 0 } } } },
            QJsonObject { { "id", "paid-text" }, { "name", "abc" },
                { "pricing", QJsonObject { { "input", "zero" }, { "output", 0 } } } },
            QJsonObject { { "id", "paid-free-text" }, { "name", "Same" }, { "free", "true" } },
            QJsonObject { { "id", "paid-same-2" }, { "name", "same" } },
            QJsonObject { { "id", "JEV-hidden" }, { "name", "Hidden" }, { "free", true } },
            QJsonObject { { "id", "vendor-SystemOne-1" }, { "name", "Hidden too" }, { "free", true } },
            QJsonObject { { "name", "no id" } },
            QJsonObject { { "id", 12 } },
            QJsonValue("text entry"),
            QJsonObject { { "id", "unnamed" } },
        };
        m_server->on("GET", "/models", modelsReply(entries));
        const QList<ZenModel> models = AsyncTest::await(m_service->fetchModels(QStringLiteral("k")));
        QLocale::setDefault(QLocale::c());

        // Big Pickle leads, then the free models, then the paid, each by name ignoring case; ties
        // ("Same", "same") keep the service's order.
        QCOMPARE(ids(models),
            (QStringList { "big-pickle", "free-c", "free-a", "free-b", "paid-text", "paid-half", "paid-free-text",
                "paid-same-2", "unnamed", "paid-z" }));
        QCOMPARE(models.first(), ZenModel::bigPickle());
        QCOMPARE(models.at(2).name, QStringLiteral("Ăla"));
        QCOMPARE(models.at(8).name, QStringLiteral("unnamed"));
        QVERIFY(!models.at(6).isFree);
    }

    void modelListTakesModelsMemberAndKeepsAListedBigPickle()
    {
        const QJsonArray entries { QJsonObject { { "id", "a-model" }, { "name", "Aaa" }, { "free", true } },
            QJsonObject { { "id", "big-pickle" }, { "name", "Murătura" }, { "free", false } } };
        m_server->enqueue("GET", "/models", modelsReply(entries, "models"));
        m_server->enqueue("GET", "/models", Reply::json(QJsonObject { { "data", "none" }, { "models", entries } }));
        m_server->enqueue("GET", "/models", Reply::json(QJsonObject { { "data", QJsonObject {} } }));
        m_server->enqueue("GET", "/models", Reply::json(QJsonArray {}));

        for (int round = 0; round < 2; ++round) {
            const QList<ZenModel> models = AsyncTest::await(m_service->fetchModels(QStringLiteral("k")));
            QCOMPARE(models, (QList<ZenModel> { { "big-pickle", "Murătura", false }, { "a-model", "Aaa", true } }));
        }
        for (int round = 0; round < 2; ++round) {
            const auto error = AsyncTest::awaitError<ZenAPIError>(m_service->fetchModels(QStringLiteral("k")));
            QVERIFY(error && error->kind() == ZenAPIError::invalidResponse);
        }
    }

    void memorySummaryUsesTheCompactorPrompts()
    {
        m_server->on("POST", "/chat/completions", chatReply({ { "content", "\n  • îi place ceaiul \n" } }));
        m_server->on("POST", "/responses", Reply::json(QJsonObject { { "output_text", " rezumat " } }));

        const QString summary = AsyncTest::await(m_service->summarizeMemory(QStringLiteral("k"),
            QStringLiteral("big-pickle"), QStringLiteral("• vechi"), QStringLiteral("Utilizator: salut")));
        QCOMPARE(summary, QStringLiteral("• îi place ceaiul"));

        const QJsonObject body = m_server->requests("/chat/completions").first().json();
        QVERIFY(!body.contains("tools"));
        const QJsonArray messages = body.value("messages").toArray();
        QCOMPARE(messages.size(), 2);
        QCOMPARE(messages.at(0).toObject(),
            message("system", "Ești un compactor de memorie. Returnează numai memoria actualizată."));
        const QString expectedUser = QStringLiteral(
            "Actualizează memoria compactă a unui companion AI.\n"
            "Păstrează numai informații utile pentru conversații viitoare: preferințe, proiecte, decizii, "
            "persoane/obiecte importante, obiective și fire deschise.\n"
            "Nu păstra parole, chei API, tokenuri sau date sensibile.\n"
            "Scrie în română, maximum 450 de cuvinte, în bullet-uri scurte.\n\n"
            "Memorie existentă:\n• vechi\n\nConversație nouă:\nUtilizator: salut");
        QCOMPARE(messages.at(1).toObject(), message("user", expectedUser));

        // The compaction follows the same routing as a turn.
        QCOMPARE(AsyncTest::await(m_service->summarizeMemory(QStringLiteral("k"), QStringLiteral("gpt-4o"), {}, {})),
            QStringLiteral("rezumat"));
        QCOMPARE(m_server->requests("/responses").first().json().value("input").toArray().size(), 2);
    }
};

QTEST_GUILESS_MAIN(ZenAPIServiceTest)
#include "ZenAPIServiceTest.moc"
