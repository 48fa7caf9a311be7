#include "conversation/ZenAPIService.h"

#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "conversation/ZenAPIError.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

using Reply = FakeHttpServer::Reply;
using Failure = std::pair<int, QString>;

Q_DECLARE_METATYPE(QList<ZenToolCall>)

namespace {

// Unparsable or non-object arguments become empty; nameless calls and non-calls are dropped. At namespace
// scope: moc cannot skip a body holding a raw string with unbalanced braces.
const char *const replyWithToolCalls = R"({
            "content": [{"type":"text","text":"unu"}, 7, {"type":"text","text":"doi"}],
            "tool_calls": [
                {"id":"c1","function":{"name":"kelo_fetch_url","arguments":"{\u0022url\u0022:\u0022a.ro\u0022}"}},
                {"id":"c2","function":{"name":"kelo_web_search","arguments":{"query":"x"}}},
                {"id":"c3","function":{"name":"broken","arguments":"{url"}},
                {"id":"c4","function":{"arguments":"{}"}},
                {"id":"c5","function":{"name":"listed","arguments":"[1,2]"}},
                "not a call"]})";

const QString unexpected = QStringLiteral("OpenCode Zen a returnat un răspuns neașteptat.");

} // namespace

class ZenAPIServiceTest : public QObject
{
    Q_OBJECT

    FakeHttpServer *m_server = nullptr;
    ZenAPIService *m_service = nullptr;

    static QJsonObject object(const char *json) { return QJsonDocument::fromJson(json).object(); }
    static QJsonArray array(const char *json) { return QJsonDocument::fromJson(json).array(); }
    static QJsonArray oneUserMessage() { return array(R"([{"role":"user","content":"Salut"}])"); }
    static Reply jsonReply(const QByteArray &json) { return Reply::text(json, 200, "application/json"); }
    static Reply chatReply(const char *message)
    {
        return jsonReply(R"({"choices":[{"message":)" + QByteArray(message) + "}]}");
    }
    // The JSON object as a single-line event.
    static QByteArray sseEvent(const QByteArray &json)
    {
        return "data: " + QJsonDocument::fromJson(json).toJson(QJsonDocument::Compact) + "\n\n";
    }
    static QByteArray chatDelta(const char *delta)
    {
        return sseEvent(R"({"choices":[{"delta":)" + QByteArray(delta) + "}]}");
    }
    static ZenToolDefinition searchTool()
    {
        return { QStringLiteral("kelo_web_search"), QStringLiteral("Caută"),
            object(R"({"type":"object","properties":{"query":{"type":"string"}}})") };
    }

    // The kind and text of the service error the task ended with; -1 when it did not fail so.
    template<typename T> static Failure failureOf(QCoro::Task<T> task)
    {
        const auto error = AsyncTest::awaitError<ZenAPIError>(std::move(task));
        return error ? Failure(error->kind(), error->description()) : Failure(-1, QString());
    }

    ZenAPIService::AssistantResult chat(
        const QString &model, const QJsonArray &messages = oneUserMessage(), const QList<ZenToolDefinition> &tools = {})
    {
        return AsyncTest::await(m_service->completeChat(QStringLiteral("key"), model, messages, tools));
    }

