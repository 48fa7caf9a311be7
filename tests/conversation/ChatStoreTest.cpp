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
using Request = FakeHttpServer::Request;
using Activity = ChatStore::Activity;
using ChatCompletionReplies::completion;
using ChatCompletionReplies::streamedCompletion;
using ChatCompletionReplies::toolCall;

// A whole ChatStore against a loopback model service and encyclopedia, in a temporary home.
class ChatStoreTest : public QObject
{
    Q_OBJECT

    struct Setup
    {
        TemporaryHome home;
        FakeHttpServer service;
        ScopedEnvironment zenURL { "KELO_ZEN_BASE_URL", service.baseUrl() };
        ScopedEnvironment wikiURL { "KELO_WIKIPEDIA_BASE_URL", service.baseUrl() };
        ScopedEnvironment key { "KELO_ZEN_API_KEY", u"test-key"_s };
        ScopedEnvironment allowPrivate { "KELO_FETCH_ALLOW_PRIVATE", u"1"_s }; // the pages are on loopback
    };
    std::unique_ptr<Setup> m_setup;

    static QJsonArray sentMessages(const Request &request) { return request.json()["messages"].toArray(); }
    static QString content(const QJsonValue &message) { return message["content"].toString(); }
    static bool isCompaction(const Request &request)
    {
        return content(sentMessages(request).first()).startsWith(u"Ești un compactor"_s);
    }
    static QStringList roles(const QJsonArray &messages)
    {
        QStringList list;
        for (const QJsonValue &message : messages)
            list.append(message["role"].toString());
        return list;
    }
    static QStringList texts(const QList<ChatMessage> &messages)
    {
        QStringList list;
        for (const ChatMessage &message : messages)
            list.append(message.text);
        return list;
    }

    QList<Request> chatRequests() const { return m_setup->service.requests(u"/chat/completions"_s); }
    void answerWith(const QList<Reply> &replies)
    {
        for (const Reply &reply : replies)
            m_setup->service.enqueue("POST", u"/chat/completions"_s, reply);
    }
    QList<ChatMessage> reloaded(ChatStore &store) const
    {
        store.memory()->waitForWrites();
        return ConversationMemoryStore(m_setup->home.dataHome() + u"/Kelo"_s, nullptr).messages();
    }

private Q_SLOTS:
    void init() { m_setup = std::make_unique<Setup>(); }
    void cleanup() { m_setup.reset(); }

    // A blank draft or key counts as none (the refused turn itself is driven by the command-line tests).
    void blankDraftsAndKeysCountAsNone()
    {
        const ScopedEnvironment noKey("KELO_ZEN_API_KEY", QString());
        ChatStore store;
        store.setDraft(u"  \n\t "_s);
        AsyncTest::await(store.send());
        QCOMPARE(store.messages().size(), 1);
        store.settings()->setZenAPIKey(u"   "_s);
        QVERIFY(!store.hasZenKey());
        QCOMPARE(store.activityText(), u"Adaugă cheia OpenCode Zen în Setări"_s);

        QSignalSpy keyChanged(&store, &ChatStore::hasZenKeyChanged);
        store.settings()->setZenAPIKey(u"k"_s);
        QCOMPARE(keyChanged.size(), 1);
        QCOMPARE(store.activityText(), u"Ține apăsat pentru a vorbi"_s);
        QVERIFY(m_setup->service.requests().isEmpty());
    }

    // Search, page, then a streamed answer: calls echoed with their results, one growing row, sentences.
    void webToolsThenAStreamedAnswer()
    {
        const QString pageURL = m_setup->service.baseUrl() + u"/pagina"_s;
        m_setup->service.on("GET", u"/w/rest.php/v1/search/page"_s,
            Reply::text(R"({"pages":[{"title":"Constantin Brâncuși","description":"sculptor român"}]})", 200,
                "application/json"));
        m_setup->service.on("GET", u"/pagina"_s,
            Reply::text("<html><script>x()</script><p>Coloana <b>infinitului</b></p></html>", 200, "text/html"));
        answerWith(
            { Reply::json(completion({}, { toolCall(u"c1"_s, u"kelo_web_search"_s, { { "query", "Brâncuși" } }) })),
                Reply::json(completion({}, { toolCall(u"c2"_s, u"kelo_fetch_url"_s, { { "url", pageURL } }) })),
                Reply::eventStreamChunks(streamedCompletion({ u"<thi"_s, u"nk>hmm</think>Bună ziua! "_s,
                                             u"Coloana e "_s, u"la Târgu Jiu, dl. Popescu. "_s, u"Altceva?"_s }),
                    20) });
        ChatStore store;
        QSignalSpy grew(&store, &ChatStore::answerGrew);
        QSignalSpy sentences(&store, &ChatStore::sentenceReady);
        QSignalSpy inserted(store.conversation(), &QAbstractItemModel::rowsInserted);
        QList<Activity> activities;
        connect(&store, &ChatStore::activityChanged, this, [&] { activities.append(store.activity()); });

        AsyncTest::await(store.send(u"Unde e Coloana?"_s));
        const QString answer = u"Bună ziua! Coloana e la Târgu Jiu, dl. Popescu. Altceva?"_s;
        using enum Activity;
        QCOMPARE(activities, (QList<Activity> { Thinking, Searching, UsingTool, Speaking, Idle }));
        QVERIFY(grew.size() >= 3);
        for (const QList<QVariant> &growth : grew)
            QVERIFY2(answer.startsWith(growth.first().toString()), qPrintable(growth.first().toString()));
        QStringList spoken;
        for (const QList<QVariant> &sentence : sentences)
            spoken.append(sentence.first().toString());
        QVERIFY(spoken.size() >= 2 && spoken.join(QLatin1Char(' ')) == answer);
        QCOMPARE(inserted.size(), 2); // the question, then the answer's one row
        QCOMPARE(store.conversation()->get(2).value(u"text"_s).toString(), answer);

        const QList<Request> requests = chatRequests();
        QCOMPARE(requests.size(), 3);
        QCOMPARE(roles(sentMessages(requests.at(0))), (QStringList { "system", "assistant", "user" }));
        const QJsonArray second = sentMessages(requests.at(1));
        QCOMPARE(roles(second).mid(3), (QStringList { "assistant", "tool" }));
        QVERIFY(second.at(3)["tool_calls"][0]["id"] == "c1" && second.at(4)["tool_call_id"] == "c1");
        QCOMPARE(content(second.at(4)), u"• Constantin Brâncuși: sculptor român"_s);
        const QString page = content(sentMessages(requests.at(2)).at(6));
        QVERIFY(page.contains(u"Coloana infinitului"_s) && !page.contains(u"x()"_s));
    }

