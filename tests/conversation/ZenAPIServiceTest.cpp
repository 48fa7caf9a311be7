#include "conversation/ZenAPIService.h"

#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "conversation/ZenAPIError.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using Reply = FakeHttpServer::Reply;
using Failure = std::pair<int, QString>;

Q_DECLARE_METATYPE(QList<ZenToolCall>)

namespace {

// Bad arguments become empty, nameless calls are dropped. Here because moc trips on its unbalanced braces.
const char *const messageWithToolCalls = R"({
            "content": [{"type":"text","text":"unu"}, 7, {"type":"text","text":"doi"}],
            "tool_calls": [
                {"id":"c1","function":{"name":"kelo_fetch_url","arguments":"{\u0022url\u0022:\u0022a.ro\u0022}"}},
                {"id":"c2","function":{"name":"kelo_web_search","arguments":{"query":"x"}}},
                {"id":"c3","function":{"name":"broken","arguments":"{url"}},
                {"id":"c4","function":{"arguments":"{}"}},
                {"id":"c5","function":{"name":"listed","arguments":"[1,2]"}},
                "not a call"]})";

const QString unexpected = u"OpenCode Zen a returnat un răspuns neașteptat."_s;

} // namespace

class ZenAPIServiceTest : public QObject
{
    Q_OBJECT

    FakeHttpServer m_server; // shared: every test sets the answers it needs before it asks
    ZenAPIService m_service { m_server.baseUrl(), nullptr };

    static QJsonObject object(const char *json) { return QJsonDocument::fromJson(json).object(); }
    static QJsonArray array(const char *json) { return QJsonDocument::fromJson(json).array(); }
    static QJsonArray oneUserMessage() { return array(R"([{"role":"user","content":"Salut"}])"); }
    static Reply jsonReply(const QByteArray &json) { return Reply::text(json, 200, "application/json"); }
    // A whole chat-completions reply around one message.
    static QByteArray choice(const char *message) { return R"({"choices":[{"message":)" + QByteArray(message) + "}]}"; }
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
        return { u"kelo_web_search"_s, u"Caută"_s,
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
        return AsyncTest::await(m_service.completeChat(u"key"_s, model, messages, tools));
    }

    Failure chatFailure(const QString &model, const QString &key = u"key"_s)
    {
        return failureOf(m_service.completeChat(key, model, oneUserMessage(), {}));
    }

private Q_SLOTS:
    void init() { m_server.clearRequests(); }

    // No key or a wrong model sends nothing; the model picks the protocol, which shapes the request.
    void requestsFollowTheModelKeyAndTools()
    {
        const Failure noKey(ZenAPIError::missingAPIKey, u"Adaugă cheia OpenCode Zen în Setări."_s);
        QCOMPARE(failureOf(m_service.fetchModels(u" \n\t "_s)), noKey);
        QCOMPARE(chatFailure(u"gpt-4o"_s, u" \n\t "_s), noKey);
        QCOMPARE(chatFailure(u" JEV-Large "_s),
            Failure(ZenAPIError::unsupportedModel,
                u"Modelul  JEV-Large  nu este compatibil cu acest mod de conversație."_s));
        QVERIFY(m_server.requests().isEmpty());

        m_server.on("POST", "/responses", jsonReply(R"({"output_text":"prin responses"})"));
        m_server.on("POST", "/chat/completions", jsonReply(choice(R"({"content":"prin chat"})")));
        m_server.on("GET", "/models", jsonReply(R"({"data":[]})"));
        for (const char *model : { "GPT-5-mini", "  Gpt-4.1 ", "x-MUSE-SPARK-2" })
            QVERIFY2(chat(model).text == "prin responses"_L1, model);
        QCOMPARE(m_server.requests("/responses").first().json().value("model").toString(), u"GPT-5-mini"_s);
        QCOMPARE(chat(u"open-gpt-oss"_s).text, u"prin chat"_s); // contains "gpt-", does not begin with it
        QCOMPARE(AsyncTest::await(m_service.summarizeMemory(u"k"_s, u"gpt-4o"_s, {}, {})), u"prin responses"_s);
        QCOMPARE(AsyncTest::await(m_service.summarizeMemory(u"k"_s, u"big-pickle"_s, {}, {})), u"prin chat"_s);
        for (const QString &path : { u"/responses"_s, u"/chat/completions"_s })
            QVERIFY(!m_server.requests(path).last().json().contains("stream")
                && !m_server.requests(path).last().json().contains("tools"));

        const QJsonArray turns = array(R"([{"role":"system","content":"Ești Kelo."},
            {"role":"user","content":"Caută ceva"}, {"role":"assistant","tool_calls":[]},
            {"role":"tool","content":"rezultat"}, {"role":"assistant","content":""},
            {"role":"developer","content":"notă"},
            {"role":"assistant","content":[{"type":"text","text":"parte"}]}])");
        chat(u"gpt-4o"_s, turns, { searchTool() });
        const QJsonObject responses = m_server.requests("/responses").last().json();
        QVERIFY(!responses.contains("tools") && !responses.contains("messages"));
        QCOMPARE(responses.value("input").toArray(),
            array(R"([{"role":"system","content":"Ești Kelo."}, {"role":"user","content":"Caută ceva"},
                {"role":"user","content":"notă"}, {"role":"assistant","content":"parte"}])"));