    Failure chatFailure(const QString &model, const QString &key = QStringLiteral("key"))
    {
        return failureOf(m_service->completeChat(key, model, oneUserMessage(), {}));
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

    void blankKeyOrUnsupportedModelFailBeforeAnyTraffic()
    {
        const QString blank = QStringLiteral(" \n\t ");
        const Failure noKey(ZenAPIError::missingAPIKey, QStringLiteral("Adaugă cheia OpenCode Zen în Setări."));
        QCOMPARE(failureOf(m_service->fetchModels(blank)), noKey);
        QCOMPARE(chatFailure(QStringLiteral("big-pickle"), blank), noKey);
        QCOMPARE(chatFailure(QStringLiteral("gpt-4o"), blank), noKey);
        QCOMPARE(chatFailure(QStringLiteral(" JEV-Large ")),
            Failure(ZenAPIError::unsupportedModel,
                QStringLiteral("Modelul  JEV-Large  nu este compatibil cu acest mod de conversație.")));
        QVERIFY(m_server->requests().isEmpty());
    }

    // The model id picks the protocol; the key goes trimmed; tools are offered only when there are any.
    void requestsFollowTheModelKeyAndTools()
    {
        m_server->on("POST", "/responses", jsonReply(R"({"output_text":"prin responses"})"));
        m_server->on("POST", "/chat/completions", chatReply(R"({"content":"prin chat"})"));
        m_server->on("GET", "/models", jsonReply(R"({"data":[]})"));
        for (const char *model : { "gpt-4o", "GPT-5-mini", "  Gpt-4.1 ", "x-MUSE-SPARK-2" })
            QVERIFY2(chat(model).text == QLatin1String("prin responses"), model);
        QCOMPARE(m_server->requests("/responses").first().json().value("model").toString(), QStringLiteral("gpt-4o"));
        QCOMPARE(chat(QStringLiteral("open-gpt-oss")).text, QStringLiteral("prin chat")); // contains, not begins

        QJsonArray messages = oneUserMessage();
        messages.append(object(R"({"role":"tool","tool_call_id":"c1","content":"rezultat"})"));
        AsyncTest::await(m_service->completeChat(QStringLiteral("  sk-1\n"), "big-pickle", messages, {}));
        AsyncTest::await(m_service->fetchModels(QStringLiteral("\tsk-2 ")));
        const auto post = m_server->requests("/chat/completions").last();
        QCOMPARE(post.header("Authorization"), QByteArray("Bearer sk-1"));
        QCOMPARE(m_server->requests("/models").first().header("Authorization"), QByteArray("Bearer sk-2"));
        QCOMPARE(post.json().value("model").toString(), QStringLiteral("big-pickle"));
        QCOMPARE(post.json().value("messages").toArray(), messages);
        QVERIFY(!post.json().contains("tools") && !post.json().contains("tool_choice"));

        chat(QStringLiteral("big-pickle"), messages, { searchTool() });
        const QJsonObject withTools = m_server->requests().last().json();
        QCOMPARE(withTools.value("tool_choice").toString(), QStringLiteral("auto"));
        QCOMPARE(withTools.value("tools").toArray(),
            array(R"([{"type":"function","function":{"name":"kelo_web_search","description":"Caută",
                "parameters":{"type":"object","properties":{"query":{"type":"string"}}}}}])"));
    }

    void chatRepliesYieldTextAndToolCalls()
    {
        m_server->enqueue("POST", "/chat/completions", chatReply(replyWithToolCalls));
        m_server->enqueue("POST", "/chat/completions", chatReply(R"({"content":null})"));
        m_server->enqueue("POST", "/chat/completions", chatReply(R"({"content":"text simplu","tool_calls":"nu"})"));

        const auto withCalls = chat(QStringLiteral("big-pickle"));
        QCOMPARE(withCalls.text, QStringLiteral("unu\ndoi"));
        QCOMPARE(withCalls.toolCalls,
            (QList<ZenToolCall> { { "c1", "kelo_fetch_url", object(R"({"url":"a.ro"})") },
                { "c2", "kelo_web_search", object(R"({"query":"x"})") }, { "c3", "broken", {} },
                { "c5", "listed", {} } }));
        QCOMPARE(chat(QStringLiteral("big-pickle")).text, QString());
        const auto plain = chat(QStringLiteral("big-pickle"));
        QCOMPARE(plain.text, QStringLiteral("text simplu"));
        QVERIFY(plain.toolCalls.isEmpty());
    }

    void responsesPathSendsOnlyTheSpokenTurnsAndCollectsTheOutput()
    {
        m_server->enqueue("POST", "/responses", jsonReply(R"({"output_text":"gata"})"));
        // Without a usable output_text, the text parts of the output are joined.
        m_server->enqueue("POST", "/responses", jsonReply(R"({"output_text":3,"output":[{"type":"reasoning"},
            {"content":[{"type":"output_text","text":"primul"},{"type":"refusal"}]},
            {"content":[{"text":"al doilea"}]}]})"));
        const QJsonArray messages = array(R"([{"role":"system","content":"Ești Kelo."},
            {"role":"user","content":"Caută ceva"}, {"role":"assistant","tool_calls":[]},
            {"role":"tool","content":"rezultat"}, {"role":"assistant","content":""},
            {"role":"developer","content":"notă"},
            {"role":"assistant","content":[{"type":"text","text":"parte"}]}])");

        const auto result = chat(QStringLiteral("gpt-4o"), messages, { searchTool() });
        QCOMPARE(result.text, QStringLiteral("gata"));
        QVERIFY(result.toolCalls.isEmpty());
        const QJsonObject body = m_server->requests("/responses").first().json();
        QVERIFY(!body.contains("tools") && !body.contains("messages"));
        QCOMPARE(body.value("input").toArray(),
            array(R"([{"role":"system","content":"Ești Kelo."}, {"role":"user","content":"Caută ceva"},
                {"role":"user","content":"notă"}, {"role":"assistant","content":"parte"}])"));
        QCOMPARE(chat(QStringLiteral("gpt-4o")).text, QStringLiteral("primul\nal doilea"));
    }

    // A failed status carries the server's message; a successful reply of the wrong shape is unexpected.
    void failuresCarryAReadableMessage_data()
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
        QTest::newRow("invalid UTF-8") << 500 << QByteArray("bad \xff\xfe end") << "bad \uFFFD\uFFFD end";
        QTest::newRow("unknown client status") << 499 << QByteArray() << "client error";
        QTest::newRow("unknown server status") << 599 << QByteArray() << "server error";
        QTest::newRow("200, empty") << 200 << QByteArray() << unexpected;
        QTest::newRow("200, not JSON") << 200 << QByteArray("<html>ok</html>") << unexpected;
        QTest::newRow("200, truncated") << 200 << QByteArray("{\"choices\":[{\"message\":{\"content\":\"ju")
                                        << unexpected;
        QTest::newRow("200, array") << 200 << QByteArray(R"([{"message":{}}])") << unexpected;
        QTest::newRow("200, invalid UTF-8")
            << 200 << QByteArray("{\"choices\":[{\"message\":{\"content\":\"\xff\"}}]") << unexpected;
        QTest::newRow("200, no choices") << 200 << QByteArray(R"({"id":"x"})") << unexpected;
        QTest::newRow("200, choices not an array") << 200 << QByteArray(R"({"choices":{"message":{}}})") << unexpected;
        QTest::newRow("200, empty choices") << 200 << QByteArray(R"({"choices":[]})") << unexpected;
        QTest::newRow("200, message is text") << 200 << QByteArray(R"({"choices":[{"message":"hi"}]})") << unexpected;
        QTest::newRow("200, choice is a number") << 200 << QByteArray(R"({"choices":[1]})") << unexpected;
        QTest::newRow("200, models not a list") << 200 << QByteArray(R"({"data":{},"models":"none"})") << unexpected;
    }

    void failuresCarryAReadableMessage()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, expected);
        for (const char *path : { "/chat/completions", "/responses" })
            m_server->on("POST", path, Reply::text(body, status, "application/json"));
        m_server->on("GET", "/models", Reply::text(body, status, "application/json"));

        const Failure failure(status == 200 ? ZenAPIError::invalidResponse : ZenAPIError::server, expected);
        QCOMPARE(chatFailure(QStringLiteral("big-pickle")), failure);
        QCOMPARE(chatFailure(QStringLiteral("gpt-4o")), failure);
        QCOMPARE(failureOf(m_service->fetchModels(QStringLiteral("k"))), failure);
    }

    void modelListIsFilteredCompletedAndSorted()
    {
        // Free: "free": true or both prices zero; no text id, or a hidden family, is skipped.
        m_server->enqueue("GET", "/models", jsonReply(R"({"data":[
            {"id":"paid-z","name":"Zeta"},
            {"id":"free-b","display_name":"beta","free":true},
            {"id":"free-a","displayName":"Ăla","pricing":{"input":0,"output":"0.0"}},
            {"id":"free-c","name":"alpha","pricing":{"input":" 0 ","output":0}},
            {"id":"paid-half","name":"Half","pricing":{"input":0}},
            {"id":"paid-text","name":"abc","pricing":{"input":"zero","output":0}},
            {"id":"paid-free-text","name":"Same","free":"true"},
            {"id":"paid-same-2","name":"same"},
            {"id":"JEV-hidden","name":"Hidden","free":true},
            {"id":"vendor-SystemOne-1","name":"Hidden too","free":true},
            {"name":"no id"}, {"id":12}, "text entry", {"id":"unnamed"}]})"));
        // A "models" member serves when "data" is not a list; a listed Big Pickle keeps the service's entry.
        const QJsonArray listed = array(R"([{"id":"a-model","name":"Aaa","free":true},
            {"id":"big-pickle","name":"Murătura","free":false}])");
        m_server->enqueue("GET", "/models", Reply::json(QJsonObject { { "data", "none" }, { "models", listed } }));

        QLocale::setDefault(QLocale(QLocale::Romanian, QLocale::Romania));
        const QList<ZenModel> models = AsyncTest::await(m_service->fetchModels(QStringLiteral("k")));
        QLocale::setDefault(QLocale::c());
        // Big Pickle, then free, then paid, by name ignoring case; ties keep the service's order.
        QStringList ids;
        for (const ZenModel &model : models)
            ids.append(model.id);
        QCOMPARE(ids,
            (QStringList { "big-pickle", "free-c", "free-a", "free-b", "paid-text", "paid-half", "paid-free-text",
                "paid-same-2", "unnamed", "paid-z" }));
        QCOMPARE(models.first(), ZenModel::bigPickle());
        QCOMPARE(models.at(2).name, QStringLiteral("Ăla"));
        QCOMPARE(models.at(8).name, QStringLiteral("unnamed"));
        QVERIFY(!models.at(6).isFree);
        QCOMPARE(AsyncTest::await(m_service->fetchModels(QStringLiteral("k"))),
            (QList<ZenModel> { { "big-pickle", "Murătura", false }, { "a-model", "Aaa", true } }));
    }

    void memorySummaryUsesTheCompactorPrompts()
    {
        m_server->on("POST", "/chat/completions", chatReply(R"({"content":"\n  • îi place ceaiul \n"})"));
        m_server->on("POST", "/responses", jsonReply(R"({"output_text":" rezumat "})"));

        QCOMPARE(AsyncTest::await(m_service->summarizeMemory(QStringLiteral("k"), QStringLiteral("big-pickle"),
                     QStringLiteral("• vechi"), QStringLiteral("Utilizator: salut"))),
            QStringLiteral("• îi place ceaiul"));
        const QJsonObject body = m_server->requests("/chat/completions").first().json();
        QVERIFY(!body.contains("tools") && !body.contains("stream"));
        const QJsonArray messages = body.value("messages").toArray();
        QCOMPARE(messages.size(), 2);
        QCOMPARE(messages.at(0)["role"].toString(), QStringLiteral("system"));
        QVERIFY(messages.at(1)["content"].toString().endsWith(
            QStringLiteral("Memorie existentă:\n• vechi\n\nConversație nouă:\nUtilizator: salut")));

        // The compaction follows the same routing as a turn.
        QCOMPARE(AsyncTest::await(m_service->summarizeMemory(QStringLiteral("k"), QStringLiteral("gpt-4o"), {}, {})),
            QStringLiteral("rezumat"));
        const QJsonObject responses = m_server->requests("/responses").first().json();
        QVERIFY(responses.value("input").toArray().size() == 2 && !responses.contains("stream"));
    }

    // "holds open": the server keeps the connection, so only the stream's own end finishes it.
    void streamedAnswersArriveInPieces_data()
    {
        QTest::addColumn<QString>("model");
        QTest::addColumn<QList<QByteArray>>("chunks");
        QTest::addColumn<QString>("ending");
        QTest::addColumn<QStringList>("deltas");
        QTest::addColumn<QList<ZenToolCall>>("toolCalls");
        QTest::addColumn<QString>("error");
        const QString pickle = QStringLiteral("big-pickle");
        const QList<ZenToolCall> none;

        QTest::newRow("text, a letter split between chunks")
            << pickle
            << QList<QByteArray> { chatDelta(R"({"role":"assistant","content":"Bu"})").chopped(1),
                   "\ndata: {\"choices\":[{\"delta\":{\"content\":\"n\xc4", "\x83 ziua\"}}]}\r\n\r\n",
                   "data: [DONE]\n\n" }
            << "holds open" << QStringList { "Bu", "nă ziua" } << none << QString();
        QTest::newRow("tool calls by index, out of order, arguments in pieces")
            << pickle
            << QList<QByteArray> { chatDelta(R"({"tool_calls":[{"index":1,"id":"c2",
                                       "function":{"name":"kelo_fetch_url","arguments":"{\u0022url\u0022"}}]})"),
                   chatDelta(R"({"tool_calls":[{"index":0,"id":"c1","function":{"name":"kelo_web_search"}}]})"),
                   chatDelta(R"({"tool_calls":[{"index":1,"function":{"arguments":":\u0022a.ro\u0022}"}},
                       {"index":0,"id":"","function":{"name":"","arguments":"{\u0022query\u0022:\u0022vreme\u0022}"}}]})"),
                   sseEvent(R"({"choices":[{"delta":{},"finish_reason":"tool_calls"}]})") + "data: [DONE]\n\n" }
            << "holds open" << QStringList {}
            << QList<ZenToolCall> { { "c1", "kelo_web_search", object(R"({"query":"vreme"})") },
                   { "c2", "kelo_fetch_url", object(R"({"url":"a.ro"})") } }
            << QString();
        QTest::newRow("arguments that never become JSON, a call without a name, [DONE] without blank line")
            << pickle
            << QList<QByteArray> { chatDelta(R"({"content":"Caut","tool_calls":[
                   {"index":0,"id":"c1","function":{"name":"kelo_web_search","arguments":"\u007b\u0022query\u0022:"}},
                   {"index":1,"id":"c2","function":{"arguments":"{}"}}]})"),
                   "data: [DONE]" }
            << "closes" << QStringList { "Caut" } << QList<ZenToolCall> { { "c1", "kelo_web_search", {} } }
            << QString();
        QTest::newRow("noise passed over, nothing after [DONE]")
            << pickle
            << QList<QByteArray> { ": keep-alive\n\nevent: ping\ndata: {\"type\":\"ping\"}\n\n",
                   "data: {not json\n\ndata: [1,2]\n\nretry: 10\nid: 4\n\ndata: {\"choices\":7}\n\n",
                   chatDelta(R"({"content":"ok"})"), "data: [DONE]\n\n" + chatDelta(R"({"content":"după"})") }
            << "holds open" << QStringList { "ok" } << none << QString();
        QTest::newRow("one JSON object instead of a stream")
            << pickle << QList<QByteArray> { R"({"choices":[{"message":{"content":"întreg"}}]})" } << "json"
            << QStringList { "întreg" } << none << QString();
        QTest::newRow("responses protocol, text deltas")
            << "gpt-4o"
            << QList<QByteArray> { "event: response.created\n" + sseEvent(R"({"type":"response.created"})"),
                   "event: response.output_text.delta\n"
                       + sseEvent(R"({"type":"response.output_text.delta","delta":"Sal"})"),
                   sseEvent(R"({"type":"response.output_text.delta","delta":"ut"})"),
                   sseEvent(R"({"type":"response.completed","response":{"output_text":"Salut"}})") }
            << "holds open" << QStringList { "Sal", "ut" } << none << QString();
        QTest::newRow("responses protocol, only the completed response")
            << "gpt-4o"
            << QList<QByteArray> { sseEvent(
                   R"({"type":"response.completed","response":{"output":[{"content":[{"text":"gata"}]}]}})") }
            << "holds open" << QStringList { "gata" } << none << QString();

        QTest::newRow("error object halfway")
            << pickle
            << QList<QByteArray> { chatDelta(R"({"content":"Început"})"),
                   sseEvent(R"({"error":{"message":"Limită depășită"}})"), chatDelta(R"({"content":"nu"})") }
            << "closes" << QStringList { "Început" } << none << "Limită depășită";
        QTest::newRow("error event") << pickle
                                     << QList<QByteArray> { sseEvent(R"({"type":"error","message":"Ocupat"})") }
                                     << "closes" << QStringList {} << none << "Ocupat";
        QTest::newRow("failed response")
            << "gpt-4o"
            << QList<QByteArray> { sseEvent(R"({"type":"response.output_text.delta","delta":"Da"})")
                   + sseEvent(R"({"type":"response.failed","response":{"error":{"message":"Model indisponibil"}}})") }
            << "closes" << QStringList { "Da" } << none << "Model indisponibil";
        QTest::newRow("an event of megabytes")
            << pickle << QList<QByteArray> { chatDelta(R"({"content":"a"})"), "data: " + QByteArray(2 << 20, 'x') }
            << "closes" << QStringList { "a" } << none << "Răspunsul serverului este prea mare.";
        // The transport's own limit is not turned into a service error.
        QTest::newRow("a whole reply over the limit")
            << pickle << QList<QByteArray> { QByteArray(9 << 20, ' ') } << "json" << QStringList {} << none
            << "Răspunsul serverului este prea mare.";
        QTest::newRow("connection dropped before the end")
            << pickle << QList<QByteArray> { chatDelta(R"({"content":"Jumă"})") } << "drops" << QStringList { "Jumă" }
            << none << "Conexiunea la rețea s-a întrerupt.";
        QTest::newRow("nothing but noise") << pickle << QList<QByteArray> { ": ping\n\n", "data: {oops\n\n" }
                                           << "closes" << QStringList {} << none << unexpected;
    }

    void streamedAnswersArriveInPieces()
    {
        QFETCH(QString, model);
        QFETCH(QList<QByteArray>, chunks);
        QFETCH(QString, ending);
        QFETCH(QStringList, deltas);
        QFETCH(QList<ZenToolCall>, toolCalls);
        QFETCH(QString, error);
        Reply reply = Reply::eventStreamChunks(chunks, 10);
        if (ending == QLatin1String("json"))
            reply.headers = { { "Content-Type", "application/json" } };
        reply.holdOpenAfterChunks = ending == QLatin1String("holds open");
        reply.dropAfterChunks = ending == QLatin1String("drops");
        m_server->on("POST", "/chat/completions", reply);
        m_server->on("POST", "/responses", reply);

        QStringList received;
        ZenAPIService::AssistantResult result;
        QString failure;
        try {
            result = AsyncTest::await(m_service->completeChat(QStringLiteral("key"), model, oneUserMessage(),
                { searchTool() }, [&received](const QString &delta) { received.append(delta); }));
        } catch (const KeloError &thrown) {
            failure = thrown.description();
        }
        QCOMPARE(failure, error);
        QCOMPARE(received, deltas);
        QCOMPARE(result.text, error.isEmpty() ? deltas.join(QString()) : QString());
        QCOMPARE(result.toolCalls, toolCalls);
        QCOMPARE(m_server->requests().last().json().value("stream"), QJsonValue(true));
    }
};

QTEST_GUILESS_MAIN(ZenAPIServiceTest)
#include "ZenAPIServiceTest.moc"