    // Each way of barging in keeps what was shown, reports no failure; a new message gets its own turn.
    void bargingInKeepsWhatWasShown()
    {
        Reply stalls = Reply::eventStreamChunks(streamedCompletion({ u"Prima parte. "_s }).mid(0, 1));
        stalls.holdOpenAfterChunks = true;
        answerWith({ stalls, stalls, stalls, Reply::json(completion(u"Alt răspuns."_s)) });
        ChatStore store;
        QSignalSpy finished(&store, &ChatStore::turnFinished);
        const std::function<void()> ways[] = { [&] { store.interrupt(); }, [&] { store.setDraft(u"S"_s); },
            [&] { AsyncTest::await(store.send(u"Altceva"_s)); } };
        QStringList expected { ChatStore::welcomeText() };
        for (const auto &bargeIn : ways) {
            store.setDraft(u"Spune o poveste"_s);
            store.sendDraft();
            QVERIFY(AsyncTest::waitUntil([&] { return store.activity() == Activity::Speaking; }));
            bargeIn();
            QVERIFY(AsyncTest::waitUntil([&] { return !store.isThinking(); }));
            QCOMPARE(finished.takeFirst().first().toBool(), false);
            expected << u"Spune o poveste"_s << u"Prima parte."_s;
        }
        expected << u"Altceva"_s << u"Alt răspuns."_s;
        QCOMPARE(texts(store.messages()).replaceInStrings(QRegularExpression(u"\\s+$"_s), {}), expected);
        QCOMPARE(store.conversation()->count(), expected.size());
        QVERIFY(store.zenError().isEmpty());
    }