        AsyncTest::await(m_service.completeChat(u"  sk-1\n"_s, "big-pickle", turns, {}));
        AsyncTest::await(m_service.fetchModels(u"\tsk-2 "_s));
        const auto post = m_server.requests("/chat/completions").last();
        QCOMPARE(post.header("Authorization"), QByteArray("Bearer sk-1"));
        QCOMPARE(m_server.requests("/models").first().header("Authorization"), QByteArray("Bearer sk-2"));
        QCOMPARE(post.json().value("model").toString(), u"big-pickle"_s);
        QCOMPARE(post.json().value("messages").toArray(), turns);
        QVERIFY(!post.json().contains("tools") && !post.json().contains("tool_choice"));
        chat(u"big-pickle"_s, turns, { searchTool() });
        const QJsonObject withTools = m_server.requests().last().json();
        QCOMPARE(withTools.value("tool_choice").toString(), u"auto"_s);
        QCOMPARE(withTools.value("tools").toArray(),
            array(R"([{"type":"function","function":{"name":"kelo_web_search","description":"Caută",
                "parameters":{"type":"object","properties":{"query":{"type":"string"}}}}}])"));
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
        // 499 two-byte letters then an emoji: the cut keeps the emoji whole as the 500th character.
        QTest::newRow("long body, no half characters")
            << 500 << (QString(499, u'ă') + u"😀tail"_s).toUtf8() << QString(499, u'ă') + u"😀"_s;
        QTest::newRow("invalid UTF-8") << 500 << QByteArray("bad \xff\xfe end") << "bad \uFFFD\uFFFD end";
        QTest::newRow("unknown client status") << 499 << QByteArray() << "client error";
        QTest::newRow("unknown server status") << 599 << QByteArray() << "server error";
        for (const QByteArray &body : { QByteArray(), QByteArray("<html>ok</html>"), QByteArray(R"([{"message":{}}])"),
                 QByteArray("{\"choices\":[{\"message\":{\"content\":\"\xff\"}}]}"), QByteArray(R"({"id":"x"})"),
                 QByteArray(R"({"choices":{"message":{}}})"), QByteArray(R"({"choices":[]})"),
                 QByteArray(R"({"choices":[{"message":"hi"}]})"), QByteArray(R"({"choices":[1]})"),
                 QByteArray(R"({"data":{},"models":"none"})") })
            QTest::newRow("200: " + QString::fromUtf8(body.left(40)).toUtf8()) << 200 << body << unexpected;
    }

    void failuresCarryAReadableMessage()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, expected);
        for (const char *path : { "/chat/completions", "/responses" })
            m_server.on("POST", path, Reply::text(body, status, "application/json"));
        m_server.on("GET", "/models", Reply::text(body, status, "application/json"));
        const Failure failure(status == 200 ? ZenAPIError::invalidResponse : ZenAPIError::server, expected);
        QCOMPARE(chatFailure(u"big-pickle"_s), failure);
        QCOMPARE(chatFailure(u"gpt-4o"_s), failure);
        QCOMPARE(failureOf(m_service.fetchModels(u"k"_s)), failure);
    }

    void modelListIsFilteredCompletedAndSorted()
    {
        // Free: "free" or both prices zero; no text id or a hidden family: left out; then sorted (Big Pickle,
        // free, paid; by name, ignoring case; ties in the service's order).
        m_server.enqueue("GET", "/models", jsonReply(R"({"data":[
            {"id":"paid-z","name":"Zeta"}, {"id":"free-b","display_name":"beta","free":true},
            {"id":"free-a","displayName":"Ăla","pricing":{"input":0,"output":"0.0"}},
            {"id":"free-c","name":"alpha","pricing":{"input":" 0 ","output":0}},
            {"id":"paid-half","name":"Half","pricing":{"input":0}},
            {"id":"paid-text","name":"abc","pricing":{"input":"zero","output":0}},
            {"id":"paid-free-text","name":"Same","free":"true"}, {"id":"paid-same-2","name":"same"},
            {"id":"JEV-hidden","name":"Hidden","free":true}, {"id":"vendor-SystemOne-1","name":"Hidden too","free":true},
            {"name":"no id"}, {"id":12}, "text entry", {"id":"unnamed"}]})"));
        // A "models" member serves when "data" is not a list; a listed Big Pickle keeps the service's entry.
        m_server.enqueue(
            "GET", "/models", jsonReply(R"({"data":"none","models":[{"id":"a-model","name":"Aaa","free":true},
            {"id":"big-pickle","name":"Murătura","free":false}]})"));

        QLocale::setDefault(QLocale(QLocale::Romanian, QLocale::Romania));
        const QList<ZenModel> models = AsyncTest::await(m_service.fetchModels(u"k"_s));
        QLocale::setDefault(QLocale::c());
        QCOMPARE(models,
            (QList<ZenModel> { ZenModel::bigPickle(), { "free-c", "alpha", true }, { "free-a", "Ăla", true },
                { "free-b", "beta", true }, { "paid-text", "abc", false }, { "paid-half", "Half", false },
                { "paid-free-text", "Same", false }, { "paid-same-2", "same", false }, { "unnamed", "unnamed", false },
                { "paid-z", "Zeta", false } }));
        QCOMPARE(AsyncTest::await(m_service.fetchModels(u"k"_s)),
            (QList<ZenModel> { { "big-pickle", "Murătura", false }, { "a-model", "Aaa", true } }));
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
        const QString pickle = u"big-pickle"_s, gpt = u"gpt-4o"_s, tooLarge = u"Răspunsul serverului este prea mare."_s;
        const auto row
            = [](const char *name, const QString &model, const QList<QByteArray> &chunks, const char *ending,
                  const QStringList &deltas, const QString &error = {}, const QList<ZenToolCall> &calls = {}) {
                  QTest::newRow(name) << model << chunks << QString::fromLatin1(ending) << deltas << calls << error;
              };

        row("text, a letter split between chunks", pickle,
            { chatDelta(R"({"role":"assistant","content":"Bu"})").chopped(1),
                "\ndata: {\"choices\":[{\"delta\":{\"content\":\"n\xc4", "\x83 ziua\"}}]}\r\n\r\n",
                "data: [DONE]\n\n" },
            "holds open", { "Bu", "nă ziua" });
        row("tool calls by index, out of order, arguments in pieces", pickle,
            { chatDelta(R"({"tool_calls":[{"index":1,"id":"c2",
                    "function":{"name":"kelo_fetch_url","arguments":"{\u0022url\u0022"}}]})"),
                chatDelta(R"({"tool_calls":[{"index":0,"id":"c1","function":{"name":"kelo_web_search"}}]})"),
                chatDelta(R"({"tool_calls":[{"index":1,"function":{"arguments":":\u0022a.ro\u0022}"}},
                    {"index":0,"id":"","function":{"name":"","arguments":"{\u0022query\u0022:\u0022vreme\u0022}"}}]})"),
                sseEvent(R"({"choices":[{"delta":{},"finish_reason":"tool_calls"}]})") + "data: [DONE]\n\n" },
            "holds open", {}, {},
            { { "c1", "kelo_web_search", object(R"({"query":"vreme"})") },
                { "c2", "kelo_fetch_url", object(R"({"url":"a.ro"})") } });
        row("arguments that never become JSON, a call without a name, [DONE] without blank line", pickle,
            { chatDelta(R"({"content":"Caut","tool_calls":[
                   {"index":0,"id":"c1","function":{"name":"kelo_web_search","arguments":"\u007b\u0022query\u0022:"}},
                   {"index":1,"id":"c2","function":{"arguments":"{}"}}]})"),
                "data: [DONE]" },
            "closes", { "Caut" }, {}, { { "c1", "kelo_web_search", {} } });
        row("noise passed over, nothing after [DONE]", pickle,
            { ": keep-alive\n\nevent: ping\ndata: {\"type\":\"ping\"}\n\n",
                "data: {not json\n\ndata: [1,2]\n\nretry: 10\nid: 4\n\ndata: {\"choices\":7}\n\n",
                chatDelta(R"({"content":"ok"})"), "data: [DONE]\n\n" + chatDelta(R"({"content":"după"})") },
            "holds open", { "ok" });
        row("one JSON object instead of a stream", pickle, { choice(messageWithToolCalls) }, "json", { "unu\ndoi" }, {},
            { { "c1", "kelo_fetch_url", object(R"({"url":"a.ro"})") },
                { "c2", "kelo_web_search", object(R"({"query":"x"})") }, { "c3", "broken", {} },
                { "c5", "listed", {} } });
        row("whole reply, null content", pickle, { choice(R"({"content":null})") }, "json", {});
        row("whole reply, tool calls not a list", pickle, { choice(R"({"content":"text simplu","tool_calls":"nu"})") },
            "json", { "text simplu" });
        row("responses protocol, text deltas", gpt,
            { "event: response.created\n" + sseEvent(R"({"type":"response.created"})"),
                "event: response.output_text.delta\n"
                    + sseEvent(R"({"type":"response.output_text.delta","delta":"Sal"})"),
                sseEvent(R"({"type":"response.output_text.delta","delta":"ut"})"),
                sseEvent(R"({"type":"response.completed","response":{"output_text":"Salut"}})") },
            "holds open", { "Sal", "ut" });
        // Without a usable output_text, the text parts of the output are joined.
        row("responses protocol, only the completed response", gpt,
            { sseEvent(R"({"type":"response.completed","response":{"output_text":3,"output":[{"type":"reasoning"},
                {"content":[{"type":"output_text","text":"primul"},{"type":"refusal"}]},{"content":[{"text":"al doilea"}]}]}})") },
            "holds open", { "primul\nal doilea" });

        row("error object halfway", pickle,
            { chatDelta(R"({"content":"Început"})"), sseEvent(R"({"error":{"message":"Limită depășită"}})"),
                chatDelta(R"({"content":"nu"})") },
            "closes", { "Început" }, u"Limită depășită"_s);
        row("error event", pickle, { sseEvent(R"({"type":"error","message":"Ocupat"})") }, "closes", {}, u"Ocupat"_s);
        row("failed response", gpt,
            { sseEvent(R"({"type":"response.output_text.delta","delta":"Da"})")
                + sseEvent(R"({"type":"response.failed","response":{"error":{"message":"Model indisponibil"}}})") },
            "closes", { "Da" }, u"Model indisponibil"_s);
        row("an event of megabytes", pickle, { chatDelta(R"({"content":"a"})"), "data: " + QByteArray(2 << 20, 'x') },
            "closes", { "a" }, tooLarge);
        // The transport's own limit is not turned into a service error.
        row("a whole reply over the limit", pickle, { QByteArray(9 << 20, ' ') }, "json", {}, tooLarge);
        row("connection dropped before the end", pickle, { chatDelta(R"({"content":"Jumă"})") }, "drops", { "Jumă" },
            u"Conexiunea la rețea s-a întrerupt."_s);
        row("nothing but noise", pickle, { ": ping\n\n", "data: {oops\n\n" }, "closes", {}, unexpected);
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
        m_server.on("POST", "/chat/completions", reply);
        m_server.on("POST", "/responses", reply);

        QStringList received;
        ZenAPIService::AssistantResult result;
        QString failure;
        try {
            result = AsyncTest::await(m_service.completeChat(u"key"_s, model, oneUserMessage(), { searchTool() },
                [&received](const QString &delta) { received.append(delta); }));
        } catch (const KeloError &thrown) {
            failure = thrown.description();
        }
        QCOMPARE(failure, error);
        QCOMPARE(received, deltas);
        QCOMPARE(result.text, error.isEmpty() ? deltas.join(QString()) : QString());
        QCOMPARE(result.toolCalls, toolCalls);
        QCOMPARE(m_server.requests().last().json().value("stream"), QJsonValue(true));
    }
};

QTEST_GUILESS_MAIN(ZenAPIServiceTest)
#include "ZenAPIServiceTest.moc"