    // Eight calls a round, four rounds, then the model must answer; tool failures go back as text.
    void toolCallsAreBoundedAndTheirFailuresReported()
    {
        m_setup->service.on("GET", u"/w/rest.php/v1/search/page"_s, Reply::text("oops", 503));
        QJsonArray thousands { toolCall(u"a"_s, u"kelo_web_search"_s, {}),
            toolCall(u"b"_s, u"kelo_fetch_url"_s, { { "url", 42 } }),
            toolCall(u"c"_s, u"kelo_web_search"_s, { { "query", "q" } }),
            toolCall(u"d"_s, u"kelo_fetch_url"_s, { { "url", "ftp://exemplu.ro" } }) };
        for (int i = 0; i < 20'000; ++i)
            thousands.append(toolCall(QString::number(i), u"nu_exista"_s, {}));
        m_setup->service.on("POST", u"/chat/completions"_s, [&thousands](const Request &request) {
            const QJsonArray sent = sentMessages(request);
            if (sent.last()["role"] == "system")
                return Reply::json(completion(u"Gata."_s));
            const bool first = !roles(sent).contains(u"tool"_s);
            return Reply::json(completion({}, first ? thousands : QJsonArray { toolCall(u"x"_s, u"nu_exista"_s, {}) }));
        });
        ChatStore store;
        AsyncTest::await(store.send(u"Folosește instrumente"_s));

        const QList<Request> requests = chatRequests();
        QCOMPARE(requests.size(), 5);
        const QJsonArray second = sentMessages(requests.at(1));
        QCOMPARE(roles(second).count(u"tool"_s), 8);
        QCOMPARE(second.at(second.size() - 9)["tool_calls"].toArray().size(), 8);
        QCOMPARE(content(second.at(second.size() - 8)), u"Lipsește parametrul query."_s);
        QCOMPARE(content(second.at(second.size() - 7)), u"Lipsește parametrul url."_s);
        QVERIFY(content(second.at(second.size() - 6)).startsWith(u"Căutarea web a eșuat: "_s));
        QVERIFY(content(second.at(second.size() - 5)).startsWith(u"Citirea URL-ului a eșuat: "_s));
        QCOMPARE(content(second.last()), u"Instrument necunoscut: nu_exista"_s);
        const QJsonArray last = sentMessages(requests.last());
        QVERIFY(content(last.last()).contains(u"fără a mai apela instrumente"_s));
        QCOMPARE(roles(last).count(u"tool"_s), 11);
        QCOMPARE(store.messages().constLast().text, u"Gata."_s);
    }

    // What was shown is kept after a failure, and a store closed mid-turn ends it (LeakSanitizer watches).
    void aFailedOrAbandonedTurnKeepsWhatWasShown()
    {
        Reply dropped = Reply::eventStreamChunks(streamedCompletion({ u"Început de răspuns."_s }).mid(0, 1));
        dropped.dropAfterChunks = true;
        Reply hang;
        hang.neverAnswer = true;
        answerWith({ dropped, hang });
        {
            ChatStore store;
            QSignalSpy finished(&store, &ChatStore::turnFinished);
            AsyncTest::await(store.send(u"Salut"_s));
            const QList<ChatMessage> answers = store.messages().mid(2);
            QCOMPARE(answers.size(), 2);
            QCOMPARE(answers.first().text.trimmed(), u"Început de răspuns."_s);
            QVERIFY2(
                answers.last().text.startsWith(u"Nu am putut termina răspunsul: "_s), qPrintable(answers.last().text));
            QVERIFY(answers.last().fromApp && answers.last().text.size() > 35);
            QCOMPARE(store.zenError(), u"Eroare de conexiune"_s);
            QCOMPARE(finished.first().first().toBool(), false);
            QVERIFY(!store.isThinking() && store.toolStatus().isEmpty());
            QCOMPARE(texts(reloaded(store)), texts(store.messages()));

            store.setDraft(u"Încă o dată"_s);
            store.sendDraft();
            QVERIFY(AsyncTest::waitUntil([&] { return chatRequests().size() == 2; }));
            QVERIFY(store.isThinking());
        }
        QCOMPARE(ChatStore().messages().constLast().text, u"Încă o dată"_s);
    }

    // Prompt, last sixteen messages, one-off search nudge, compaction into the next prompt, offline, reset.
    void theRequestFollowsTheConversationMemoryAndSettings()
    {
        QList<ChatMessage> earlier;
        for (int i = 0; i < 19; ++i)
            earlier.append(ChatMessage::make(
                i % 2 ? ChatMessage::Role::assistant : ChatMessage::Role::user, u"mesaj %1"_s.arg(i)));
        ConversationMemoryStore(m_setup->home.dataHome() + u"/Kelo"_s, nullptr).persist(earlier);
        m_setup->service.on("POST", u"/chat/completions"_s, [](const Request &request) {
            return Reply::json(completion(isCompaction(request) ? u"  • Îi place sculptura.  "_s : u"Am notat."_s));
        });
        ChatStore store;
        store.setForceInternetNext(true);
        AsyncTest::await(store.send(u"al douăzecilea"_s));
        const QJsonArray sent = sentMessages(chatRequests().first());
        QCOMPARE(sent.size(), 18);
        QVERIFY(content(sent.first()).startsWith(u"Ești Kelo"_s));
        QCOMPARE(content(sent.at(1)), u"mesaj 4"_s);
        QCOMPARE(content(sent.at(16)), u"al douăzecilea"_s);
        QVERIFY(content(sent.last()).contains(u"kelo_web_search"_s) && !store.forceInternetNext());
        QVERIFY(chatRequests().size() == 2 && isCompaction(chatRequests().last()));
        QVERIFY(content(sentMessages(chatRequests().last()).last()).contains(u"Utilizator: al douăzecilea"_s));
        QVERIFY(store.memory()->summary() == u"• Îi place sculptura."_s && store.memory()->summarizedUserCount() == 11);

        store.clearConversation();
        QCOMPARE(texts(store.messages()), QStringList { u"Conversație nouă. Memoria utilă rămâne disponibilă."_s });
        QVERIFY(store.messages().first().fromApp && store.conversation()->count() == 1);
        store.settings()->setInternetEnabled(false);
        AsyncTest::await(store.send(u"al doilea"_s));
        const QJsonArray next = sentMessages(chatRequests().constLast());
        QVERIFY(!chatRequests().constLast().json().contains("tools"));
        QCOMPARE(content(next.last()), u"al doilea"_s);
        QVERIFY(content(next.first()).contains(u"Memorie de conversație:\n• Îi place sculptura."_s));

        store.clearMemory();
        QCOMPARE(texts(store.messages()), QStringList { u"Memoria a fost resetată. Putem începe de la zero."_s });
        store.memory()->waitForWrites();
        QVERIFY(!QFile::exists(store.memory()->filePath()));
        QCOMPARE(ChatStore().messages().first().text, ChatStore::welcomeText());
    }
};

QTEST_GUILESS_MAIN(ChatStoreTest)
#include "ChatStoreTest.moc"
